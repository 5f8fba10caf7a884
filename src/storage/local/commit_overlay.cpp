#include "storage/local/commit_overlay.h"

#include <algorithm>
#include <utility>

namespace goods {
namespace {

constexpr std::size_t entry_overhead = 64;  // bytes: its share of the table

std::size_t cost(const std::shared_ptr<const segment_patch>& patch) {
  return patch ? patch->memory() : 0;
}

std::size_t cost(const apart_state& state) { return state.body ? state.body->size : 0; }

// Where the value of `key` is, or will be: until it is put there, it is as if there was none.
std::shared_ptr<const segment_patch>& place_for(patch_table& table, std::size_t& bytes,
                                                segment_number key) {
  bool is_new = false;
  auto& place = table.place(key, is_new);
  if (is_new) bytes += entry_overhead;
  return place;
}

apart_state& place_for(std::unordered_map<object_number, apart_state>& map, std::size_t& bytes,
                       object_number key) {
  const auto [place, is_new] = map.try_emplace(key);
  if (is_new) bytes += entry_overhead;
  return place->second;
}

}  // namespace

std::shared_ptr<const segment_patch> commit_overlay::table::find(segment_number number) const {
  return segments.find(number);
}

apart_state commit_overlay::table::find_apart(object_number number) const {
  const auto found = apart.find(number);
  return found == apart.end() ? apart_state{} : found->second;
}

commit_overlay::layers commit_overlay::find(segment_number number) const {
  layers found;
  if (is_empty_.load(std::memory_order_acquire)) return found;
  guarded_scope scope(lock_);
  found.newer = active_.find(number);
  if (found.newer && found.newer->is_whole()) return found;
  for (const auto& behind : {&frozen_, &held_})
    if (*behind && !found.older) found.older = (*behind)->find(number);
  return found;
}

std::optional<apart_state> commit_overlay::find_apart(object_number number) const {
  if (is_empty_.load(std::memory_order_acquire)) return std::nullopt;
  guarded_scope scope(lock_);
  if (auto found = active_.find_apart(number); found.version != 0) return found;
  for (const auto& behind : {&frozen_, &held_})
    if (*behind)
      if (auto found = (*behind)->find_apart(number); found.version != 0) return found;
  return std::nullopt;
}

commit_overlay::addition commit_overlay::prepare(const segment_changes& changes) {
  addition prepared;
  prepared.segments_.reserve(changes.changed.size());
  prepared.apart_.reserve(changes.apart.size());
  prepared.next_object_ = changes.next_object;
  prepared.version_ = changes.version;
  guarded_scope scope(lock_);
  active_.segments.reserve(changes.changed.size());
  for (const auto& change : changes.changed) {
    auto& place = place_for(active_.segments, active_.bytes, change.number);
    prepared.segments_.push_back({&place, segment_patch::combine(place, change.patch)});
  }
  for (const auto& change : changes.apart)
    prepared.apart_.push_back(
        {&place_for(active_.apart, active_.bytes, change.number), {change.body, changes.version}});
  return prepared;
}

template <class Replacement>
void commit_overlay::put(Replacement& replacement) {
  active_.bytes += cost(replacement.by);
  active_.bytes -= cost(*replacement.place);
  std::swap(*replacement.place, replacement.by);
}

void commit_overlay::add(addition& prepared) noexcept {
  guarded_scope scope(lock_);
  for (auto& replacement : prepared.segments_) put(replacement);
  for (auto& replacement : prepared.apart_) put(replacement);
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
    all.segments.reserve((*behind)->segments.size());
    (*behind)->segments.for_each([&](segment_number number, const patch_table::patch& older) {
      auto& place = place_for(all.segments, all.bytes, number);
      place = place ? segment_patch::combine(older, place) : older;
    });
    for (const auto& [number, older] : (*behind)->apart)
      if (auto& place = all.apart[number]; place.version == 0) place = older;
  }
  std::erase_if(all.apart, [](const auto& entry) { return entry.second.version == 0; });
  return all;
}

void commit_overlay::note_size() {
  is_empty_.store(active_.version == 0 && !frozen_ && !held_, std::memory_order_release);
}

}  // namespace goods
