#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "tools/node_view.h"

namespace tarns {

// Goes through everything below a node, each node before its children, those in the order in which
// ChildSource gives them. Does not recurse; does not enter a node below itself.
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
  std::optional<Step> step_;
  bool entersStep_ = false;
};

}  // namespace tarns
