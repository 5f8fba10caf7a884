#include "storage/local/segment_writer.h"

#include <algorithm>
#include <bit>
#include <map>

namespace goods {
namespace {

bool is_apart_in(const segment_patch* patch, object_number number) {
  if (patch == nullptr) return false;
  const segment_view objects = patch->objects();
  return objects.has(slot_of(number)) && objects.is_apart(slot_of(number));
}

// What stands in for a segment that cannot be read: objects that may be there and of which nothing
// is left. Each has its body apart, where there is none, so that who asks for it is told. Numbers
// from `end` on were never used.
std::shared_ptr<const segment> lost_segment(const segment_patch& patch, std::uint64_t end) {
  segment_builder builder(patch.number(), nullptr);
  for (unsigned slot = 0; slot < segment_slots; ++slot)
    if ((patch.removed() >> slot & 1) == 0 &&
        std::uint64_t{patch.number()} * segment_slots + slot < end)
      builder.put_apart(slot, 1, 1);
  return builder.build(patch.version());
}

}  // namespace

void segment_writer::write(const commit_overlay::table& changes) {
  std::vector<const segment_patch*> patches;
  patches.reserve(changes.segments.size());
  changes.segments.for_each(
      [&](segment_number, const patch_table::patch& patch) { patches.push_back(patch.get()); });
  std::ranges::sort(patches, {}, &segment_patch::number);
  for (const segment_patch* patch : patches) write_patch(*patch);

  std::vector<std::pair<object_number, const apart_state*>> apart;
  for (const auto& [number, state] : changes.apart)
    if (state.version != 0) apart.emplace_back(number, &state);
  std::ranges::sort(apart);
  for (const auto& [number, state] : apart) {
    // A later commit may have made it small, or removed it.
    const bool stays = is_apart_in(changes.find(segment_of(number)).get(), number);
    write_apart(number, stays ? state->body.get() : nullptr, state->version);
  }
  finish(changes.version, changes.next_object);
}

void segment_writer::write(const segment_changes& changes) {
  for (const auto& change : changes.changed) write_patch(*change.patch);
  for (const auto& change : changes.apart)
    write_apart(change.number, change.body.get(), changes.version);
  finish(changes.version, changes.next_object);
}

// Pieces of what is not apart any more go; the bodies of what has become apart follow.
void segment_writer::write_patch(const segment_patch& patch) {
  const segment_number number = patch.number();
  const bool existed = stored_.has(number);
  if (patch.is_whole()) {
    const segment_view now = patch.objects();
    if (existed) into_.remove_apart(now.object(0), now.object(segment_slots - 1));
    if (now.present() != 0)
      write_segment(now);
    else if (existed)
      remove_segment(number);
    return;
  }
  const auto below = read_below(patch);
  const auto now = patched(patch, below.get());
  for (std::uint64_t rest = below->apart() & ~now->apart(); rest != 0; rest &= rest - 1) {
    const object_number object = now->object(static_cast<unsigned>(std::countr_zero(rest)));
    into_.remove_apart(object, object);
  }
  write_segment(*now);
}

// The patch is committed and must not be lost, nor keep the log from being used again, because its
// neighbours have been damaged since.
std::shared_ptr<const segment> segment_writer::read_below(const segment_patch& patch) {
  std::shared_ptr<const segment> below;
  try {
    below = into_.reader().read_segment(patch.number());
  } catch (const error_info& error) {
    if (error.code() != error_code::corrupt_data) throw;
  }
  if (below) return below;
  into_.remove_apart(patch.number() * segment_slots,
                     patch.number() * segment_slots + (segment_slots - 1));
  return lost_segment(patch, into_.state().next_object);
}

void segment_writer::write_segment(const segment_view& now) {
  into_.write_segment(now);
  if (stored_.has(now.number())) return;
  added_.push_back(now.number());
  ++into_.state().segments;
}

void segment_writer::remove_segment(segment_number number) {
  into_.remove_segment(number);
  removed_.push_back(number);
  --into_.state().segments;
}

// Pieces that are there already may be more than the new ones.
void segment_writer::write_apart(object_number number, const byte_block* body,
                                 commit_version version) {
  into_.remove_apart(number, number);
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
