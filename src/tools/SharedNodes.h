#pragma once

#include <goods/kept_numbers.h>
#include <tarns/core/TarnObject.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

namespace tarns {

// Keeps a walk over a branch from entering a node more than once: one that is listed in several
// places is entered at its own place, below its parent, when that is in the branch, otherwise where
// it is met first. Without that, a few nodes that list each other twice would be a branch without
// end.
// Threads: one.
class SharedNodes {
 public:
  explicit SharedNodes(TarnRef top) : top_(std::move(top)) {}

  // Whether the node that `holder` lists under `name` is to be entered here. To be asked once.
  bool entersHere(const TarnRef& node, const TarnRef& holder, std::string_view name);

 private:
  TarnRef top_;  // of the branch
  goods::kept_numbers kept_;
  std::unordered_set<std::uint64_t> entered_;  // identifiers of nodes that have no place in it
};

// Where a node is at home, for messages.
std::string PlaceOf(const TarnRef& node);

}  // namespace tarns
