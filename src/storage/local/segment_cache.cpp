#include "storage/local/segment_cache.h"

#include <new>
#include <utility>

namespace goods {
namespace {

constexpr std::size_t entry_overhead = 96;  // bytes: the entry, its place, their allocations

std::size_t cost(const segment& content) { return content.memory() + entry_overhead; }

}  // namespace

// ---- the index

std::size_t segment_cache::index::home(segment_number number) const {
  return static_cast<std::size_t>((number * std::uint64_t{0x9E3779B97F4A7C15}) >> 32) &
         (places_.size() - 1);
}

std::size_t segment_cache::index::place_of(segment_number number) const {
  std::size_t at = home(number);
  while (places_[at].entry != none && places_[at].number != number)
    at = (at + 1) & (places_.size() - 1);
  return at;
}

std::uint32_t segment_cache::index::find(segment_number number) const {
  return places_[place_of(number)].entry;
}

void segment_cache::index::set(segment_number number, std::uint32_t entry) {
  std::size_t at = place_of(number);
  if (places_[at].entry == none) {
    if ((used_ + 1) * 2 > places_.size()) {
      grow();
      at = place_of(number);
    }
    ++used_;
  }
  places_[at] = {number, entry};
}

// Moves back what the gap would hide.
void segment_cache::index::erase(segment_number number) {
  const std::size_t mask = places_.size() - 1;
  std::size_t gap = place_of(number);
  for (std::size_t at = (gap + 1) & mask; places_[at].entry != none; at = (at + 1) & mask) {
    const std::size_t wanted = home(places_[at].number);
    if (((at - wanted) & mask) < ((at - gap) & mask)) continue;
    places_[gap] = places_[at];
    gap = at;
  }
  places_[gap].entry = none;
  --used_;
}

void segment_cache::index::grow() {
  std::vector<place> smaller(places_.size() * 2);
  smaller.swap(places_);
  for (const place& p : smaller)
    if (p.entry != none) places_[place_of(p.number)] = p;
}

// ---- the cache

segment_cache::segment_cache(std::size_t limit) : shard_limit_(limit / shards) {}

std::shared_ptr<const segment> segment_cache::find(segment_number number) {
  shard& s = shard_of(number);
  guarded_scope scope(s.lock);
  const std::uint32_t place = s.places.find(number);
  if (place == index::none) return nullptr;
  entry& e = s.entries[place];
  e.used = true;
  return e.content;
}

void segment_cache::offer(const std::shared_ptr<const segment>& found, commit_version as_of) {
  if (cost(*found) > shard_limit_) return;
  shard& s = shard_of(found->number());
  guarded_scope scope(s.lock);
  if (s.last_change > as_of || s.places.find(found->number()) != index::none) return;
  s.insert(found, shard_limit_);
}

void segment_cache::publish(segment_number number, std::shared_ptr<const segment> now,
                            commit_version version) noexcept {
  std::shared_ptr<const segment> before;  // dropped after the mutex
  shard& s = shard_of(number);
  guarded_scope scope(s.lock);
  s.last_change = version;
  const std::uint32_t place = s.places.find(number);
  const bool keep = now != nullptr && cost(*now) <= shard_limit_;
  if (place == index::none) {
    if (keep) s.insert(std::move(now), shard_limit_);
  } else if (!keep) {
    before = s.erase(place);
  } else {
    entry& e = s.entries[place];
    s.bytes += cost(*now);
    s.bytes -= cost(*e.content);
    before = std::exchange(e.content, std::move(now));
    e.used = true;
    s.make_room(shard_limit_);
  }
}

// Keeps nothing when there is no memory for it.
void segment_cache::shard::insert(std::shared_ptr<const segment> content,
                                  std::size_t limit) noexcept {
  const std::size_t added = cost(*content);
  const segment_number number = content->number();
  make_room(limit - added);
  const std::size_t before = entries.size();
  try {
    entries.push_back({std::move(content), false});
    places.set(number, static_cast<std::uint32_t>(entries.size() - 1));
    bytes += added;
  } catch (const std::bad_alloc&) {
    if (entries.size() > before) entries.pop_back();
  }
}

std::shared_ptr<const segment> segment_cache::shard::erase(std::uint32_t place) {
  auto erased = std::move(entries[place].content);
  places.erase(erased->number());
  bytes -= cost(*erased);
  if (place + 1 != entries.size()) {
    entries[place] = std::move(entries.back());
    places.set(entries[place].content->number(), place);
  }
  entries.pop_back();
  return erased;
}

void segment_cache::shard::make_room(std::size_t limit) {
  while (bytes > limit && !entries.empty()) {
    if (hand >= entries.size()) hand = 0;
    if (std::exchange(entries[hand].used, false))
      ++hand;
    else
      erase(static_cast<std::uint32_t>(hand));
  }
}

}  // namespace goods
