#include <goods/cache_manager.h>
#include <goods/metaobject.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>

#include <string>

#include "core/node_access.h"
#include "core/value_index_changes.h"
#include "goods/B_tree_writer.h"
#include "goods/prototype.h"

namespace tarns {

goods::class_descriptor TarnObjects::self_class("TarnObjects", sizeof(TarnObjects),
                                                &goods::pessimistic_scheme,
                                                goods::construct_object<TarnObjects>,
                                                goods::prototype_fields<TarnObjects>(),
                                                &goods::B_tree::self_class, 0, true);

namespace {

// The body of a node that is not stored and has no index; null for any other.
const TarnObject* NewNodeWithoutChildren(const TarnRef& node) {
  if (!node.handle()->is_transient()) return nullptr;
  const auto* const body = static_cast<const TarnObject*>(node.handle()->body());
  return body != nullptr && TarnNodeAccess::ChildrenOf(*body).is_null() ? body : nullptr;
}

// Whether an object would be placed anywhere beside `other`.
bool HasNoPlace(goods::ref_word other) {
  return other.is_handle() && other.handle()->is_transient() &&
         other.handle()->wanted_storage() == goods::object_handle::no_storage;
}

}  // namespace

TarnObjects::TarnObjects(const xcptref<TarnObject>& parent, unsigned char pageN)
    : goods::B_tree(self_class, nullptr, pageN) {
  parent_.set(parent);
  if (!parent.is_null()) cluster_with(parent);
}

TarnObjects::TarnObjects(goods::object_handle* handle, goods::class_descriptor& cls)
    : goods::B_tree(handle, cls) {}

TarnObjects::~TarnObjects() = default;

xcptref<TarnObjects> TarnObjects::Create(const xcptref<TarnObject>& parent, unsigned char pageN) {
  return {new TarnObjects(parent, pageN)};
}

goods::field_descriptor* TarnObjects::describe_components() {
  goods::field_descriptor* fields = B_tree::describe_components();
  goods::describe_member(fields, "mParent", *this, parent_, goods::ref_kind::back);
  goods::describe_member(fields, "ValueIndexes", *this, valueIndexes_);
  return fields;
}

xcptref<TarnObject> TarnObjects::getParent() const {
  return xcptref<TarnObject>::Trusted(parent_.get());
}

void TarnObjects::setParent(const xcptref<TarnObject>& parent) {
  parent_.set(parent);
  note_relinked();
}

// A node without children is above nothing, which spares new nodes the walk to the root.
bool TarnObjects::isAtOrAboveParent(const xcptref<TarnObject>& child) const {
  if (const TarnObject* const fresh = NewNodeWithoutChildren(child)) {
    return parent_.word() == goods::ref_word::of(fresh->handle());
  }
  return goods::read_here([&](goods::reader& reader) {
    const TarnObject* candidate = reader.get(child);
    const TarnObject* parent = reader.get(parent_);
    if (parent == nullptr || candidate == parent) return parent != nullptr;
    if (TarnNodeAccess::ChildrenOf(*candidate).is_null()) return false;
    ParentWalk walk(reader, *parent);
    while (const TarnObject* ancestor = walk.up()) {
      if (ancestor == candidate) return true;
    }
    return false;
  });
}

void TarnObjects::adopt(const goods::ref<goods::set_member>& entry,
                        const xcptref<TarnObject>& child) {
  if (isAtOrAboveParent(child)) return;
  auto node = modify(child);
  if (child.handle()->wanted_storage() == goods::object_handle::no_storage &&
      !HasNoPlace(parent_.word())) {
    PlaceBeside(*node, parent_.word());
  }
  node->adoptOrphan(entry, !TarnNodeAccess::ParentLinkOf(*node).is_null());
}

// What value indexes have to know of changed entries, until the transaction is committed.
void TarnObjects::noteAdded(const goods::ref<goods::set_member>& entry) const {
  if (!valueIndexes_.is_null()) ValueIndexChanges::NoteAdded(*this, entry);
}

void TarnObjects::noteRemoved(const goods::ref<goods::set_member>& entry) const {
  if (!valueIndexes_.is_null()) ValueIndexChanges::NoteRemoved(*this, entry);
}

void TarnObjects::insert(std::string_view name, const xcptref<TarnObject>& child) {
  if (child.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const auto entry = goods::B_tree_writer(*this).add(name, child);
  noteAdded(entry);
  adopt(entry, child);
}

goods::ref<goods::set_member> TarnObjects::link(std::string_view name,
                                                const xcptref<TarnObject>& child) {
  auto entry = goods::B_tree_writer(*this).add(name, child);
  noteAdded(entry);
  return entry;
}

void TarnObjects::becomeHome(const goods::ref<goods::set_member>& entry) {
  adopt(entry, TarnRef::Trusted(entry->target()));
  note_relinked();
}

void TarnObjects::replaceChild(const goods::ref<goods::set_member>& entry,
                               const xcptref<TarnObject>& child) {
  if (child.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const TarnRef replaced = TarnRef::Trusted(entry->target());
  const auto next = goods::set_member::create(child, std::string(entry->key()));
  if (!replace(entry, next)) return;
  noteRemoved(entry);
  noteAdded(next);
  TarnNodeAccess::Orphan(replaced, entry);
  adopt(next, child);
  note_relinked();
}

bool TarnObjects::removeEntry(const goods::ref<goods::set_member>& entry) {
  if (!remove(entry)) return false;
  noteRemoved(entry);
  TarnNodeAccess::Orphan(TarnRef::Trusted(entry->target()), entry);
  note_relinked();
  return true;
}

void TarnObjects::rename(const goods::ref<goods::set_member>& entry, std::string_view name) {
  if (RenameInPlace(*this, entry, name, false)) return;
  if (!remove(entry)) return;
  noteRemoved(entry);
  modify(entry)->set_key(name);
  B_tree::insert(entry);
  noteAdded(entry);
  note_relinked();
}

bool RenameInPlace(TarnObjects& children, const goods::ref<goods::set_member>& entry,
                   std::string_view name, bool isUnique) {
  if (!children.getValueIndexesWord().is_null()) return false;
  if (name.size() > goods::set_member::max_key_length) return false;
  const auto body = modify(entry);
  if (!goods::B_tree_writer(children).rename(body->key(), entry, name, isUnique)) return false;
  body->set_key(name);
  children.note_relinked();
  return true;
}

void TarnObjects::deleteChildren() {
  const goods::ref<TarnObjects> self =
      goods::ref<TarnObjects>::trusted(goods::object_ref(handle()));
  iterate(self, [this](const goods::held_entry& entry) {
    noteRemoved(entry.member);
    TarnNodeAccess::Orphan(TarnRef::Trusted(entry.target), entry.member);
    return true;
  });
  remove_all();
  note_relinked();
}

xcptref<TarnObject> TarnObjects::getWithName(const char* name) const {
  if (name == nullptr) return nullptr;
  const auto entry = find(name);
  return entry ? TarnRef::Trusted(entry->target) : TarnRef();
}

xcptref<TarnObject> TarnObjects::getOfType(const char* type) const {
  const auto self = goods::ref<TarnObjects>::trusted(goods::object_ref(handle()));
  TarnRef found;
  ForEachEntry(self, [&](const goods::held_entry&, const TarnRef& child) {
    if (child->isOfType(type)) found = child;
    return found.is_null();
  });
  return found;
}

unsigned long TarnObjects::getNumOfType(const char* type) const {
  const auto self = goods::ref<TarnObjects>::trusted(goods::object_ref(handle()));
  unsigned long number = 0;
  ForEachEntry(self, [&](const goods::held_entry&, const TarnRef& child) {
    if (child->isOfType(type)) ++number;
    return true;
  });
  return number;
}

unsigned long TarnObjects::getNumWithName(const char* name) const {
  if (name == nullptr) return 0;
  const std::string next = std::string(name) + '\x01';
  const auto self = goods::ref<TarnObjects>::trusted(goods::object_ref(handle()));
  return goods::read_here([&](goods::reader& reader) -> unsigned long {
    const TarnObjects* index = reader.get(self);
    return index->rank(reader, next) - index->rank(reader, name);
  });
}

}  // namespace tarns
