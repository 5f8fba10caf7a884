#include "storage/local/segment_writer.h"

#include <algorithm>
#include <map>

namespace goods {

void segment_writer::write(const commit_overlay::table& changes) {
  std::vector<const segment_patch*> patches;
  patches.reserve(changes.segments.size());
  for (const auto& [number, patch] : changes.segments)
    if (patch) patches.push_back(patch.get());
  std::ranges::sort(patches, {}, &segment_patch::number);
  for (const segment_patch* patch : patches) write_patch(*patch);

  std::vector<std::pair<object_number, const apart_state*>> apart;
  for (const auto& [number, state] : changes.apart)
    if (state.version != 0) apart.emplace_back(number, &state);
  std::ranges::sort(apart);
  for (const auto& [number, state] : apart) write_apart(number, state->body.get(), state->version);
  finish(changes.version, changes.next_object);
}

void segment_writer::write(const segment_changes& changes) {
  for (const auto& change : changes.changed)
    if (change.now)
      write_segment(*change.now);
    else
      write_patch(*change.patch);
  for (const auto& change : changes.apart)
    write_apart(change.number, change.body.get(), changes.version);
  finish(changes.version, changes.next_object);
}

void segment_writer::write_patch(const segment_patch& patch) {
  if (patch.is_whole()) {
    if (patch.is_empty())
      remove_segment(patch.number());
    else
      write_segment(patch.objects());
    return;
  }
  const auto below = into_.reader().read_segment(patch.number());
  if (!below) throw_damaged_segment(into_.store_name(), patch.number(), "their row is missing");
  write_segment(*patched(patch, below.get()));
}

void segment_writer::write_segment(const segment_view& now) {
  into_.write_segment(now);
  if (stored_.has(now.number())) return;
  added_.push_back(now.number());
  ++into_.state().segments;
}

void segment_writer::remove_segment(segment_number number) {
  if (!stored_.has(number)) return;
  into_.remove_segment(number);
  removed_.push_back(number);
  --into_.state().segments;
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
