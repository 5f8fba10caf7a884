#include "session/BranchMerger.h"

#include <string>

namespace tarns {

void BranchMerger::merge(const TarnRef& source, const TarnRef& target) {
  open_.push_back({source, target, overwrite_});
  while (!open_.empty()) {
    Pair pair = std::move(open_.back());
    open_.pop_back();
    if (pair.source == pair.target) continue;
    if (!met_.emplace(pair.source.handle(), pair.target.handle()).second) continue;
    mergePair(pair);
    kept_.push_back(std::move(pair));
  }
}

void BranchMerger::mergePair(const Pair& pair) {
  if (replaceNode(pair)) {
    // From here on the node that came is the one that is there, and it wins.
    open_.push_back({pair.target, pair.source, false});
    return;
  }
  for (const auto& [name, child] : pair.source->children()) mergeChild(name, child, pair);
}

bool BranchMerger::replaceNode(const Pair& pair) {
  if (!pair.sourceWins) return false;
  if (&goods::class_of(pair.source) == &goods::class_of(pair.target)) {
    if (!pair.source->isOfType(TarnObject::GetType())) modify(pair.target)->copyFrom(pair.source);
    return false;
  }
  const TarnRef parent = pair.target->getParent();
  if (parent.is_null()) return false;  // the root stays what it is
  const XString name = pair.target->getName();
  modify(parent)->moveChild(name, pair.source);
  return true;
}

void BranchMerger::mergeChild(std::string_view name, const TarnRef& child, const Pair& of) {
  const TarnRef present = of.target->getChildWithName(name);
  const std::string text(name);
  if (!present.is_null()) {
    open_.push_back({child, present, of.sourceWins});
  } else if (child->getParent() == of.source) {
    modify(of.target)->moveChild(text.c_str(), child);
  } else {
    modify(of.target)->addChild(text.c_str(), child);  // its place is elsewhere
  }
}

}  // namespace tarns
