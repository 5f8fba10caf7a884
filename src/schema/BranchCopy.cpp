#include "schema/BranchCopy.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <utility>

#include "core/branch_batch.h"
#include "core/further_children.h"
#include "core/node_access.h"
#include "core/node_members.h"
#include "goods/prototype.h"

namespace tarns {

namespace {

// Whether a node of that class is nothing but the value, so that it need not be looked at again.
bool IsMereValue(const TarnClassDescriptor& cls, TarnData::Type type) {
  switch (type) {
    case TarnData::Boolean:
      return &cls == &TarnBooleanValue::SelfClass();
    case TarnData::Double:
      return &cls == &TarnDoubleValue::SelfClass();
    case TarnData::Float:
      return &cls == &TarnFloatValue::SelfClass();
    case TarnData::Sint8:
      return &cls == &TarnSint8Value::SelfClass();
    case TarnData::Sint16:
      return &cls == &TarnSint16Value::SelfClass();
    case TarnData::Sint32:
      return &cls == &TarnSint32Value::SelfClass();
    case TarnData::Sint64:
      return &cls == &TarnSint64Value::SelfClass();
    case TarnData::String:
      return &cls == &TarnStringValue::SelfClass();
    case TarnData::Uint8:
      return &cls == &TarnUint8Value::SelfClass();
    case TarnData::Uint16:
      return &cls == &TarnUint16Value::SelfClass();
    case TarnData::Uint32:
      return &cls == &TarnUint32Value::SelfClass();
    case TarnData::Uint64:
      return &cls == &TarnUint64Value::SelfClass();
    default:
      return false;
  }
}

bool IsStored(const goods::object_ref& node) { return node.id() != 0; }

// What has no parent belongs to the member that refers to it.
bool IsOwnedByMember(const TarnRef& node) {
  return goods::number_of(node.id()) != goods::root_object_number && !node->hasParent();
}

void SetMember(const goods::object_ref& node, const goods::field_descriptor& field, unsigned item,
               const goods::object_ref& target) {
  const TarnRef holder = TarnRef::Trusted(node);
  *ReferenceAt(*modify(holder), field, item) = target;
}

goods::object_ref MemberOf(const goods::object_ref& node, const goods::field_descriptor& field,
                           unsigned item) {
  const TarnRef holder = TarnRef::Trusted(node);
  return ReferenceAt(*holder.read(), field, item);
}

bool TakesNode(const goods::object_ref& node, const goods::field_descriptor& field,
               const goods::object_ref& target) {
  const TarnFieldDescriptor* const own = TarnRef::Trusted(node)->getClass().findField(field.name());
  return own == nullptr || !own->isForNodes() ||
         own->getReferencedClass()->is_superclass_for(goods::class_of(target));
}

// The same reference, which holds on to no handle.
void LetGo(goods::object_ref& reference) {
  if (const goods::object_id id = reference.id(); id != 0) {
    reference = goods::keep_word(goods::ref_word::of(id));
  }
}

TarnRef NodeOf(std::uint64_t key) {
  return TarnRef::Trusted(goods::keep_word(std::bit_cast<goods::ref_word>(key)));
}

// Calls work() and returns whether what it reads was there: others may have deleted it meanwhile.
template <class Work>
bool IfThere(const Work& work) {
  try {
    work();
    return true;
  } catch (const TarnException& error) {
    if (error.getErrorID() != ErrorID::ObjectGone) throw;
    return false;
  }
}

// A node's place: the first child of that name. Without parent: nowhere.
struct ChildPlace {
  TarnRef parent;
  std::string name;
};

ChildPlace PlaceOf(const TarnRef& node) {
  ChildPlace place;
  IfThere([&] {
    goods::read_here([&](goods::reader& reader) {
      place = {};
      const TarnObject* const body = reader.get(node);
      const TarnObject* const parent = TarnNodeAccess::ParentOf(reader, *body);
      if (parent == nullptr) return;
      place = {parent->getSelf(), std::string(TarnNodeAccess::LinkOf(reader, *body)->key())};
    });
  });
  return place;
}

TarnRef ChildAt(const goods::object_ref& parent, const ChildPlace& place) {
  return TarnRef::Trusted(parent)->getIterTo(place.name.c_str()).get(nullptr);
}

// For each reference of `node` the one that `original` holds under the same name; none for null.
BranchCopy::References CounterpartsOf(const TarnRef& node, const TarnRef& original) {
  BranchCopy::References references;
  if (original.is_null()) return references;
  const auto from = original.read();
  ForEachReference(*node.read(), [&](const goods::field_descriptor& field, unsigned item,
                                     const goods::object_ref&) {
    const goods::object_ref* const same = SameReferenceIn(*from, field, item);
    references.push_back(same != nullptr ? goods::keep_word(same->word()) : goods::object_ref());
  });
  return references;
}

}  // namespace

// --- Nodes --------------------------------------------------------------------------------------

TarnRef BranchCopy::begin(const TarnRef& original, Below children) {
  const TarnClassDescriptor& cls = original->getClass();
  TarnRef copy = copyNode(original, cls, nullptr);
  relate(original, copy);
  if (children == Below::kCopied) addTask(original, cls, copy);
  return copy;
}

void BranchCopy::relate(const TarnRef& original, const TarnRef& copy) {
  metOwned_.insert(WalkKeyOf(original.word()));
  note(original, copy);
}

void BranchCopy::note(const TarnRef& original, const TarnRef& copy) {
  copies_.push_back({WalkKeyOf(original.word()), copy});
}

TarnRef BranchCopy::copyNode(const TarnRef& original, const TarnClassDescriptor& cls,
                             const TarnData* value) {
  TarnRef copy;
  if (&cls == &TarnObject::self_class) {
    copy = TarnObject::Create();
  } else if (value != nullptr && IsMereValue(cls, value->getType())) {
    copy = TarnValue::CreateValue(*value);
  } else {
    copy = original->clone();
    noteReferences(copy, original);
  }
  return copy;
}

BranchCopy::References BranchCopy::ReferencesOf(const TarnRef& node) {
  return CounterpartsOf(node, node);
}

void BranchCopy::noteReferences(const TarnRef& node, const TarnRef& original,
                                const References& before) {
  struct Piece {
    TarnRef copy, original;
  };
  std::vector<Piece> pieces{{node, original}};
  const auto addPiece = [&](const goods::object_ref& made, const goods::object_ref& from) {
    const auto isIt = [&](const Piece& known) { return known.copy == made; };
    if (std::ranges::any_of(pieces, isIt)) return;
    const bool isCopy = TarnObject::IsTarnObject(from);
    pieces.push_back({TarnRef::Trusted(made), isCopy ? TarnRef::Trusted(from) : TarnRef()});
    if (isCopy) relate(pieces.back().original, pieces.back().copy);
  };
  for (std::size_t at = 0; at < pieces.size(); ++at) {
    const TarnRef copy = pieces[at].copy;
    const References coming = CounterpartsOf(copy, pieces[at].original);
    std::size_t next = 0;
    ForEachReference(*copy.read(), [&](const goods::field_descriptor& field, unsigned item,
                                       const goods::object_ref& reference) {
      const std::size_t number = next++;
      if (reference.is_null()) return;
      const goods::object_ref target(reference);
      if (!TarnObject::IsTarnObject(target)) return;
      const goods::object_ref comes = number < coming.size() ? coming[number] : nullptr;
      if (target != comes) {
        if (at == 0 && number < before.size() && target == before[number]) return;
        if (!IsStored(target)) {
          addPiece(target, comes);
          return;
        }
      }
      noteReference({copy, &field, item, WalkKeyOf(target.word())}, TarnRef::Trusted(target));
    });
  }
}

void BranchCopy::noteReference(const Member& member, const TarnRef& target) {
  members_.push_back(member);
  if (copiesOwned_ && IsOwnedByMember(target) && metOwned_.insert(member.original).second) {
    owned_.push_back({target, member});
  }
}

void BranchCopy::addTask(const TarnRef& original, const TarnClassDescriptor& cls,
                         const TarnRef& copy) {
  const TarnRef further = cls.isTarnsBaseClass() ? TarnRef() : FurtherHolderOf(original);
  if (further.is_null()) {
    if (!original->getChildren().is_null()) tasks_.push_back({original, copy, nullptr});
    return;
  }
  note(further, copy);
  // Children go over from the further node to this one, so that one is looked at first.
  const auto met = std::make_shared<std::unordered_set<std::uint64_t>>();
  tasks_.push_back({original, copy, met});
  tasks_.push_back({further, copy, met});
}

std::size_t BranchCopy::copyOwned() {
  const Owned owned = std::move(owned_.back());
  owned_.pop_back();
  const TarnRef copy = begin(owned.original, Below::kCopied);
  if (IsStored(owned.by.node)) {
    memberTargets_.emplace_back(owned.by, copy);
  } else {
    SetMember(owned.by.node, *owned.by.field, owned.by.item, copy);
  }
  return 1;
}

std::size_t BranchCopy::copyMore(std::size_t limit) {
  std::size_t made = 0;
  while (made < limit) {
    // First, while the node that refers to it is at hand.
    if (!owned_.empty()) {
      made += copyOwned();
    } else if (walk_) {
      if (const TarnBranchWalk::Step* const step = walk_->next()) {
        made += copyStep(*step);
      } else {
        walk_.reset();
        levels_.clear();
      }
    } else if (!startTask()) {
      break;
    }
  }
  return made;
}

bool BranchCopy::startTask() {
  if (tasks_.empty()) return false;
  const Task task = std::move(tasks_.back());
  tasks_.pop_back();
  settledTasks_ = std::min(settledTasks_, tasks_.size());
  IfThere([&] {
    walk_.emplace(task.from);
    met_ = task.met;
    levels_.push_back({task.copy, nullptr, {}});
  });
  return true;
}

std::size_t BranchCopy::copyStep(const TarnBranchWalk::Step& step) {
  levels_.resize(step.depth);
  settledLevels_ = std::min(settledLevels_, levels_.size());
  Level& level = levels_.back();
  if (step.node == excluded_) {
    walk_->skipChildren();
    return 0;
  }
  // A place is that of the first child of a name.
  const bool isNamesake = !notesAll_ && step.name == level.lastName;
  if (!notesAll_) level.lastName = step.name;
  const std::uint64_t original = WalkKeyOf(step.node.word());
  if (step.depth == 1 && met_) {
    // A node may be listed under several names.
    const std::size_t name = step.lister.is_null() ? 0 : std::hash<std::string>{}(step.name);
    if (!met_->insert(original ^ name).second) {
      walk_->skipChildren();
      return 0;
    }
  }
  if (!step.lister.is_null()) {
    walk_->skipChildren();
    addBelow(level, step.name, step.node, true, original);
    return 1;
  }
  TarnRef copy;
  if (!IfThere(
          [&] { copy = copyNode(step.node, *step.cls, step.hasValue ? &step.value : nullptr); })) {
    walk_->skipChildren();
    return 0;
  }
  // Among children of two nodes places do not tell.
  if (notesAll_ || isNamesake || (step.depth == 1 && met_)) note(step.node, copy);
  addBelow(level, step.name, copy, false, original);
  const bool mayHaveFurther = !step.cls->isTarnsBaseClass();
  if (mayHaveFurther && !FurtherHolderOf(step.node).is_null()) {
    walk_->skipChildren();
    addTask(step.node, *step.cls, copy);
  } else if (step.numChildren > 0) {
    levels_.push_back({copy, nullptr, {}});
  }
  return 1;
}

void BranchCopy::addBelow(Level& level, const std::string& name, const TarnRef& child, bool isLink,
                          std::uint64_t original) {
  if (level.index.is_null()) {
    if (IsStored(level.copy)) {
      attachments_.push_back({level.copy, child, name, original, isLink});
      return;
    }
    level.index = TarnNodeAccess::MakeIndex(*modify(level.copy));
  }
  if (!isLink) {
    modify(level.index)->insert(name, child);
  } else {
    links_.push_back({level.index, modify(level.index)->link(name, child), original});
  }
}

// --- Batches ------------------------------------------------------------------------------------

void BranchCopy::attach() {
  if (linksBefore_ == 0) linksBefore_ = links_.size() + 1;
  links_.resize(linksBefore_ - 1);  // of an attempt that was rolled back
  TarnRef parent;
  xcptref<TarnObjects> index;
  for (const Attachment& attachment : attachments_) {
    if (index.is_null() || attachment.parent != parent) {
      parent = attachment.parent;
      index = parent->getChildren();
      if (index.is_null()) index = TarnNodeAccess::MakeIndex(*modify(parent));
    }
    if (!attachment.isLink) {
      modify(index)->insert(attachment.name, attachment.child);
    } else {
      links_.push_back(
          {index, modify(index)->link(attachment.name, attachment.child), attachment.original});
    }
  }
  for (const auto& [member, target] : memberTargets_) {
    SetMember(member.node, *member.field, member.item, target);
  }
}

void BranchCopy::settle() {
  attachments_.clear();
  memberTargets_.clear();
  linksBefore_ = 0;
  // What was stored before holds no handles; nor does what stays open for long.
  for (; settledLevels_ < levels_.size(); ++settledLevels_) {
    levels_[settledLevels_].index = nullptr;
    LetGo(levels_[settledLevels_].copy);
  }
  for (; settledTasks_ < tasks_.size(); ++settledTasks_) {
    LetGo(tasks_[settledTasks_].from);
    LetGo(tasks_[settledTasks_].copy);
  }
  for (; settledCopies_ < copies_.size(); ++settledCopies_) LetGo(copies_[settledCopies_].copy);
  for (; settledMembers_ < members_.size(); ++settledMembers_) {
    LetGo(members_[settledMembers_].node);
  }
  for (; settledLinks_ < links_.size(); ++settledLinks_) {
    LetGo(links_[settledLinks_].index);
    LetGo(links_[settledLinks_].entry);
  }
}

// --- References ---------------------------------------------------------------------------------

void BranchCopy::sortCopies() {
  if (sorted_ == copies_.size()) return;
  // The first copy of a node is the one that counts.
  std::ranges::stable_sort(copies_, {}, &Copied::original);
  sorted_ = copies_.size();
}

const goods::object_ref* BranchCopy::findNoted(std::uint64_t original) {
  sortCopies();
  const auto found = std::ranges::lower_bound(copies_, original, {}, &Copied::original);
  return found != copies_.end() && found->original == original ? &found->copy : nullptr;
}

// Null when there is none.
goods::object_ref BranchCopy::find(std::uint64_t original) {
  if (const goods::object_ref* const noted = findNoted(original)) return *noted;
  return notesAll_ ? goods::object_ref() : findByPlace(original);
}

// Goes up from the original to a node whose copy is known, and in the copy the same way down.
goods::object_ref BranchCopy::findByPlace(std::uint64_t original) {
  std::vector<std::pair<std::uint64_t, ChildPlace>> way;
  goods::object_ref at;
  for (TarnRef node = NodeOf(original);;) {
    const std::uint64_t key = WalkKeyOf(node.word());
    if (const goods::object_ref* const noted = findNoted(key)) {
      at = *noted;
      break;
    }
    if (const auto found = found_.find(key); found != found_.end()) {
      at = found->second;
      break;
    }
    way.emplace_back(key, PlaceOf(node));
    node = way.back().second.parent;
    if (node.is_null()) break;
  }
  for (; !way.empty(); way.pop_back()) {
    const auto& [key, place] = way.back();
    if (!at.is_null()) at = ChildAt(at, place);
    LetGo(at);
    found_[key] = at;
  }
  return at;
}

TarnRef BranchCopy::copyOf(const TarnRef& original) {
  return TarnRef::Trusted(find(WalkKeyOf(original.word())));
}

std::vector<BranchCopy::Exchange> BranchCopy::findExchanges(std::size_t first, std::size_t limit) {
  std::vector<Exchange> found;
  const std::size_t end = first + std::min(limit, countReferences() - first);
  for (; first < end; ++first) {
    const bool isMember = first < members_.size();
    const std::uint64_t original =
        isMember ? members_[first].original : links_[first - members_.size()].original;
    goods::object_ref copy = find(original);
    if (copy.is_null() || (isMember && !isToExchange(members_[first], copy))) continue;
    LetGo(copy);
    found.push_back({first, std::move(copy)});
  }
  return found;
}

bool BranchCopy::isToExchange(const Member& member, const goods::object_ref& copy) const {
  if (MemberOf(member.node, *member.field, member.item) == copy) return false;
  // In a merge the counterpart may be of any class.
  return !notesAll_ || TakesNode(member.node, *member.field, copy);
}

void BranchCopy::exchange(const std::vector<Exchange>& exchanges) {
  for (const auto& [reference, copy] : exchanges) {
    if (reference < members_.size()) {
      const Member& member = members_[reference];
      SetMember(member.node, *member.field, member.item, copy);
      continue;
    }
    const Link& link = links_[reference - members_.size()];
    const auto entry = goods::ref<goods::set_member>::trusted(link.entry);
    modify(entry)->set_target(copy);
    modify(xcptref<TarnObjects>::Trusted(link.index))->update(entry);
  }
}

void BranchCopy::setReferences() { exchange(findExchanges(0, countReferences())); }

}  // namespace tarns
