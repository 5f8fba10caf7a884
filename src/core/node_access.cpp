#include "core/node_access.h"

#include <goods/cache_manager.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "core/further_children.h"
#include "goods/B_tree_walk.h"
#include "goods/prototype.h"
#include "util/c_text.h"

namespace tarns {

namespace {

constexpr std::size_t kNamesInBatch = 4096;

// The value of a member of `node`'s class; false when the class has none of exactly that name. A
// child "Speed_total" beside a member "Speed" is a child like any other.
bool ReadMember(goods::reader& reader, const TarnObject& node, std::string_view name,
                TarnData& out) {
  const CText text(name);
  const TarnFieldDescriptor* field = node.getClass().findMember(text.get());
  return field != nullptr && field->readValue(reader, node, text.get(), out);
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
  if (node->getClass().hasDataMembers() && ReadMember(reader, *node, *branch, out)) return true;
  node = node->findChild(reader, *branch);
  return node != nullptr && node->readValue(reader, out);
}

const TarnObject* PassToChild(goods::reader& reader, const TarnObject& node, std::string_view name,
                              goods::guest_scope::policy policy, goods::ref_word& word) {
  using enum goods::guest_scope::policy;
  word = {};
  if (!node.getClass().may_be_guest()) {  // its own findChild() may need what guests do not have
    const TarnObject* child = node.findChild(reader, name);
    if (child != nullptr && child->handle() != nullptr) word = goods::ref_word::of(child->handle());
    return child;
  }
  {
    const goods::guest_scope guests(reader, at_first);
    const TarnObjects* index = TarnNodeAccess::IndexOf(reader, node);
    if (index == nullptr) return nullptr;
    const auto entry = index->find(reader, name);
    if (!entry) return nullptr;
    word = entry->target;
  }
  const goods::guest_scope guests(reader, policy);
  return static_cast<const TarnObject*>(reader.look(word, TarnObject::self_class));
}

const TarnObject* PassToNode(goods::reader& reader, const TarnObject& from, std::string_view path) {
  const TarnObject* node = &from;
  goods::ref_word word;
  for (const std::string_view branch : TarnBranches(path)) {
    node = PassToChild(reader, *node, branch, goods::guest_scope::policy::at_first, word);
    if (node == nullptr) return nullptr;
  }
  return node;
}

bool AddChildNames(const std::function<const TarnObject*(goods::reader&)>& find,
                   std::string_view after, std::size_t limit, std::vector<std::string>& names) {
  bool exists = true;
  std::optional<goods::index_position> position;
  for (bool goesOn = true; goesOn && limit > 0;) {
    const std::size_t before = names.size();
    const std::size_t wanted = std::min(limit, kNamesInBatch);
    std::optional<goods::index_position> next;
    goods::read_here([&](goods::reader& reader) {
      names.resize(before);
      next.reset();
      const TarnObject* node = find(reader);
      exists = node != nullptr;
      const goods::guest_scope guests(reader, goods::guest_scope::policy::at_first);
      const TarnObjects* index = exists ? TarnNodeAccess::IndexOf(reader, *node) : nullptr;
      if (index == nullptr) return;
      if (const TarnObjects* const further = FurtherListOf(reader, *node)) {
        std::optional<goods::index_position> from = position;
        if (!from && !after.empty()) from = BehindAllCalled(after);
        const auto some =
            EntriesOfBoth(reader, *index, *further, from ? &*from : nullptr, wanted + 1);
        for (const goods::held_entry& entry : some) names.push_back(entry.name);
        if (!some.empty()) next = BehindAllCalled(some.back().name);
        return;
      }
      goods::B_tree_walk walk(reader, *index);
      if (position) {
        walk.seek_behind(*position);
      } else if (after.empty()) {
        walk.seek_index(0);
      } else {
        walk.seek_upper(after);
      }
      for (; !walk.at_end(); walk.next()) {
        const goods::index_entry entry = walk.entry();
        names.emplace_back(entry.name);
        if (names.size() - before < wanted) continue;
        next.emplace(entry.name,
                     goods::ref<goods::set_member>::trusted(goods::keep_word(entry.member)));
        break;
      }
    });
    goesOn = next.has_value();
    position = std::move(next);
    if (names.size() - before > limit) names.resize(before + limit);
    limit -= names.size() - before;
  }
  return exists;
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

TarnRef NearestNode(TarnRef from, std::string_view path) {
  TarnRef node = std::move(from);
  for (const std::string_view branch : TarnBranches(path)) {
    TarnRef child = FindNode(node, branch);
    if (child.is_null()) break;
    node = std::move(child);
  }
  return node;
}

void VerifyNotRoot(std::string_view path) {
  if (!path.empty()) return;
  throw TarnException("A branch cannot be put in the place of the root.", ErrorID::Unspecified);
}

bool FindInIndex(goods::reader& reader, const TarnObject& node, std::string_view name,
                 goods::ref_word& child) {
  child = {};
  if (!node.getClass().may_be_guest()) return false;  // it may find children elsewhere
  const goods::guest_scope guests(reader, goods::guest_scope::policy::at_first);
  const TarnObjects* index = TarnNodeAccess::IndexOf(reader, node);
  if (index == nullptr) return true;
  if (const auto entry = index->find(reader, name)) child = entry->target;
  return true;
}

bool FindInIndex(const TarnRef& parent, std::string_view name, TarnRef& child) {
  return goods::read_here([&](goods::reader& reader) {
    goods::ref_word found;
    const bool isKnown = FindInIndex(reader, *reader.get(parent), name, found);
    child = found.is_null() ? TarnRef() : TarnRef::Trusted(goods::to_reference(found));
    return isKnown;
  });
}

bool TarnNodeAccess::IsParentLink(const TarnRef& child,
                                  const goods::ref<goods::set_member>& entry) {
  return goods::read_here([&](goods::reader& reader) {
    const TarnObject* node = reader.get(child);
    return node != nullptr && goods::to_reference(ParentLinkOf(*node)) == entry;
  });
}

xcptref<TarnObjects> TarnNodeAccess::IndexNow(const TarnObject& body) {
  return goods::read_here([&](goods::reader& reader) { return Current(reader, body).children_; });
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
