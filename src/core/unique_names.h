// Names that no child of a node bears yet.
#pragma once

#include <goods/reader.h>
#include <tarns/util/XString.h>

#include <string_view>

namespace tarns {

class TarnObject;

// Whether a member of the node's class (or an element of one) or an abstract child bears the name.
bool HasChild(goods::reader& reader, const TarnObject& node, std::string_view name);

// See TarnObject::getUniqueChildName().
XString UniqueNameIn(goods::reader& reader, const TarnObject& node, std::string_view name);

// The first element name of `base` with an index above that of `after` which is free in both nodes.
XString NextNameFreeInBoth(const TarnObject& one, const TarnObject& other, std::string_view base,
                           std::string_view after);

}  // namespace tarns
