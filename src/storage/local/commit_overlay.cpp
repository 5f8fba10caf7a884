#include "storage/local/commit_overlay.h"

#include <algorithm>
#include <utility>

namespace goods {
namespace {

constexpr std::size_t entry_overhead = 64;  // bytes: a node of the table and its share of buckets

std::size_t cost(const std::shared_ptr<const segment>& content) {
  return entry_overhead + (content ? content->memory() : 0);
}

std::size_t cost(const apart_state& state) {
  return entry_overhead + (state.body ? state.body->size : 0);
}

template <class Map>
std::optional<typename Map::mapped_type> find_in(const Map& map, typename Map::key_type key) {
  const auto found = map.find(key);
  if (found == map.end()) return std::nullopt;
  return found->second;
}

template <class Map>
typename Map::node_type node_of(typename Map::key_type key, typename Map::mapped_type value) {
  Map one;
  one.emplace(key, std::move(value));
  return one.extract(one.begin());
}

// So many more can be inserted without taking memory.
template <class Map>
void make_room(Map& map, std::size_t added) {
  const std::size_t needed = map.size() + added;
  if (needed >= map.bucket_count()) map.reserve(2 * needed);
}

template <class Map>
void put(Map& map, std::size_t& bytes, typename Map::node_type&& node) noexcept {
  bytes += cost(node.mapped());
  auto result = map.insert(std::move(node));
  if (result.inserted) return;
  bytes -= cost(result.position->second);
  std::swap(result.position->second, result.node.mapped());
}

}  // namespace

std::optional<std::shared_ptr<const segment>> commit_overlay::find(segment_number number) const {
  if (is_empty_.load(std::memory_order_acquire)) return std::nullopt;
  guarded_scope scope(lock_);
  if (auto found = find_in(active_.segments, number)) return found;
  for (const auto& behind : {&frozen_, &held_})
    if (*behind)
      if (auto found = find_in((*behind)->segments, number)) return found;
  return std::nullopt;
}

std::optional<apart_state> commit_overlay::find_apart(object_number number) const {
  if (is_empty_.load(std::memory_order_acquire)) return std::nullopt;
  guarded_scope scope(lock_);
  if (auto found = find_in(active_.apart, number)) return found;
  for (const auto& behind : {&frozen_, &held_})
    if (*behind)
      if (auto found = find_in((*behind)->apart, number)) return found;
  return std::nullopt;
}

commit_overlay::addition commit_overlay::prepare(const segment_changes& changes) {
  addition prepared;
  prepared.segments_.reserve(changes.changed.size());
  prepared.apart_.reserve(changes.apart.size());
  for (const auto& change : changes.changed)
    prepared.segments_.push_back(node_of<decltype(table::segments)>(change.number, change.now));
  for (const auto& change : changes.apart)
    prepared.apart_.push_back(
        node_of<decltype(table::apart)>(change.number, {change.body, changes.version}));
  prepared.next_object_ = changes.next_object;
  prepared.version_ = changes.version;
  guarded_scope scope(lock_);
  make_room(active_.segments, prepared.segments_.size());
  make_room(active_.apart, prepared.apart_.size());
  return prepared;
}

void commit_overlay::add(addition&& prepared) noexcept {
  guarded_scope scope(lock_);
  for (auto& node : prepared.segments_) put(active_.segments, active_.bytes, std::move(node));
  for (auto& node : prepared.apart_) put(active_.apart, active_.bytes, std::move(node));
  active_.next_object = std::max(active_.next_object, prepared.next_object_);
  active_.version = prepared.version_;
  note_size();
}

void commit_overlay::freeze() {
  auto freezing = std::make_shared<table>();
  guarded_scope scope(lock_);
  std::swap(*freezing, active_);
  frozen_ = std::move(freezing);
}

std::shared_ptr<const commit_overlay::table> commit_overlay::frozen() const {
  guarded_scope scope(lock_);
  return frozen_;
}

void commit_overlay::drop_frozen() {
  std::shared_ptr<const table> dropped;  // after the mutex
  guarded_scope scope(lock_);
  dropped.swap(frozen_);
  note_size();
}

void commit_overlay::hold(table old_states) {
  auto held = std::make_shared<const table>(std::move(old_states));
  guarded_scope scope(lock_);
  held_ = std::move(held);
  note_size();
}

void commit_overlay::drop_held() {
  std::shared_ptr<const table> dropped;
  guarded_scope scope(lock_);
  dropped.swap(held_);
  note_size();
}

bool commit_overlay::is_active_empty() const {
  guarded_scope scope(lock_);
  return active_.version == 0;
}

std::size_t commit_overlay::active_bytes() const {
  guarded_scope scope(lock_);
  return active_.bytes;
}

commit_overlay::table commit_overlay::copy() const {
  table all;
  guarded_scope scope(lock_);
  all = active_;
  for (const auto& behind : {&frozen_, &held_}) {
    if (!*behind) continue;
    all.segments.insert((*behind)->segments.begin(), (*behind)->segments.end());
    all.apart.insert((*behind)->apart.begin(), (*behind)->apart.end());
  }
  return all;
}

void commit_overlay::note_size() {
  is_empty_.store(active_.version == 0 && !frozen_ && !held_, std::memory_order_release);
}

}  // namespace goods
