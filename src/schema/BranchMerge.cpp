#include "schema/BranchMerge.h"

#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValue.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <limits>

#include "core/branch_batch.h"
#include "core/further_children.h"
#include "core/node_access.h"
#include "core/node_members.h"

namespace tarns {

namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

bool IsPlain(const TarnRef& node) { return node->isOfType(TarnObject::GetType()); }

bool HoldsNothing(const TarnRef& node) {
  return !node.isA<TarnValue>() && !node->getClass().hasDataMembers();
}

bool IsOfOneClass(const TarnRef& a, const TarnRef& b) {
  return &goods::class_of(a) == &goods::class_of(b);
}

[[noreturn]] void ThrowRootStays(const TarnRef& source) {
  TarnException error;
  error << "A \"" << goods::class_of(source).name()
        << "\" cannot be merged into the root as the one that wins: the root stays what it is.";
  throw error;
}

// Gives back what `to` had before it took over null references from `source`.
void RestoreWhereNull(const TarnObject& source, const TarnObject& before, TarnObject& to) {
  ForEachReference(
      to, [&](const goods::field_descriptor& field, unsigned item, goods::object_ref& reference) {
        const TarnFieldDescriptor* const other = source.getClass().findField(field.name());
        if (other == nullptr || !IsCountedReference(*other) || item >= other->n_items()) return;
        const goods::object_ref& had = ReferenceAt(before, field, item);
        if (ReferenceAt(source, *other, item).is_null() && !had.is_null()) reference = had;
      });
}

}  // namespace

void BranchMerge::hide(const TarnRef& holder, std::string_view name) {
  Present next;
  const std::string text(name);
  if (holder->getClass().findMember(text.c_str()) == nullptr) {
    TarnIterator place = holder->getIterTo(text.c_str());
    place.next(nullptr);
    if (!place.isNull() && place.getEntryName() == name) next.node = place.get(nullptr);
  }
  next.children = next.node;
  changed_[{WalkKeyOf(holder.word()), text}] = next;
}

void BranchMerge::merge(const BranchNode& source, const BranchNode& target, std::string_view name) {
  const std::string place(name);
  const bool isHome = options_.keepsSource || source.node->getParent() == source.holder;
  const Child top{place, source.node, source.holder, isHome};
  Present there{target.node, target.node};
  if (there.node.is_null() && !target.holder.is_null()) there = find(target.holder, place);
  if (there.node.is_null()) {
    add(top, target.holder, place);
  } else {
    meet(top, there, target.holder, place);
  }
  while (!levels_.empty()) meetNextChild();
  if (!options_.changesNothing) finish();
}

BranchMerge::Present BranchMerge::find(const TarnRef& holder, const std::string& name) const {
  if (options_.changesNothing) {
    const auto changed = changed_.find({WalkKeyOf(holder.word()), name});
    if (changed != changed_.end()) return changed->second;
  }
  const TarnRef node = holder->getChildWithName(std::string_view(name));
  return {node, node};
}

std::vector<BranchMerge::Child> BranchMerge::childrenOf(const TarnRef& node) const {
  std::vector<Child> children;
  for (TarnRef holder = node; !holder.is_null(); holder = FurtherHolderOf(holder)) {
    ForEachEntry(holder->getChildren(), [&](const goods::held_entry& entry, const TarnRef& child) {
      if (child.is_null()) return true;  // an entry that stands for nothing
      const bool isHome = TarnNodeAccess::IsParentLink(child, entry.member);
      if (isHome && moved_.contains(WalkKeyOf(child.word()))) return true;
      children.push_back({entry.name, child, holder, isHome});
      return true;
    });
  }
  return children;
}

void BranchMerge::meetNextChild() {
  Level& level = levels_.back();
  if (level.next == level.children.size()) {
    levels_.pop_back();
    return;
  }
  const Child child = std::move(level.children[level.next++]);
  const TarnRef holder = level.target;
  path_.resize(level.pathLength);
  if (!path_.empty()) path_ += TarnBranches::kSeparator;
  path_ += child.name;
  const Present present = find(holder, child.name);
  if (present.node.is_null()) {
    add(child, holder, child.name);
  } else {
    meet(child, present, holder, child.name);
  }
}

