#include "session/BranchMerger.h"

#include <tarns/core/TarnException.h>

#include <string>

#include "core/further_children.h"

namespace tarns {

namespace {

bool IsPlain(const TarnRef& node) { return node->isOfType(TarnObject::GetType()); }

[[noreturn]] void ThrowRootStays(const TarnRef& source) {
  TarnException error;
  error << "A \"" << goods::class_of(source).name()
        << "\" cannot be merged into the root as the one that wins: the root stays what it is.";
  throw error;
}

}  // namespace

void BranchMerger::merge(const Held& source, const Held& target, std::string_view name) {
  if (overwrite_ && target.holder.is_null() && !IsPlain(source.node)) ThrowRootStays(source.node);
  open_.push_back({source, target, std::string(name), overwrite_});
  while (!open_.empty()) {
    Pair pair = std::move(open_.back());
    open_.pop_back();
    if (pair.source.node == pair.target.node) continue;
    if (!met_.emplace(pair.source.node.handle(), pair.target.node.handle()).second) continue;
    mergePair(pair);
    kept_.push_back(std::move(pair));
  }
}

void BranchMerger::mergePair(const Pair& pair) {
  if (replaceNode(pair)) {
    // From here on the node that came is the one that is there, and it wins.
    const Held winner{pair.source.node, pair.target.holder};
    open_.push_back({{pair.target.node, nullptr}, winner, pair.name, false});
    return;
  }
  for (TarnRef holder = pair.source.node; !holder.is_null(); holder = FurtherHolderOf(holder)) {
    for (const auto& [name, child] : holder->children()) mergeChild(name, child, holder, pair);
  }
}

bool BranchMerger::replaceNode(const Pair& pair) {
  const auto& [source, giver] = pair.source;
  const auto& [target, holder] = pair.target;
  if (!pair.sourceWins) return false;
  if (&goods::class_of(source) == &goods::class_of(target)) {
    if (!IsPlain(source)) modify(target)->copyFrom(source);
    return false;
  }
  if (holder.is_null()) return false;  // a plain node and the root
  if (source->getParent() == giver) {
    modify(holder)->moveChild(pair.name.c_str(), source);
  } else {
    modify(holder)->setNode(pair.name.c_str(), source);  // its place is elsewhere
  }
  return true;
}

void BranchMerger::mergeChild(std::string_view name, const TarnRef& child, const TarnRef& holder,
                              const Pair& of) {
  const TarnRef& target = of.target.node;
  const TarnRef present = target->getChildWithName(name);
  const std::string text(name);
  if (!present.is_null()) {
    open_.push_back({{child, holder}, {present, target}, text, of.sourceWins});
  } else if (child->getParent() == holder) {
    modify(target)->moveChild(text.c_str(), child);
  } else {
    modify(target)->addChild(text.c_str(), child);  // its place is elsewhere
  }
}

}  // namespace tarns
