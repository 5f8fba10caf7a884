// Who waits for whom, over all lock tables of the process.
#pragma once

#include <cstdint>
#include <vector>

#include "storage/guarded_mutex.h"

namespace goods {

class lock_owner;
struct lock_node;

// The edges are in the owners; this has their mutex and the search. A cycle can only be closed by
// the owner that begins to wait, so that is when it is looked for.
class waits_for_graph {
 public:
  // Makes the edges of all that wait for `node` anew. The caller holds its shard's mutex.
  void refresh(const lock_node& node);
  // `owner` waits no longer.
  void clear(lock_owner& owner);
  // Whether `owner` waits, over others, for itself.
  bool is_cyclic(lock_owner& owner);

 private:
  guarded_mutex lock_;  // also of every owner's edges
  std::uint64_t searches_ GUARDED_BY(lock_) = 0;
  std::vector<lock_owner*> open_ GUARDED_BY(lock_);
};

}  // namespace goods
