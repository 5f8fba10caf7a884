// Conditions as people write them: Section = libs and Package starts libx
#pragma once

#include <tarns/select/TarnQuery.h>

#include <string>
#include <string_view>

namespace tarns {

// A new query, not stored. A condition is a path, an operator (< > = != >= <= starts contains) and
// a text; "and" and "or" join it to the next one, from left to right. Words end at blanks; what
// holds blanks or quotation marks stands in "...", where \" and \\ stand for the marks themselves.
// Throws UsageError, which names what is wrong.
xcptref<TarnQuery> ParseWhere(std::string_view text);

// The conditions of a query, which ParseWhere() reads again as far as they can be written so.
std::string WhereOf(const TarnQuery& query);

}  // namespace tarns
