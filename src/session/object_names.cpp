// What messages call stored objects: the part of TarnCacheManager that looks for their nodes.
#include <goods/B_page.h>
#include <goods/errors.h>
#include <goods/object_handle.h>
#include <goods/reader.h>
#include <goods/set_member.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnManager.h>

#include "core/node_access.h"

namespace tarns {

namespace {

using goods::ref_word;

template <class T>
const T* As(const goods::object* body) {
  return body != nullptr && T::self_class.is_superclass_for(body->cls())
             ? static_cast<const T*>(body)
             : nullptr;
}

const goods::object* Look(goods::reader& reader, ref_word word) {
  return reader.look(word, goods::object::self_class);
}

// Empty for what has no way to the root.
std::string PathInQuotes(goods::reader& reader, const TarnObject* node) {
  if (node == nullptr) return {};
  const goods::object_id root = goods::make_object_id(0, goods::root_object_number);
  ParentWalk walk(reader, *node);
  while (walk.up() != nullptr) {
  }
  const TarnRef upmost = walk.node().getSelf();
  if (upmost.id() != root) return {};
  TarnPath path;
  TarnObject::GetPath(node->getSelf(), path);
  if (path.isEmpty()) return "the root";
  return "\"" + std::string(path.view()) + "\"";
}

std::string PathOfOwner(goods::reader& reader, ref_word index) {
  const auto* children = As<TarnObjects>(Look(reader, index));
  if (children == nullptr) return {};
  return PathInQuotes(reader, As<TarnObject>(Look(reader, children->getParentWord())));
}

// An entry below this page of an index, or null.
const goods::set_member* AnyEntry(goods::reader& reader, const goods::B_page* page) {
  for (unsigned level = 0; page != nullptr && level <= goods::index_page::max_level; ++level) {
    if (page->page().empty()) return nullptr;
    if (page->page().is_leaf()) {
      return As<goods::set_member>(Look(reader, page->page().member(0)));
    }
    page = As<goods::B_page>(Look(reader, page->page().page(0)));
  }
  return nullptr;
}

std::string NameOf(goods::reader& reader, goods::object_id id) {
  const goods::object* body = Look(reader, ref_word::of(id));
  if (const auto* node = As<TarnObject>(body)) return PathInQuotes(reader, node);
  const auto* entry = As<goods::set_member>(body);
  const bool isEntry = entry != nullptr;
  if (const auto* page = As<goods::B_page>(body)) entry = AnyEntry(reader, page);
  const ref_word index = entry != nullptr ? entry->owner_word() : ref_word::of(id);
  const std::string owner = PathOfOwner(reader, index);
  if (owner.empty()) return {};
  if (isEntry) return "the entry \"" + std::string(entry->key()) + "\" of " + owner;
  return "the children of " + owner;
}

}  // namespace

std::string TarnCacheManager::name_of(goods::object_id id) {
  std::string name;
  try {
    name = outside_transaction(
        [&] { return read([&](goods::reader& reader) { return NameOf(reader, id); }); });
  } catch (const goods::error_info&) {
    name.clear();  // gone or damaged; the number is known
  }
  return name.empty() ? goods::cache_manager::name_of(id) : name;
}

}  // namespace tarns
