// Shared and exclusive locks on the objects of one storage, for all sessions of the process.
#pragma once

#include <array>
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

// One owner's lock on one object. While held, `mode` is changed under the shard's mutex, by its
// owner or by whoever grants; the owner alone reads it without.
struct lock_grant {
  object_lock_table* table = nullptr;
  lock_owner* owner = nullptr;
  lock_node* node = nullptr;
  lock_grant* next_holder = nullptr;  // of the same object
  lock_grant* next_held = nullptr;    // by the same owner
  std::size_t place = 0;              // where its owner finds it, while that is being emptied
  object_number number = 0;
  lock_mode mode = lock_mode::shared;
  std::int64_t since = 0;  // coarse monotonic clock, nanoseconds
};

// A request that waits, on the stack of its thread.
struct lock_waiter {
  lock_owner* owner;
  lock_grant* grant;  // to be linked in when granted; held already by an upgrade
  lock_mode mode;
  bool is_upgrade;
  bool granted = false;
  lock_waiter* next = nullptr;
};

// An object that somebody has locked.
struct lock_node {
  object_number number = 0;
  lock_node* next = nullptr;  // in its bucket, or among the unused
  lock_grant* holders = nullptr;
  lock_waiter* queue = nullptr;  // first come, first served; upgrades in front
};

// Grants in the order of arrival: whoever comes while others wait, waits behind them, so that
// readers do not starve a writer. The owner that would close a cycle of waiting owners is refused
// at once, unless it can be let in: a reader that waits only behind a writer that itself waits.
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

    lock_node* need(object_number number) REQUIRES(lock);
    void drop(lock_node* node) REQUIRES(lock);
    void grow() REQUIRES(lock);
    lock_node*& bucket_of(object_number number) REQUIRES(lock);
  };

  shard& shard_of(object_number number);
  void wait(shard& in, lock_node& node, lock_waiter& waiter, std::chrono::milliseconds limit)
      REQUIRES(in.lock);
  void release(lock_grant& grant) noexcept;

  const dbs_storage& storage_;
  std::array<shard, shards> shards_;
};

}  // namespace goods