void BranchMerge::meet(const Child& source, const Present& target, const TarnRef& holder,
                       const std::string& name) {
  if (source.node == target.node) return;
  if (!met_.emplace(WalkKeyOf(source.node.word()), WalkKeyOf(target.node.word())).second) return;
  kept_.push_back(source.node);
  kept_.push_back(target.node);
  const Step step = decide(source.node, target.node, !holder.is_null());
  std::vector<Child> children = childrenOf(source.node);
  TarnRef at = target.children;
  if (options_.changesNothing) {
    if (step == Step::kReplace) {
      changed_[{WalkKeyOf(holder.word()), name}] = {source.node, target.children};
    }
  } else {
    if (step == Step::kTakeOver) takeOver(source.node, at);
    if (step == Step::kMergeValues) mergeValues(source.node, at);
    if (step == Step::kReplace) at = replace(source, at, holder, name);
    copies_.relate(source.node, at);
  }
  report(step == Step::kKeep      ? TarnMergeEffect::kKept
         : step == Step::kReplace ? TarnMergeEffect::kReplaced
                                  : TarnMergeEffect::kTakenOver);
  levels_.push_back({std::move(at), std::move(children), 0, path_.size()});
}

BranchMerge::Step BranchMerge::decide(const TarnRef& source, const TarnRef& target,
                                      bool mayReplace) const {
  const TarnMergeRule rule =
      options_.choose ? options_.choose({source, target, path_}) : options_.rule;
  if (rule == TarnMergeRule::kKeep) return Step::kKeep;
  if (rule == TarnMergeRule::kMergeValues && !HoldsNothing(target)) {
    return HoldsNothing(source) ? Step::kKeep : Step::kMergeValues;
  }
  if (rule == TarnMergeRule::kMergeValues && HoldsNothing(source)) return Step::kKeep;
  if (!mayReplace && !IsPlain(source)) ThrowRootStays(source);
  if (IsOfOneClass(source, target)) return IsPlain(source) ? Step::kKeep : Step::kTakeOver;
  return mayReplace ? Step::kReplace : Step::kKeep;
}

void BranchMerge::takeOver(const TarnRef& source, const TarnRef& target) {
  modify(target)->copyFrom(source);
  if (options_.keepsSource) copies_.noteReferences(target);
}

void BranchMerge::mergeValues(const TarnRef& source, const TarnRef& target) {
  const TarnRef before = target->clone();
  TarnData old, value;
  const bool hadValue = target->get(nullptr, old);
  const bool hasValue = source->get(nullptr, value) && value.getType() != TarnData::None;
  {
    auto body = modify(target);
    body->copyFrom(source);
    if (hadValue && !hasValue) body->setValue(nullptr, old);
    RestoreWhereNull(*source.read(), *before.read(), *body);
  }
  if (options_.keepsSource) copies_.noteReferences(target);
}

TarnRef BranchMerge::copyBranch(const TarnRef& original, BranchCopy::Below children) {
  TarnRef copy = copies_.begin(original, children);
  copies_.copyMore(kAll);
  return copy;
}

TarnRef BranchMerge::replace(const Child& source, const TarnRef& target, const TarnRef& holder,
                             const std::string& name) {
  TarnRef heir = source.node;
  if (options_.keepsSource) {
    heir = copyBranch(source.node, BranchCopy::Below::kLeftOut);
    modify(holder)->setNode(name.c_str(), heir);
  } else {
    if (source.isHome) {
      modify(holder)->moveChild(name.c_str(), heir);
    } else {
      modify(holder)->setNode(name.c_str(), heir);  // its place is elsewhere
    }
    modify(heir)->deleteChildren();  // they come back one by one
  }
  modify(target)->bequeathChildren(heir);
  return heir;
}

void BranchMerge::add(const Child& child, const TarnRef& holder, const std::string& name) {
  report(TarnMergeEffect::kAdded);
  const TarnRef parent = child.node->getParent();
  const bool isHome = child.isHome && (options_.keepsSource || parent.is_null() ||
                                       parent == child.holder);  // nobody has taken it since
  if (!isHome) {
    listings_.push_back({holder, child.node, name});
  } else if (options_.changesNothing) {
    changed_[{WalkKeyOf(holder.word()), name}] = {child.node, child.node};
    if (!options_.keepsSource) moved_.insert(WalkKeyOf(child.node.word()));
  } else if (options_.keepsSource) {
    const TarnRef copy = copyBranch(child.node, BranchCopy::Below::kCopied);
    modify(holder)->setNode(name.c_str(), copy);
  } else {
    modify(holder)->moveChild(name.c_str(), child.node);
  }
}

void BranchMerge::report(TarnMergeEffect effect) const {
  if (options_.report) options_.report({path_, effect});
}

void BranchMerge::finish() {
  copies_.copyMore(kAll);
  if (copies_.hasToAttach()) copies_.attach();
  copies_.setReferences(0, kAll);
  for (const Listing& listing : listings_) {
    TarnRef node = copies_.copyOf(listing.node);
    if (node.is_null()) node = listing.node;
    const auto known = listing.holder->getChildren();
    const auto index = known.is_null() ? TarnNodeAccess::MakeIndex(*modify(listing.holder)) : known;
    modify(index)->link(listing.name, node);
  }
}

}  // namespace tarns
