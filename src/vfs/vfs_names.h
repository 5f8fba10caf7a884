// Names of items and how duplicates are numbered.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/util/XString.h>

#include <string_view>

namespace tarns {

// See TarnVFS::getBaseExtName().
void SplitItemName(const XString& name, XString& base, XString& ext, long& number);

// The name that TarnVFS::modifyItemName() gives in place of `name` below `items`, or below
// `folders`; one that is free.
XString NumberedName(const TarnRef& items, std::string_view name);
// `name` itself where it is free.
XString FreeName(const TarnRef& items, std::string_view name);

}  // namespace tarns
