#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

// What a merge does where both branches have a node.
enum class TarnMergeRule : std::uint8_t {
  kKeep,     // the node that is there stays as it is, with its value and members
  kReplace,  // the one that comes wins: where both are of one class, the one that is there takes
             // over its value and members; otherwise the one that comes takes its place
  kMergeValues,  // the one that is there stays what it is, and takes over, converted, what the
                 // other has to say: its value, and members of the same names that are not null.
                 // A plain node, which can hold nothing, gives way to any other
};

// What became of a node, see TarnMergeChange.
enum class TarnMergeEffect : std::uint8_t {
  kAdded,      // nothing was there; it came with everything below it
  kKept,       // the node that was there stays as it was
  kTakenOver,  // the node that was there has the value and members of the one that came
  kReplaced    // the one that came is in its place, with its children as far as they were kept
};

struct TarnMergeChange {
  std::string path;  // from the node that the merge is into, which is ""
  TarnMergeEffect effect;
};

// Two nodes of one place; neither has been changed yet.
struct TarnMergeMeeting {
  const xcptref<TarnObject>& source;
  const xcptref<TarnObject>& target;
  const std::string& path;  // as in TarnMergeChange
};

struct TarnCloneOptions {
  // --- Copies in batches
  std::size_t batchSize = 50'000;  // nodes in a transaction, at least 1
  // Called after each, with the nodes so far; they grow no more while references are set.
  std::function<void(std::uint64_t)> progress = {};

  // --- Merges
  TarnMergeRule rule = TarnMergeRule::kReplace;
  // When set, decides in place of `rule`. May read anything, and changes nothing. Asked once more
  // for all when the session's mergeBranch() is repeated after a deadlock.
  std::function<TarnMergeRule(const TarnMergeMeeting&)> choose = {};
  bool keepsSource = false;     // copies what comes, instead of moving it
  bool changesNothing = false;  // only reports what a merge would do
  // Called for each node that is met, in the order of the source; by the session's mergeBranch()
  // when all is done (and committed, unless the caller has a transaction).
  std::function<void(const TarnMergeChange&)> report = {};
};

// Copies and merges of whole branches: what deepClone() and the session's copyBranch() and
// mergeBranch() are made of.
//
// To a branch belong its top, the children whose parent is in it, at any depth, and the nodes
// without parent that members refer to. A reference or further entry whose target belongs to the
// branch is to the copy of it in the copy; any other is to the same target. So a node that several
// places of a branch share is shared in the copy, and circles stay circles. Entries that stand for
// nothing (a damaged database may have such) are left out; null references stay null.
//
// Does not recurse. Beside the copy itself it takes about 40 bytes of memory for each reference
// between nodes, and 16 for each node; in batches 100 for each node that is referred to instead.
// Threads: any, each with branches of its own; the options' functions are called on the caller's.
// Errors: those of reading and writing.
class TARNS_API TarnCloner {
 public:
  explicit TarnCloner(TarnCloneOptions options = {}) : options_(std::move(options)) {}

  // A copy of the branch that is not stored and has no parent. Of one state within a transaction;
  // outside, of one state for each some hundred nodes.
  xcptref<TarnObject> copy(const xcptref<TarnObject>& branch) const;

  // Copies the branch, however large it is, to `path` below a stored node in several transactions,
  // and returns the copy. It grows under NameOfUnfinished(last name of the path) as a child of the
  // lowest node on the path that exists. At the end it takes its place, instead of what is there,
  // in one small transaction, which makes what is missing on the path, too. So whoever looks at the
  // place sees what was there or the whole copy. What throws leaves all as it was. After a crash
  // the unfinished copy remains: delete it, or begin anew, which does. Of two that copy to one
  // place at a time, the earlier one fails.
  // Outside of other changes to the branch the copy is exact; with them it is of one state for each
  // some hundred nodes, and a node that is moved meanwhile may be missing or come twice.
  // Locks nothing of the branch, and of the node in which the copy grows its list of children at
  // the beginning and at the end. Throws 0 for a branch that is in what an earlier copy has left.
  // Within a transaction, or when `parent` is not stored, it is part of what the caller does.
  xcptref<TarnObject> copyInBatches(const xcptref<TarnObject>& branch,
                                    const xcptref<TarnObject>& parent, std::string_view path) const;
  static std::string NameOfUnfinished(std::string_view name);

  // Merges the branch into the child `name` of `parent` (a member of that name counts as one), or
  // puts it there when there is none. A child that only one of the two has is kept, at any depth;
  // where both have one of that name the rule decides on the two nodes, and then their children are
  // merged in the same way. Of several children of one name the first is merged, the later ones
  // into it in turn. A child that has its parent elsewhere is listed, and goes on having it. A
  // bundle is one with all that is in it: where both nodes are bundles, kReplace puts the one that
  // comes in the place of the other, any other rule keeps the one that is there.
  //
  // Moving (the default) hands over the nodes themselves, with their identifiers, and leaves in
  // `branch` what was not used; `lister` is the node whose child it is taken from, by default its
  // parent. With `keepsSource` the branch stays as it is, and what comes is copied. In members that
  // are copied or taken over, references to nodes of the branch lead to what became of those, as
  // far as the members take nodes of that class. A node that moves keeps its references as they
  // are, even to nodes that were merged into others and left behind. A branch is not merged into
  // itself.
  // Outside a transaction each step is one of its own: call it within one. (Reporting alone locks
  // nothing then, and may be of several states.) A report in advance may differ from what happens
  // where a node is listed in several places of the branch, and where several children of one name
  // meet by kMergeValues what `choose` makes depend on values.
  // Throws 12 when a node does not fit a member that it would go into.
  void merge(const xcptref<TarnObject>& branch, const xcptref<TarnObject>& parent,
             std::string_view name) const;
  void merge(const xcptref<TarnObject>& branch, const xcptref<TarnObject>& lister,
             const xcptref<TarnObject>& parent, std::string_view name) const;
  // Merges it into a node that nothing has to list, such as the root: throws 0, and has changed
  // nothing, when a node that is more than a plain one would have to take its place.
  void mergeInto(const xcptref<TarnObject>& branch, const xcptref<TarnObject>& lister,
                 const xcptref<TarnObject>& target) const;

  // What merge() would do, without changing anything.
  std::vector<TarnMergeChange> preview(const xcptref<TarnObject>& branch,
                                       const xcptref<TarnObject>& parent,
                                       std::string_view name) const;

 private:
  TarnCloneOptions options_;
};

// "added", "kept", "taken over", "replaced".
TARNS_API const char* ToText(TarnMergeEffect effect);

}  // namespace tarns
