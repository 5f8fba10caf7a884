#include "goods/B_tree_walk.h"

#include <bit>
#include <optional>
#include <unordered_set>

#include <goods/errors.h>
#include <goods/object_handle.h>

namespace goods {
namespace {

bool refers_to(ref_word word, const object_ref& reference) {
  if (word == reference.word()) return true;
  const object_id id = reference.id();
  return id != 0 && (word.is_id() ? word.id() : word.is_handle() ? word.handle()->id() : 0) == id;
}

// The same for every reference to one object.
std::uint64_t key_of(ref_word word) {
  if (word.is_handle() && !word.handle()->is_transient()) word = ref_word::of(word.handle()->id());
  return std::bit_cast<std::uint64_t>(word);
}

std::unordered_set<std::uint64_t> keys_of(const std::vector<ref<set_member>>& members) {
  std::unordered_set<std::uint64_t> keys;
  for (const ref<set_member>& member : members) keys.insert(key_of(member.word()));
  return keys;
}

}  // namespace

void throw_contradiction() {
  throw_error(error_code::corrupt_data, "The pages of an index contradict each other.");
}

void B_tree_walk::start() {
  depth_ = 0;
  places_[0] = {&root_, 0};
}

void B_tree_walk::enter(std::size_t at) {
  place& above = places_[depth_];
  above.at = at;
  const index_page& page = *above.page;
  const auto* body = static_cast<const B_page*>(in_.look(page.page(at), B_page::self_class));
  const index_page& below = body->page();
  if (below.level() + 1 != page.level() || below.empty() ||
      (below.is_leaf() && below.size() != page.count(at))) {
    throw_contradiction();
  }
  places_[++depth_] = {&below, 0};
}

// The page before the first bound that is not less than the name: its equals may begin in there.
void B_tree_walk::seek_lower(std::string_view name) {
  start();
  while (!is_on_leaf()) enter(leaf().page->lower_bound(name) - 1);
  places_[depth_].at = leaf().page->lower_bound(name);
  settle();
}

void B_tree_walk::seek_upper(std::string_view name) {
  start();
  while (!is_on_leaf()) enter(leaf().page->upper_bound(name) - 1);
  places_[depth_].at = leaf().page->upper_bound(name);
  settle();
}

void B_tree_walk::seek_index(std::uint64_t index) {
  start();
  while (!is_on_leaf()) {
    const index_page& page = *leaf().page;
    std::size_t at = 0;
    while (at + 1 < page.size() && index >= page.count(at)) index -= page.count(at++);
    enter(at);
  }
  places_[depth_].at = std::min<std::uint64_t>(index, leaf().page->size());
  settle();
}

void B_tree_walk::seek_end() {
  start();
  while (!is_on_leaf()) enter(leaf().page->size() - 1);
  places_[depth_].at = leaf().page->size();
  arrive();
}

bool B_tree_walk::seek(const index_position& position) {
  seek_lower(position.name);
  if (position.member.is_null()) return false;
  for (; !at_end() && entry().name == position.name; next()) {
    if (refers_to(entry().member, position.member)) return true;
  }
  return false;
}

void B_tree_walk::seek_behind(const index_position& position) {
  if (seek(position) || seek_last(position.name, position.before)) {
    next();
  } else if (!seek_first(position.name, position.behind)) {
    seek_lower(position.name);
  }
}

void B_tree_walk::seek_before(const index_position& position) {
  if (seek(position)) return;
  if (seek_last(position.name, position.before)) {
    next();
  } else if (!seek_first(position.name, position.behind)) {
    seek_upper(position.name);
  }
}

bool B_tree_walk::seek_last(std::string_view name, const std::vector<ref<set_member>>& members) {
  const std::unordered_set<std::uint64_t> sought = keys_of(members);
  std::optional<std::uint64_t> found;
  if (sought.empty()) return false;
  for (seek_lower(name); !at_end() && entry().name == name; next()) {
    if (sought.contains(key_of(entry().member))) found = index();
  }
  if (found) seek_index(*found);
  return found.has_value();
}

bool B_tree_walk::seek_first(std::string_view name, const std::vector<ref<set_member>>& members) {
  const std::unordered_set<std::uint64_t> sought = keys_of(members);
  if (sought.empty()) return false;
  for (seek_lower(name); !at_end() && entry().name == name; next()) {
    if (sought.contains(key_of(entry().member))) return true;
  }
  return false;
}

void B_tree_walk::next() {
  if (++places_[depth_].at >= leaf().page->size()) settle();
}

void B_tree_walk::settle() {
  if (leaf().at < leaf().page->size()) return arrive();
  std::size_t up = depth_;
  while (up > 0 && places_[up - 1].at + 1 == places_[up - 1].page->size()) --up;
  if (up == 0) return arrive();  // behind the very last entry
  depth_ = up - 1;
  enter(places_[depth_].at + 1);
  while (!is_on_leaf()) enter(0);
  arrive();
}

void B_tree_walk::arrive() {
  const index_page& page = *leaf().page;
  leaf_end_ = limit_.empty() ? page.size() : page.lower_bound(limit_);
}

bool B_tree_walk::previous() {
  if (leaf().at > 0) {
    --places_[depth_].at;
    return true;
  }
  std::size_t up = depth_;
  while (up > 0 && places_[up - 1].at == 0) --up;
  if (up == 0) return false;
  depth_ = up - 1;
  enter(places_[depth_].at - 1);
  while (!is_on_leaf()) enter(leaf().page->size() - 1);
  places_[depth_].at = leaf().page->size() - 1;
  arrive();
  return true;
}

std::uint64_t B_tree_walk::index() const {
  std::uint64_t before = leaf().at;
  for (std::size_t depth = 0; depth < depth_; ++depth) {
    for (std::size_t i = 0; i < places_[depth].at; ++i) before += places_[depth].page->count(i);
  }
  return before;
}

}  // namespace goods
