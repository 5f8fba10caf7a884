#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "tools/SharedNodes.h"
#include "tools/node_view.h"

namespace tarns {

// Goes through everything below a node, each node before its children, those in the order in which
// ChildSource gives them. Does not recurse; enters no node below itself, and one that is listed in
// several places in one of them only.
//
//   BranchWalk walk(node);
//   while (const auto* step = walk.next()) ...
class BranchWalk {
 public:
  struct Step {
    std::string name;
    TarnRef node;
    std::size_t depth;  // from 1 for a child of the node
    bool isLast;        // of its parent's children
    bool isCircle;      // it is one of the nodes above it
    bool isElsewhere;   // it is entered in another place
  };

  explicit BranchWalk(const TarnRef& from);

  // The next one, until the next call; null at the end.
  const Step* next();
  // Passes over what is below the step.
  void skipChildren() { entersStep_ = false; }
  // The path of the step from the node.
  std::string path() const;

 private:
  struct Level {
    TarnRef node;
    ChildSource children;
  };

  void enter(const TarnRef& node);

  std::vector<Level> levels_;
  std::vector<std::string> names_;             // of the step and those above it
  std::unordered_set<const void*> openNodes_;  // handles, which levels_ holds
  SharedNodes shared_;
  std::optional<Step> step_;
  bool entersStep_ = false;
};

}  // namespace tarns
