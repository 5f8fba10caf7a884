// Where nodes stand in a text: what the writer remembers of nodes that it has written, and how a
// line names a place.
#pragma once

#include <goods/kept_numbers.h>
#include <tarns/core/TarnObject.h>

#include <array>
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
// Places are not kept but found from the nodes' parents. Where others may move nodes meanwhile, a
// check of each place is kept, so that a node is not looked for in the text where it is now.
// Memory: a bit for each object number in the neighbourhood of a written node; where nodes may move
// also four bytes.
class NodePlaces {
 public:
  // Tells places apart; that of the first node is 0.
  using Check = std::uint64_t;

  NodePlaces(TarnRef top, bool mayMove) : top_(std::move(top)), mayMove_(mayMove) {}

  // False when it has been noted before.
  bool note(const TarnRef& node);
  bool noteStored(goods::object_id id);
  // The stored ones that another one has noted. False, and nothing done, when one of them has been
  // noted here before.
  bool noteAll(const NodePlaces& others);
  // A node that was written one step from `holder`, but not as a child below its parent.
  void noteAway(const TarnRef& node, const TarnRef& holder, std::string step);
  // A node that was written once more since find() could not tell its place.
  void noteAgain(const TarnRef& node, std::string place, Check check);
  // To be called for each node that is written when nodes may move.
  void notePlace(const TarnRef& node, Check check);
  // The place of a node that was written; false when it cannot be told, since others have moved it.
  bool find(const TarnRef& node, std::string& place) const;

  // The step to a node's member; to the child of that name and number among those of its name.
  static std::string MemberStep(std::string_view member);
  static std::string ChildStep(std::string_view name, unsigned long number);
  // The check of a place from that of the place one step before.
  static Check CheckBehind(Check before, std::string_view step);

  // What is still to be put at nodes that are stored. Null: nothing.
  class Coming {
   public:
    virtual ~Coming() = default;
    // The child of that number among those of its name that are still to come to `holder`.
    virtual TarnRef child(const TarnRef& holder, std::string_view name, unsigned long number) = 0;
    // The node that the member is going to refer to.
    virtual TarnRef member(const TarnRef& holder, std::string_view name) = 0;
  };
  // The node at a place below `top`; null when there is none. `coming`: null when nothing is.
  static TarnRef NodeAt(const TarnRef& top, std::string_view place, Coming* coming = nullptr);

 private:
  struct Away {
    TarnRef holder;
    std::string step;
  };
  struct Again {
    std::string place;
    Check check;
  };
  static constexpr std::size_t kChunk = 4096;
  using ShortCheck = std::uint32_t;

  const TarnRef top_;
  const bool mayMove_;
  const goods::kept_numbers kept_;
  std::unordered_map<std::uint64_t, std::unique_ptr<std::bitset<kChunk>>> stored_;
  std::bitset<kChunk>* last_ = nullptr;  // of stored_, used last: the next node is mostly near
  std::uint64_t lastNumber_ = 0;
  std::unordered_set<const void*> transient_;
  std::unordered_map<std::uint64_t, Away> away_;
  std::unordered_map<std::uint64_t, Again> again_;
  std::unordered_map<std::uint64_t, std::unique_ptr<std::array<ShortCheck, kChunk>>> checks_;
};

}  // namespace tarns
