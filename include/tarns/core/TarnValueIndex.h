#pragma once

#include <tarns/core/TarnPath.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tarns {

class TarnObject;

// Indexes of a node's children by a value below each of them.
//
//   TarnValueIndex::Declare(manager.getObject("packages"), "Section");
//
// From then on queries (TarnSelection) and TarnCollector::CollectChildrenWithValue() find the
// children by that value without looking at all of them, and every commit that adds, removes or
// renames a child, or changes such a value in whatever way, changes the index as well: in any
// session, from any thread. Results are the same with an index and without.
//
// An index belongs to the node's list of children. It is stored, goes where that goes (a node that
// is moved or renamed, bequeathChildren() to a node without children, TarnCollection::Balance())
// and ends with it; copies of a branch, and its text form, have none. Neither children nor listings
// show it. Texts are indexed as queries compare them: up to 240 bytes, in upper case.
//
// What it costs: a commit that touches an indexed value writes a few pages of the index, whose top
// all of them share, so such commits of several threads come one after the other. In a database
// that has ever had an index each commit also looks at up to kMostBranches ancestors of what it
// changes. Within a transaction that has changed anything, queries do without indexes until it is
// committed.
//
// Not followed: a text that several nodes share through one TarnString reference and that is
// changed by way of another node; a class on the way to the value whose findChild() answers by what
// other objects say.
//
// Damage to an index fails neither queries nor changes: see Check().
//
// Threads: any that is attached. Errors: TarnException 0 for a null node, one that is not stored,
// or a path of none or more than kMostBranches branches; what the database throws.
class TARNS_API TarnValueIndex {
 public:
  static constexpr std::size_t kMostBranches = 8;

  // Makes an index of the values at the path `below` each child, filled when the transaction is
  // committed. False when there is one already. Reads all children in one transaction.
  static bool Declare(const xcptref<TarnObject>& node, const TarnPath& below);
  // False when there is none.
  static bool Drop(const xcptref<TarnObject>& node, const TarnPath& below);
  // Makes it anew, also when it is damaged or has been given up. False when there is none.
  static bool Rebuild(const xcptref<TarnObject>& node, const TarnPath& below);
  // The paths, in their order.
  static std::vector<std::string> List(const xcptref<TarnObject>& node);

  // Compares the indexes with the values: a sentence for each entry that is missing or wrong, up to
  // `most`, and for each index that is damaged, or was given up because a change met damage in it.
  // Of one state; looks at all children.
  static std::vector<std::string> Check(const xcptref<TarnObject>& node, std::size_t most = 100);
};

}  // namespace tarns
