// Who waits for whom, over all lock tables of the process.
#pragma once

#include <cstdint>
#include <vector>

#include "storage/guarded_mutex.h"
#include "storage/lock_conflict.h"

namespace goods {

class lock_owner;
struct lock_node;
struct lock_waiter;

// The edges are in the owners; this has their mutex and the search. A cycle can only be closed by
// the owner that begins to wait, so that is when it is looked for.
//
// Errors: only the functions that say so need memory. Where locks are given or taken back nothing
// may fail: room for the edges is made when a request begins to wait.
class waits_for_graph {
 public:
  // Before a further request for `node`: makes room for all edges that it can lead to. Throws
  // std::bad_alloc. As refresh(), the caller holds the node's shard.
  void make_room(const lock_node& node, lock_owner& newcomer);
  // Makes the edges of all that wait for `node` anew. The caller holds its shard's mutex.
  void refresh(const lock_node& node) noexcept;
  // `owner` waits no longer.
  void clear(lock_owner& owner) noexcept;
  // As refresh(), for a queue that `waiter` has just joined; and whether its owner now waits, over
  // others, for itself. `circle`, if so: how, by the shortest way. Throws std::bad_alloc.
  bool closes_circle(const lock_node& node, const lock_waiter& waiter, lock_conflict& circle);
  // All that `waiter`, which is in a queue, waits for. Throws std::bad_alloc.
  lock_conflict in_the_way_of(const lock_waiter& waiter);

 private:
  void make_edges(const lock_node& node) noexcept REQUIRES(lock_);
  bool search(lock_owner& owner) noexcept REQUIRES(lock_);

  guarded_mutex lock_;  // also of every owner's edges
  std::uint64_t searches_ GUARDED_BY(lock_) = 0;
};

}  // namespace goods
