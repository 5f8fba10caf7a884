#include "core/node_access.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include "util/c_text.h"

namespace tarns {

namespace {

// The value of a member of `node`'s class; false when the class has none of exactly that name. A
// child "Speed_total" beside a member "Speed" is a child like any other.
bool ReadMember(const TarnObject& node, std::string_view name, TarnData& out) {
  const CText text(name);
  const TarnFieldDescriptor* field = node.getClass().findField(text.get());
  return field != nullptr && field->getValue(node, text.get(), out);
}

}  // namespace

const TarnObject* FindNode(goods::reader& reader, const TarnObject& from, std::string_view path) {
  const TarnObject* node = &from;
  for (const std::string_view branch : TarnBranches(path)) {
    node = node->findChild(reader, branch);
    if (node == nullptr) return nullptr;
  }
  return node;
}

bool ReadValue(goods::reader& reader, const TarnObject& from, std::string_view path,
               TarnData& out) {
  if (path.empty()) return from.readValue(reader, out);
  const TarnObject* node = &from;
  auto branch = TarnBranches(path).begin();
  for (; !branch.isLast(); ++branch) {
    node = node->findChild(reader, *branch);
    if (node == nullptr) return false;
  }
  if (node->getClass().hasDataMembers() && ReadMember(*node, *branch, out)) return true;
  node = node->findChild(reader, *branch);
  return node != nullptr && node->readValue(reader, out);
}

const TarnObject& Current(goods::reader& reader, const TarnObject& body) {
  if (body.handle() == nullptr) return body;
  const auto* current = static_cast<const TarnObject*>(
      reader.look(goods::ref_word::of(body.handle()), TarnObject::self_class));
  return current != nullptr ? *current : body;
}

TarnRef FindNode(const TarnRef& from, std::string_view path) {
  if (from.is_null()) ThrowBadRef("NULL TarnRef read dereference");
  return goods::read_here([&](goods::reader& reader) -> TarnRef {
    const TarnObject* node = FindNode(reader, *reader.get(from), path);
    return node != nullptr ? node->getSelf() : TarnRef();
  });
}

bool TarnNodeAccess::IsParentLink(const TarnRef& child,
                                  const goods::ref<goods::set_member>& entry) {
  return goods::read_here([&](goods::reader& reader) {
    return goods::to_reference(ParentLinkOf(*reader.get(child))) == entry;
  });
}

const TarnObject* TarnNodeAccess::ParentOf(goods::reader& reader, const TarnObject& node) {
  const goods::set_member* link = LinkOf(reader, node);
  if (link == nullptr) return nullptr;
  const auto* index =
      static_cast<const TarnObjects*>(reader.look(link->owner_word(), TarnObjects::self_class));
  if (index == nullptr) return nullptr;
  return static_cast<const TarnObject*>(
      reader.look(index->getParentWord(), TarnObject::self_class));
}

const TarnObject* ParentWalk::up() {
  const TarnObject* parent = TarnNodeAccess::ParentOf(reader_, *node_);
  if (parent == nullptr || parent == mark_) return nullptr;
  // In a circle the walk sooner or later comes back to the node that it passed at the last power of
  // two, which lies within the circle.
  if (++steps_ == nextMark_) {
    mark_ = parent;
    nextMark_ *= 2;
  }
  node_ = parent;
  return parent;
}

}  // namespace tarns
