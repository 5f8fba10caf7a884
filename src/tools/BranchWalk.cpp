#include "tools/BranchWalk.h"

#include <utility>

#include "tools/signals.h"

namespace tarns {

BranchWalk::BranchWalk(const TarnRef& from) : shared_(from) { enter(from); }

void BranchWalk::enter(const TarnRef& node) {
  openNodes_.insert(node.handle());
  levels_.push_back({node, ChildSource(node)});
}

const BranchWalk::Step* BranchWalk::next() {
  ThrowIfInterrupted();
  if (std::exchange(entersStep_, false)) enter(step_->node);
  while (!levels_.empty()) {
    Level& level = levels_.back();
    auto child = level.children.next();
    if (!child) {
      openNodes_.erase(level.node.handle());
      levels_.pop_back();
      continue;
    }
    const bool isCircle = openNodes_.contains(child->child.handle());
    names_.resize(levels_.size() - 1);
    names_.push_back(child->name);
    const bool isElsewhere =
        !isCircle && !shared_.entersHere(child->child, level.node, child->name);
    step_ = Step{std::move(child->name),
                 std::move(child->child),
                 levels_.size(),
                 level.children.isAtEnd(),
                 isCircle,
                 isElsewhere};
    entersStep_ = !isCircle && !isElsewhere;
    return &*step_;
  }
  return nullptr;
}

std::string BranchWalk::path() const {
  std::string path;
  for (const std::string& name : names_) {
    if (!path.empty()) path += '~';
    path += name;
  }
  return path;
}

}  // namespace tarns
