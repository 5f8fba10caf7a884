// What commits did to one segment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <goods/dbs_storage.h>

#include "storage/local/segment.h"

namespace goods {

// The objects that commits put into a segment and removed from it, without those that they left
// alone: what a commit costs in memory until it is merged.
//
// Laying a patch twice over the same state does no harm, nor does laying it over one that has some
// of the patch's commits already.
// Threads: unchanging, so any.
class segment_patch {
 public:
  // `is_whole`: nothing of what was in the segment before counts any more, or nothing was.
  // `objects`: what was put, as a segment's content. `removed`: bit n for slot n, none of them put.
  segment_patch(segment_number number, commit_version version, bool is_whole, std::uint64_t removed,
                byte_block objects)
      : version_(version),
        removed_(removed),
        objects_(std::move(objects)),
        number_(number),
        is_whole_(is_whole) {}

  // A whole segment; null: one without objects.
  static std::shared_ptr<const segment_patch> whole(segment_number number,
                                                    const segment_view* content);

  segment_number number() const { return number_; }
  commit_version version() const { return version_; }  // of the newest commit in it
  std::uint64_t removed() const { return removed_; }   // slots, of what was there before
  bool is_whole() const { return is_whole_; }
  segment_view objects() const { return {number_, version_, objects_.view()}; }
  // Whether the segment has no object any more. Only for whole ones.
  bool is_empty() const { return objects().present() == 0; }
  std::size_t memory() const;  // bytes, all in all

  // The patch must stay until the builder is done.
  void lay_over(segment_builder& below) const;

  // Both in one; `newer` where nothing of `older` is left. `older` may be null.
  static std::shared_ptr<const segment_patch> combine(
      const std::shared_ptr<const segment_patch>& older,
      const std::shared_ptr<const segment_patch>& newer);

 private:
  commit_version version_;
  std::uint64_t removed_;
  byte_block objects_;
  segment_number number_;
  bool is_whole_;
};

// A segment with a patch that is not laid over it: who looks for a few objects need not wait until
// all are put together. As a group it has the objects that are not apart.
// Ownership: shared, as a segment's. Threads: unchanging, so any.
class layered_segment : public state_group {
 public:
  layered_segment(std::shared_ptr<const segment> below, std::shared_ptr<const segment_patch> patch)
      : below_(std::move(below)), patch_(std::move(patch)), objects_(patch_->objects()) {}

  commit_version version() const { return patch_->version(); }
  // Where the object of a slot is; null: there is none.
  const segment_view* holder_of(unsigned slot) const;
  bool find(object_number number, object_state& found) const override;

 private:
  const std::shared_ptr<const segment> below_;
  const std::shared_ptr<const segment_patch> patch_;
  const segment_view objects_;  // of the patch
};

// The segment as it is with a patch. `below`: null when the patch is whole.
std::shared_ptr<const segment> patched(const segment_patch& patch, const segment_view* below);

}  // namespace goods
