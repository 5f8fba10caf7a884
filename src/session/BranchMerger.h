// Merging one branch into another; the rules stand at TarnManager::mergeBranch().
#pragma once

#include <tarns/core/TarnObject.h>

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarns {

// One merge. Works through a list of pairs of nodes, not by recursion, and meets each pair once, so
// that neither depth nor references in circles matter.
// Threads: one, within a transaction, so that it is of one state and happens as a whole.
class BranchMerger {
 public:
  explicit BranchMerger(bool overwrite) : overwrite_(overwrite) {}

  // A node and the one that lists it, through which the merge has come to it; it may have its
  // parent elsewhere. Without a holder: the root, or a node that is nobody's child.
  struct Held {
    TarnRef node, holder;
  };

  // Leaves in `source` what lost. `name` is that of the target in its holder. Throws 0 before
  // anything has changed when the source would have to replace the root.
  void merge(const Held& source, const Held& target, std::string_view name);

 private:
  struct Pair {
    Held source, target;
    std::string name;  // of the target in its holder
    bool sourceWins;
  };

  void mergePair(const Pair& pair);
  // Decides on the nodes themselves. True when the target has left its place to the source.
  bool replaceNode(const Pair& pair);
  // `holder` lists the child: the source of the pair, or the node that has further ones of its.
  void mergeChild(std::string_view name, const TarnRef& child, const TarnRef& holder,
                  const Pair& of);

  bool overwrite_;
  std::vector<Pair> open_;
  std::set<std::pair<const void*, const void*>> met_;  // handles, which open_ and kept_ hold
  std::vector<Pair> kept_;
};

}  // namespace tarns
