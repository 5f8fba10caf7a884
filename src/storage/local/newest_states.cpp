#include "storage/local/newest_states.h"

namespace goods {

// Called after the overlay had no answer: what it has handed over since is in a database of at
// least the version that is read here.
snapshot& newest_states::merged_snapshot() {
  const commit_version merged = from_.versions.merged.load(std::memory_order_acquire);
  if (!snapshot_)
    snapshot_.emplace(from_.readers.take(merged));
  else if (snapshot_->operator->()->state().version < merged)
    snapshot_->operator->()->refresh();
  return *snapshot_->operator->();
}

bool newest_states::file_is_ahead(commit_version as_of) const {
  return snapshot_ && snapshot_->operator->()->state().version > as_of;
}

std::shared_ptr<const segment> newest_states::find(segment_number number, commit_version as_of) {
  if (auto cached = from_.cache.find(number, how_)) return cached;
  const commit_overlay::layers unmerged = from_.overlay.find(number);
  const auto patch =
      unmerged.newer ? segment_patch::combine(unmerged.older, unmerged.newer) : unmerged.older;
  std::shared_ptr<const segment> found;
  if (!patch) {
    // Before the database is asked: what was there then must be there.
    const bool expected = from_.presence.has(number);
    if (!expected) return nullptr;
    found = read(number);
  } else if (patch->is_whole()) {
    if (patch->is_empty()) return nullptr;
    found = patched(*patch, nullptr);
  } else {
    found = read(number);
    // Merges may have come in between: of the patch, which then is laid over it once more, and of
    // later commits, with which the patch is too old.
    if (found->version() <= patch->version()) found = patched(*patch, found.get());
  }
  // Of a commit that is not visible yet, and may stay hidden, nothing is kept.
  if (found->version() <= as_of) from_.cache.offer(found, as_of, how_);
  return found;
}

bool newest_states::has(segment_number number, commit_version as_of) {
  if (!from_.presence.has(number)) return false;
  if (from_.cache.contains(number)) return true;
  const commit_overlay::layers unmerged = from_.overlay.find(number);
  return unmerged.newer || unmerged.older || find(number, as_of);
}

std::shared_ptr<const segment> newest_states::read(segment_number number) {
  auto stored = merged_snapshot().reader().read_segment(number);
  if (!stored) throw_damaged_segment(from_.store, number, "their row is missing");
  return stored;
}

std::shared_ptr<const byte_block> newest_states::find_apart(const segment& in, unsigned slot) {
  const object_number number = in.object(slot);
  if (const auto committed = from_.overlay.find_apart(number)) {
    if (!committed->body || committed->version > in.version() ||
        committed->body->size != in.length(slot))
      throw_damaged_object(from_.store, number, "its body does not belong to its segment");
    return committed->body;
  }
  return std::make_shared<const byte_block>(
      merged_snapshot().reader().read_apart(number, in.length(slot), in.version()));
}

}  // namespace goods
