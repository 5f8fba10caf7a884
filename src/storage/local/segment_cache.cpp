#include "storage/local/segment_cache.h"

#include <utility>

namespace goods {
namespace {

constexpr std::size_t entry_overhead = 96;  // bytes: the entry, its place, their allocations

std::size_t cost(const segment& content) { return content.memory() + entry_overhead; }

}  // namespace

segment_cache::segment_cache(std::size_t limit) : shard_limit_(limit / shards) {}

std::shared_ptr<const segment> segment_cache::find(segment_number number) {
  shard& s = shard_of(number);
  guarded_scope scope(s.lock);
  const auto found = s.places.find(number);
  if (found == s.places.end()) return nullptr;
  entry& e = s.entries[found->second];
  e.used = true;
  return e.content;
}

void segment_cache::offer(const std::shared_ptr<const segment>& found, commit_version as_of) {
  if (cost(*found) > shard_limit_) return;
  shard& s = shard_of(found->number());
  guarded_scope scope(s.lock);
  if (s.last_change > as_of || s.places.count(found->number()) != 0) return;
  s.insert(found, shard_limit_);
}

void segment_cache::publish(segment_number number, std::shared_ptr<const segment> now,
                            commit_version version) {
  std::shared_ptr<const segment> before;  // dropped after the mutex
  shard& s = shard_of(number);
  guarded_scope scope(s.lock);
  s.last_change = version;
  const auto found = s.places.find(number);
  const bool keep = now != nullptr && cost(*now) <= shard_limit_;
  if (found == s.places.end()) {
    if (keep) s.insert(std::move(now), shard_limit_);
    return;
  }
  const std::uint32_t place = found->second;
  entry& e = s.entries[place];
  before = e.content;
  if (!keep) {
    s.erase(place);
    return;
  }
  s.bytes += cost(*now);
  s.bytes -= cost(*before);
  e.content = std::move(now);
  e.used = true;
  s.make_room(shard_limit_);
}

void segment_cache::shard::insert(std::shared_ptr<const segment> content, std::size_t limit) {
  const std::size_t added = cost(*content);
  make_room(limit - added);
  places.emplace(content->number(), static_cast<std::uint32_t>(entries.size()));
  entries.push_back({std::move(content), false});
  bytes += added;
}

void segment_cache::shard::erase(std::size_t place) {
  places.erase(entries[place].content->number());
  bytes -= cost(*entries[place].content);
  if (place + 1 != entries.size()) {
    entries[place] = std::move(entries.back());
    places[entries[place].content->number()] = static_cast<std::uint32_t>(place);
  }
  entries.pop_back();
}

void segment_cache::shard::make_room(std::size_t limit) {
  while (bytes > limit && !entries.empty()) {
    if (hand >= entries.size()) hand = 0;
    if (!std::exchange(entries[hand].used, false))
      erase(hand);
    else
      ++hand;
  }
}

}  // namespace goods
