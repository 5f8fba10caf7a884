#include "storage/local/change_merger.h"

#include <algorithm>

namespace goods {

change_merger::change_merger(segment_store& store, segment_store::transaction& into,
                             segment_cache& cache, const presence_map& presence,
                             replaced_states* kept)
    : store_(store), into_(into), cache_(cache), presence_(presence), kept_(kept) {}

segment_changes change_merger::merge(std::vector<const object_change*> changes,
                                     commit_version version) {
  version_ = version;
  const auto by_number = [](const object_change* a, const object_change* b) {
    return a->number < b->number;
  };
  if (!std::is_sorted(changes.begin(), changes.end(), by_number))
    std::stable_sort(changes.begin(), changes.end(), by_number);

  for (std::size_t first = 0; first < changes.size();) {
    const segment_number number = segment_of(changes[first]->number);
    std::size_t end = first + 1;
    while (end < changes.size() && segment_of(changes[end]->number) == number) ++end;
    merge_segment(number, change_list(changes).subspan(first, end - first));
    first = end;
  }
  if (!result_.added.empty() || !result_.removed.empty()) write_presence();
  if (!changes.empty())
    into_.state().next_object =
        std::max(into_.state().next_object, std::uint64_t{changes.back()->number} + 1);
  return std::move(result_);
}

void change_merger::merge_segment(segment_number number, change_list changes) {
  const std::shared_ptr<const segment> old = current(number);
  if (kept_ != nullptr) kept_->segments.emplace(number, old);
  segment_builder builder(number, old.get());
  for (std::size_t i = 0; i < changes.size(); ++i) {
    // Of several changes of one object in the group, the last.
    if (i + 1 < changes.size() && changes[i + 1]->number == changes[i]->number) continue;
    change_slot(builder, old.get(), *changes[i]);
  }
  std::shared_ptr<const segment> now;
  if (!builder.is_empty()) {
    now = builder.build(version_);
    into_.write_segment(*now);
  } else if (old) {
    into_.remove_segment(number);
  } else {
    return;
  }
  note_written(number, old != nullptr, std::move(now));
}

std::shared_ptr<const segment> change_merger::current(segment_number number) {
  if (!presence_.has(number)) return nullptr;
  if (auto cached = cache_.find(number)) return cached;
  auto stored = store_.reader().read_segment(number);
  if (!stored) throw_damaged_segment(store_.name(), number, "their row is missing");
  return stored;
}

void change_merger::change_slot(segment_builder& builder, const segment* old,
                                const object_change& change) {
  const unsigned slot = slot_of(change.number);
  if (old != nullptr && old->has(slot) && old->is_apart(slot)) {
    if (kept_ != nullptr) keep_apart(*old, slot);
    into_.remove_apart(change.number);
  }
  if (change.removed) {
    builder.remove(slot);
  } else if (change.body.size() <= longest_in_segment) {
    builder.put(slot, change.layout, change.body);
  } else {
    into_.write_apart(change.number, change.body, version_);
    builder.put_apart(slot, change.layout, change.body.size());
  }
}

void change_merger::keep_apart(const segment& old, unsigned slot) {
  const object_number number = old.object(slot);
  kept_->apart.emplace(number, store_.reader().read_apart(number, old.length(slot)));
}

void change_merger::note_written(segment_number number, bool existed,
                                 std::shared_ptr<const segment> now) {
  if (!existed) {
    result_.added.push_back(number);
    ++into_.state().segments;
  } else if (!now) {
    result_.removed.push_back(number);
    --into_.state().segments;
  }
  // Beyond what the cache could take in, only remember that it changed.
  if (now) bytes_noted_ += now->memory();
  if (bytes_noted_ > cache_.limit() / 2) now.reset();
  result_.changed.push_back({number, std::move(now)});
}

void change_merger::write_presence() {
  std::map<std::uint32_t, presence_map::content> chunks;
  const auto note = [&](segment_number number, bool present) {
    const std::uint32_t chunk = presence_map::chunk_of(number);
    auto found = chunks.find(chunk);
    if (found == chunks.end()) found = chunks.emplace(chunk, presence_.copy(chunk)).first;
    const std::uint32_t at = number % presence_map::segments_per_chunk;
    const std::uint64_t bit = std::uint64_t{1} << at % 64;
    std::uint64_t& word = found->second[at / 64];
    word = present ? word | bit : word & ~bit;
  };
  for (segment_number number : result_.added) note(number, true);
  for (segment_number number : result_.removed) note(number, false);
  for (const auto& [chunk, bits] : chunks) into_.write_presence(chunk, bits);
}

}  // namespace goods
