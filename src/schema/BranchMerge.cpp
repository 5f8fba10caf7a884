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
        const goods::object_ref* const comes = SameReferenceIn(source, field, item);
        const goods::object_ref& had = ReferenceAt(before, field, item);
        if (comes != nullptr && comes->is_null() && !had.is_null()) reference = had;
      });
}

}  // namespace

BranchMerge::BranchMerge(const TarnCloneOptions& options) : options_(options) {
  if (!options.keepsSource) copies_.shareOwned();
}

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
  const bool isWhole = IsIndivisible(source.node) && IsIndivisible(target.node);
  const Step step = isWhole ? decideWhole(source.node, target.node)
                            : decide(source.node, target.node, !holder.is_null());
  std::vector<Child> children;
  if (!isWhole) children = childrenOf(source.node);
  TarnRef at = target.children;
  if (options_.changesNothing) {
    const TarnRef& below = isWhole ? source.node : target.children;
    if (!holder.is_null() && isThereNow(step)) {
      changed_[{WalkKeyOf(holder.word()), name}] = {source.node, below};
    }
  } else {
    if (step == Step::kTakeOver) takeOver(source.node, at);
    if (step == Step::kMergeValues) mergeValues(source.node, at);
    if (step == Step::kReplace) {
      at = isWhole ? putInPlace(source, holder, name) : replace(source, at, holder, name);
    }
    copies_.relate(source.node, at);
  }
  report(step == Step::kKeep      ? TarnMergeEffect::kKept
         : step == Step::kReplace ? TarnMergeEffect::kReplaced
                                  : TarnMergeEffect::kTakenOver);
  levels_.push_back({std::move(at), std::move(children), 0, path_.size()});
}

// Whether, to a preview, what came is at the place from then on. One that was taken over has the
// class and the value of the one that came, which only a choice could tell from what it was.
bool BranchMerge::isThereNow(Step step) const {
  return step == Step::kReplace || (step == Step::kTakeOver && options_.choose);
}

TarnMergeRule BranchMerge::ruleFor(const TarnRef& source, const TarnRef& target) const {
  return options_.choose ? options_.choose({source, target, path_}) : options_.rule;
}

// Of two nodes of which each is one with what is below it.
BranchMerge::Step BranchMerge::decideWhole(const TarnRef& source, const TarnRef& target) const {
  return ruleFor(source, target) == TarnMergeRule::kReplace ? Step::kReplace : Step::kKeep;
}

BranchMerge::Step BranchMerge::decide(const TarnRef& source, const TarnRef& target,
                                      bool mayReplace) const {
  const TarnMergeRule rule = ruleFor(source, target);
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
  const BranchCopy::References before = BranchCopy::ReferencesOf(target);
  modify(target)->copyFrom(source);
  copies_.noteReferences(target, source, before);
}

void BranchMerge::mergeValues(const TarnRef& source, const TarnRef& target) {
  const BranchCopy::References references = BranchCopy::ReferencesOf(target);
  const TarnRef before = target->clone();  // with texts of its own
  TarnData old, value;
  const bool hadValue = target->get(nullptr, old);
  const bool hasValue = source->get(nullptr, value) && value.getType() != TarnData::None;
  {
    auto body = modify(target);
    body->copyFrom(source);
    if (hadValue && !hasValue) body->setValue(nullptr, old);
    RestoreWhereNull(*source.read(), *before.read(), *body);
  }
  copies_.noteReferences(target, source, references);
}

TarnRef BranchMerge::copyBranch(const TarnRef& original, BranchCopy::Below children) {
  TarnRef copy = copies_.begin(original, children);
  copies_.copyMore(kAll);
  return copy;
}

// Puts the one that comes where the other one is, with all below it; returns what is there then.
TarnRef BranchMerge::putInPlace(const Child& source, const TarnRef& holder,
                                const std::string& name) {
  TarnRef heir = source.node;
  if (options_.keepsSource) {
    heir = copyBranch(source.node, BranchCopy::Below::kCopied);
    modify(holder)->setNode(name.c_str(), heir);
  } else if (source.isHome) {
    modify(holder)->moveChild(name.c_str(), heir);
  } else {
    modify(holder)->setNode(name.c_str(), heir);  // its place is elsewhere
  }
  return heir;
}

// The same without its children, which come back one by one; it gets those of the other one.
TarnRef BranchMerge::replace(const Child& source, const TarnRef& target, const TarnRef& holder,
                             const std::string& name) {
  TarnRef heir;
  if (options_.keepsSource) {
    heir = copyBranch(source.node, BranchCopy::Below::kLeftOut);
    modify(holder)->setNode(name.c_str(), heir);
  } else {
    heir = putInPlace(source, holder, name);
    auto body = modify(heir);
    body->deleteChildren();
    // A node without a list takes over the other one's as it is, with its value indexes.
    const xcptref<TarnObjects> left = body->getChildren();
    if (!left.is_null() && left->getValueIndexes().is_null()) TarnNodeAccess::ForgetIndex(*body);
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
  copies_.setReferences();
  for (const Listing& listing : listings_) {
    TarnRef node = copies_.copyOf(listing.node);
    if (node.is_null()) node = listing.node;
    const auto known = listing.holder->getChildren();
    const auto index = known.is_null() ? TarnNodeAccess::MakeIndex(*modify(listing.holder)) : known;
    modify(index)->link(listing.name, node);
  }
}

}  // namespace tarns
