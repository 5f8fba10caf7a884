// Which object numbers of a store may be used again.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/presence_map.h"

namespace goods {

// Numbers come back 64 at a time, when nothing is left of a segment, so that what is made together
// goes on being stored together. Nothing of this is stored: opening a store finds its empty
// segments in the presence map.
//
// A segment that a commit empties is `emptied`, and nobody gets its numbers: somebody may still
// know one of its objects, or have some of its numbers. reclaim() makes it `free`. Memory: two bits
// for each segment below the highest. Threads: any; one mutex, a leaf.
class free_numbers {
 public:
  // The segments from `first` to before `end` that `presence` does not have become free, without
  // those that `is_taken`. Throws std::bad_alloc, as reserve().
  void load(const presence_map& presence, segment_number first, segment_number end,
            const std::function<bool(segment_number)>& is_taken);

  // Takes the memory that note_emptied() and give_back() need for segments below `end`; for those
  // without it they do nothing.
  void reserve(segment_number end);
  void note_emptied(segment_number number) noexcept;
  void note_used(segment_number number) noexcept;

  // Makes those emptied segments free for which it returns true. Called without a lock held; a
  // segment that is used again meanwhile is left alone.
  void reclaim(const std::function<bool(segment_number)>& is_unused);

  // The lowest free segments that follow each other, at most so many, which are free no longer.
  struct run {
    segment_number first = 0;
    std::uint32_t count = 0;
  };
  run take(std::uint32_t most) noexcept;

  // Numbers that were handed out and never used: whole segments become free.
  void give_back(std::uint64_t first, std::uint64_t end) noexcept;

 private:
  using bits = std::vector<std::uint64_t>;

  std::vector<segment_number> all_emptied() const;

  mutable guarded_mutex lock_;
  bits emptied_ GUARDED_BY(lock_), free_ GUARDED_BY(lock_);  // of one size
  std::size_t lowest_ GUARDED_BY(lock_) = 0;                 // no word of free_ before it has a bit
};

}  // namespace goods
