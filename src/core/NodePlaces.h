// Where nodes stand in a text: what the writer remembers of nodes that it has written, and how a
// line names a place.
#pragma once

#include <tarns/core/TarnObject.h>

#include <bitset>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace tarns {

// The nodes that have been written, and the places of those that were not met below their parent.
//
// A place is a text of steps from the first node of the file, joined by "~": a child's name, or a
// pair of steps of which the first is empty and the second says ".MEMBER" for the node of a member
// or "N" for the Nth (from 2) of the children called as the step before. Names hold no "~" and are
// not empty, so nothing else looks like that.
//
// Memory: a bit for each object number in the neighbourhood of a written node.
class NodePlaces {
 public:
  explicit NodePlaces(TarnRef top) : top_(std::move(top)) {}

  // False when it has been noted before.
  bool note(const TarnRef& node);
  // A node that was written as `holder`'s member or, with an empty `member`, as a child called
  // `name` that has its own place elsewhere.
  void noteAway(const TarnRef& node, const TarnRef& holder, std::string_view name, bool isMember);
  // The place of a node that was written; false when it cannot be told, since others have moved it.
  bool find(const TarnRef& node, std::string& place) const;

  // The node at a place below `top`; null when there is none.
  static TarnRef NodeAt(const TarnRef& top, std::string_view place);

 private:
  struct Away {
    TarnRef holder;
    std::string step;
  };
  static constexpr std::size_t kChunk = 4096;

  TarnRef top_;
  std::unordered_map<std::uint64_t, std::unique_ptr<std::bitset<kChunk>>> stored_;
  std::unordered_set<const void*> transient_;
  std::unordered_map<std::uint64_t, Away> away_;
};

}  // namespace tarns
