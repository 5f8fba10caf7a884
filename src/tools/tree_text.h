// Branches drawn for people.
#pragma once

#include <cstddef>
#include <string_view>

#include "tools/Output.h"
#include "tools/node_view.h"

namespace tarns {

// Levels that are drawn when nobody asks for more; what lies deeper is counted.
constexpr std::size_t kUsualDepth = 64;

// Draws the branch with lines, `depth` levels below the node; a node that is met again below itself
// is not entered. `title` stands for the node itself.
void WriteTree(Output& out, std::string_view title, const TarnRef& node, std::size_t depth);

}  // namespace tarns
