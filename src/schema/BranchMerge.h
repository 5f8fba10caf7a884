// Merging branches; the rules stand in TarnCloner.h.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnCloner.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "schema/BranchCopy.h"

namespace tarns {

// A node and the one that lists it; it may have its parent elsewhere. Without a holder: the root,
// or a node that is nobody's child.
struct BranchNode {
  TarnRef node, holder;
};

// One merge. Goes down both branches with a stack of its own and meets each pair of nodes once, so
// that neither depth nor references in circles matter. A preview takes the same steps, and keeps in
// mind what they would have changed.
// Threads: one.
class BranchMerge {
 public:
  explicit BranchMerge(const TarnCloneOptions& options);

  // Takes the first child of that name for gone: as when it has been taken out of there.
  void hide(const TarnRef& holder, std::string_view name);
  // `name` is that of the target in its holder; a null target is put there.
  void merge(const BranchNode& source, const BranchNode& target, std::string_view name);

 private:
  // A child of the source, as it was listed when the merge came to that node.
  struct Child {
    std::string name;
    TarnRef node;
    TarnRef holder;
    bool isHome = false;
  };
  // A node of the target whose children are met next.
  struct Level {
    TarnRef target;
    std::vector<Child> children;
    std::size_t next = 0;
    std::size_t pathLength = 0;
  };
  // What a preview takes to be at a place.
  struct Present {
    TarnRef node;      // whose class and members are there; null for nothing
    TarnRef children;  // whose children are found there
  };
  using Place = std::pair<std::uint64_t, std::string>;  // see WalkKeyOf(); a name
  struct Listing {
    TarnRef holder, node;
    std::string name;
  };

  // What is done with the two nodes of a pair.
  enum class Step { kKeep, kTakeOver, kMergeValues, kReplace };

  Present find(const TarnRef& holder, const std::string& name) const;
  std::vector<Child> childrenOf(const TarnRef& node) const;
  void meet(const Child& source, const Present& target, const TarnRef& holder,
            const std::string& name);
  void meetNextChild();
  void add(const Child& child, const TarnRef& holder, const std::string& name);
  bool isThereNow(Step step) const;
  TarnMergeRule ruleFor(const TarnRef& source, const TarnRef& target) const;
  Step decide(const TarnRef& source, const TarnRef& target, bool mayReplace) const;
  Step decideWhole(const TarnRef& source, const TarnRef& target) const;
  void takeOver(const TarnRef& source, const TarnRef& target);
  void mergeValues(const TarnRef& source, const TarnRef& target);
  TarnRef putInPlace(const Child& source, const TarnRef& holder, const std::string& name);
  TarnRef replace(const Child& source, const TarnRef& target, const TarnRef& holder,
                  const std::string& name);
  TarnRef copyBranch(const TarnRef& original, BranchCopy::Below children);
  void report(TarnMergeEffect effect) const;
  void finish();

  const TarnCloneOptions& options_;
  std::vector<Level> levels_;
  std::string path_;
  std::set<std::pair<std::uint64_t, std::uint64_t>> met_;
  std::vector<TarnRef> kept_;  // so that no other node takes the key of one that was met
  BranchCopy copies_;
  std::vector<Listing> listings_;  // entries for nodes whose place is elsewhere, made at the end
  // Of a preview.
  std::map<Place, Present> changed_;
  std::unordered_set<std::uint64_t> moved_;
};

}  // namespace tarns
