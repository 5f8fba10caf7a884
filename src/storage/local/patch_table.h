// Patches by the number of their segment.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "storage/local/segment_patch.h"

namespace goods {

// A map in one piece of memory, since looking into it is mostly waiting for memory: every load of
// what the cache does not have looks here, and every commit for each segment that it changes.
// Nothing is taken out singly. Copying copies references to patches.
// Threads: none of its own.
class patch_table {
 public:
  using patch = std::shared_ptr<const segment_patch>;

  // Null when there is none.
  patch find(segment_number number) const;

  // Makes room for `more` that are not there yet. Where patches are, changes only here.
  void reserve(std::size_t more);
  // Where the patch of a segment is, or will be: null as long as none has been put there. The first
  // call for a segment needs room, see above. `is_new`: whether this is that call.
  patch& place(segment_number number, bool& is_new);

  // Calls visit(number, patch) for each patch, in no particular order.
  template <class Visit>
  void for_each(Visit&& visit) const {
    for (const entry& one : entries_)
      if (one.what) visit(one.number, one.what);
  }

  std::size_t size() const { return used_; }  // with places where nothing was put

 private:
  static constexpr std::size_t least_entries = 64;

  // Open addressing with linear probing, at most half full.
  struct entry {
    segment_number number = 0;
    bool is_used = false;
    patch what = nullptr;
  };
  entry& entry_of(segment_number number);

  std::vector<entry> entries_;  // a power of two, or none
  std::size_t used_ = 0;
};

}  // namespace goods
