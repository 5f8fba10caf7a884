// Shared and exclusive locks on the objects of one storage, for all sessions of the process.
#pragma once

#include <array>
#include <bit>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/lock_owner.h"

namespace goods {

class object_lock_table;
struct lock_node;

// One owner's locks on objects of one group of neighbours. While held, the masks are changed under
// the shard's mutex, by the owner or, while that waits, by whoever grants; the owner alone reads
// them without.
struct lock_grant {
  object_lock_table* table = nullptr;
  lock_owner* owner = nullptr;
  lock_node* node = nullptr;
  lock_grant* next_holder = nullptr;  // of the same group
  lock_grant* next_held = nullptr;    // by the same owner
  std::size_t place = 0;              // where its owner finds it, while that is being emptied
  object_number group = 0;
  std::uint64_t shared = 0, exclusive = 0;  // members; none is in both
  // Since when there are some: coarse monotonic clock, nanoseconds.
  std::int64_t shared_since = 0, exclusive_since = 0;

  bool holds(std::uint64_t members, lock_mode mode) const {
    const std::uint64_t held = mode == lock_mode::shared ? shared | exclusive : exclusive;
    return (held & members) == members;
  }
  // Whether nobody else may hold these.
  bool excludes(std::uint64_t members, lock_mode mode) const {
    return ((mode == lock_mode::shared ? exclusive : shared | exclusive) & members) != 0;
  }
};

// A request, on the stack of its thread.
struct lock_waiter {
  lock_owner* owner;
  lock_grant* grant;
  std::uint64_t members;  // one, if it waits
  lock_mode mode;
  bool is_first;    // the owner holds nothing in the group: the grant is to be linked in
  bool is_upgrade;  // of an object that the owner holds
  bool granted = false;
  lock_waiter* next = nullptr;

  object_number number() const {
    return grant->group * neighbours::most + static_cast<object_number>(std::countr_zero(members));
  }
};

// A group of neighbours of which somebody has locked some, or waits for one.
struct lock_node {
  object_number group = 0;
  lock_node* next = nullptr;  // in its bucket, or among the unused
  lock_grant* holders = nullptr;
  lock_waiter* queue = nullptr;  // first come, first served; upgrades in front
};

// Each object has its own lock; those of neighbours are kept together, 64 to a node, since who
// locks one often locks others, too: a node of the tree, its index, a value and its text. Grants in
// the order of arrival: whoever comes while others wait for the same object, waits behind them, so
// that readers do not starve a writer. The owner that would close a cycle of waiting owners is
// refused at once, unless it can be let in: a reader that waits only behind a writer that itself
// waits.
//
// Locks: one mutex for each shard of the table; under it, when somebody waits, the process-wide
// mutex of the waits-for graph (storage_process). Waiting owners' edges (lock_owner::edges_)
// are made anew whenever what they wait for changes, so that a search needs the graph's mutex only.
//
// Errors: a lock() that throws, also std::bad_alloc, leaves nothing of its request behind.
class object_lock_table : public lock_table {
 public:
  explicit object_lock_table(const dbs_storage& storage);
  ~object_lock_table() override;

  commit_version lock(lock_owner& owner, object_number number, lock_mode mode,
                      std::chrono::milliseconds limit) override;
  commit_version lock_shared(lock_owner& owner, const neighbours& objects,
                             std::chrono::milliseconds limit) override;
  void unlock_all(lock_owner& owner) noexcept override;

  std::string storage_name() const { return storage_.name(); }

  // How many requests for the object wait at the moment.
  std::size_t waiting(object_number number);

 private:
  static constexpr std::size_t shards = 64;

  struct alignas(64) shard {
    guarded_mutex lock;
    std::vector<lock_node*> buckets GUARDED_BY(lock);
    std::deque<lock_node> nodes GUARDED_BY(lock);
    lock_node* unused GUARDED_BY(lock) = nullptr;
    std::size_t used GUARDED_BY(lock) = 0;

    lock_node* need(object_number group) REQUIRES(lock);
    void drop(lock_node* node) REQUIRES(lock);
    void grow() REQUIRES(lock);
    lock_node*& bucket_of(object_number group) REQUIRES(lock);
  };

  shard& shard_of(object_number group);
  // False, and nothing done, where it would have to wait and `waits` is not set.
  bool request(lock_waiter& wanted, object_number group, bool waits,
               std::chrono::milliseconds limit);
  void wait(shard& in, lock_node& node, lock_waiter& waiter, std::chrono::milliseconds limit)
      REQUIRES(in.lock);
  void release(lock_grant& grant) noexcept;

  const dbs_storage& storage_;
  std::array<shard, shards> shards_;
};

}  // namespace goods
