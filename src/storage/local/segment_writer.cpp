#include "storage/local/segment_writer.h"

#include <algorithm>
#include <map>

namespace goods {

void segment_writer::write(const commit_overlay::table& changes) {
  std::vector<std::pair<segment_number, const segment*>> segments;
  segments.reserve(changes.segments.size());
  for (const auto& [number, now] : changes.segments) segments.emplace_back(number, now.get());
  std::ranges::sort(segments);
  for (const auto& [number, now] : segments) write_segment(number, now);

  std::vector<std::pair<object_number, const apart_state*>> apart;
  for (const auto& [number, state] : changes.apart) apart.emplace_back(number, &state);
  std::ranges::sort(apart);
  for (const auto& [number, state] : apart) write_apart(number, state->body.get(), state->version);
  finish(changes.version, changes.next_object);
}

void segment_writer::write(const segment_changes& changes) {
  for (const auto& change : changes.changed) write_segment(change.number, change.now.get());
  for (const auto& change : changes.apart)
    write_apart(change.number, change.body.get(), changes.version);
  finish(changes.version, changes.next_object);
}

void segment_writer::write_segment(segment_number number, const segment* now) {
  const bool existed = stored_.has(number);
  if (now != nullptr) {
    into_.write_segment(*now);
    if (existed) return;
    added_.push_back(number);
    ++into_.state().segments;
  } else if (existed) {
    into_.remove_segment(number);
    removed_.push_back(number);
    --into_.state().segments;
  }
}

// Pieces that are there already may be more than the new ones.
void segment_writer::write_apart(object_number number, const byte_block* body,
                                 commit_version version) {
  into_.remove_apart(number);
  if (body != nullptr) into_.write_apart(number, body->view(), version);
}

void segment_writer::finish(commit_version version, std::uint64_t next_object) {
  store_state& state = into_.state();
  state.version = version;
  state.next_object = std::max(state.next_object, next_object);
  if (!added_.empty() || !removed_.empty()) write_presence();
}

void segment_writer::write_presence() {
  std::map<std::uint32_t, presence_map::content> chunks;
  const auto note = [&](segment_number number, bool present) {
    const std::uint32_t chunk = presence_map::chunk_of(number);
    auto found = chunks.find(chunk);
    if (found == chunks.end()) found = chunks.emplace(chunk, stored_.copy(chunk)).first;
    const std::uint32_t at = number % presence_map::segments_per_chunk;
    const std::uint64_t bit = std::uint64_t{1} << at % 64;
    std::uint64_t& word = found->second[at / 64];
    word = present ? word | bit : word & ~bit;
  };
  for (segment_number number : added_) note(number, true);
  for (segment_number number : removed_) note(number, false);
  for (const auto& [chunk, bits] : chunks) into_.write_presence(chunk, bits);
  // note_committed() must not fail.
  for (segment_number number : added_) stored_.reserve(number);
}

void segment_writer::note_committed() noexcept {
  for (segment_number number : added_) stored_.set(number, true);
  for (segment_number number : removed_) stored_.set(number, false);
}

}  // namespace goods
