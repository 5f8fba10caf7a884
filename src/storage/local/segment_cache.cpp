#include "storage/local/segment_cache.h"

#include <new>
#include <utility>

namespace goods {
namespace {

constexpr std::size_t place_cost = 64;  // bytes of the table for each entry
// Of a segment as it is and what is to be laid over it, before that is done.
constexpr unsigned most_looks = 16;

std::size_t cost_of(const segment& content, const segment_patch* newer = nullptr) {
  return content.memory() + place_cost + (newer != nullptr ? newer->memory() : 0);
}

// Of a patch that has been merged meanwhile and one that has not grown from it. Null when there is
// no memory for it.
segment_cache::patch combined(const segment_cache::patch& older,
                              const segment_cache::patch& newer) noexcept {
  try {
    return segment_patch::combine(older, newer);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

segment_cache::segment_cache(std::size_t limit) : shard_limit_(limit / shards) {}

void segment_cache::set_limit(std::size_t bytes) noexcept {
  if (shard_limit_.exchange(bytes / shards) <= bytes / shards) return;
  for (shard& s : shards_) {
    guarded_scope scope(s.lock);
    s.make_room(bytes / shards);
  }
}

bool segment_cache::contains(segment_number number) {
  shard& s = shard_of(number);
  guarded_scope scope(s.lock);
  place& found = s.place_of(number);
  found.used = found.content != nullptr;
  return found.used;
}

std::shared_ptr<const segment> segment_cache::find(segment_number number, reading how) {
  shard& s = shard_of(number);
  std::shared_ptr<const segment> content;
  patch newer;
  {
    guarded_scope scope(s.lock);
    place& found = s.place_of(number);
    if (found.content) found.note_use(how);
    if (!found.newer) return found.content;
    content = found.content;
    newer = found.newer;
  }
  auto now = patched(*newer, content.get());
  place dropped;
  guarded_scope scope(s.lock);
  place& found = s.place_of(number);
  if (found.content == content && found.newer == newer)
    dropped = s.replace(found, now, nullptr, shard_limit_);
  return now;
}

segment_cache::found_segment segment_cache::look(segment_number number, reading how) {
  shard& s = shard_of(number);
  std::shared_ptr<const segment> content;
  patch newer;
  {
    guarded_scope scope(s.lock);
    place& found = s.place_of(number);
    if (found.content) found.note_use(how);
    if (!found.newer) return {found.content, nullptr};
    if (found.looks < most_looks) {
      ++found.looks;
      content = found.content;
      newer = found.newer;
    }
  }
  if (!content) return {find(number, how), nullptr};
  return {nullptr, std::make_shared<const layered_segment>(std::move(content), std::move(newer))};
}

void segment_cache::offer(const std::shared_ptr<const segment>& found, commit_version as_of,
                          reading how) {
  const std::size_t limit = shard_limit_.load(std::memory_order_relaxed);
  if (cost_of(*found) > limit) return;
  place dropped;  // after the mutex
  shard& s = shard_of(found->number());
  guarded_scope scope(s.lock);
  if (s.last_change > as_of || s.place_of(found->number()).content) return;
  s.insert(found, limit);
  if (how == reading::in_passing && !s.came_by(found->number()))
    dropped = s.let_pass(found->number());
}

void segment_cache::publish(segment_number number, const patch& before, const patch& now,
                            commit_version version) noexcept {
  place dropped;  // after the mutex
  shard& s = shard_of(number);
  guarded_scope scope(s.lock);
  s.last_change = version;
  place& known = s.place_of(number);
  if (!known.content) return;
  const patch laid_over =
      !now || !known.newer || known.newer == before ? now : combined(known.newer, now);
  if (!laid_over) {
    dropped = s.erase(known);
  } else {
    known.used = true;
    dropped = s.replace(known, known.content, laid_over, shard_limit_);
  }
}

// ---- a shard

std::size_t segment_cache::shard::home(segment_number number) const {
  return static_cast<std::size_t>((number * std::uint64_t{0x9E3779B97F4A7C15}) >> 32) &
         (places.size() - 1);
}

segment_cache::place& segment_cache::shard::place_of(segment_number number) {
  std::size_t at = home(number);
  while (places[at].content && places[at].number != number) at = (at + 1) & (places.size() - 1);
  return places[at];
}

void segment_cache::shard::insert(std::shared_ptr<const segment> content,
                                  std::size_t limit) noexcept {
  const std::size_t added = cost_of(*content);
  make_room(limit - added);
  if ((entries + 1) * 2 > places.size() && !grow()) return;
  const segment_number number = content->number();
  place_of(number) = {number, false, std::move(content), nullptr, added};
  ++entries;
  bytes += added;
}

segment_cache::place segment_cache::shard::let_pass(segment_number number) {
  place_of(number).passes = true;  // where nothing was put in for lack of memory, it means nothing
  const place& first = place_of(std::exchange(passing[next_passing++ % most_passing], number));
  return first.content && first.passes ? erase(first) : place();
}

segment_cache::place segment_cache::shard::replace(place& known,
                                                   std::shared_ptr<const segment> content,
                                                   patch newer, std::size_t limit) noexcept {
  const std::size_t cost = cost_of(*content, newer.get());
  place before =
      std::exchange(known, {known.number, known.used, std::move(content), std::move(newer), cost});
  bytes += known.bytes;
  bytes -= before.bytes;
  if (known.bytes > limit) {
    erase(known);
  } else {
    make_room(limit);
  }
  return before;
}

// Moves back what the gap would hide.
segment_cache::place segment_cache::shard::erase(std::size_t gap) {
  place erased = std::exchange(places[gap], {});
  const std::size_t mask = places.size() - 1;
  for (std::size_t at = (gap + 1) & mask; places[at].content; at = (at + 1) & mask) {
    if (((at - home(places[at].number)) & mask) < ((at - gap) & mask)) continue;
    places[gap] = std::exchange(places[at], {});
    gap = at;
  }
  --entries;
  bytes -= erased.bytes;
  return erased;
}

void segment_cache::shard::make_room(std::size_t limit) {
  while (bytes > limit && entries != 0) {
    hand &= places.size() - 1;
    if (!places[hand].content || std::exchange(places[hand].used, false))
      ++hand;
    else
      erase(hand);
  }
}

bool segment_cache::shard::grow() noexcept {
  try {
    std::vector<place> smaller(places.size() * 2);
    smaller.swap(places);
    for (place& p : smaller)
      if (p.content) place_of(p.number) = std::move(p);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace goods
