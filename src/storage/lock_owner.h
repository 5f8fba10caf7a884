// A transaction as the lock tables see it.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

struct lock_grant;

// What one transaction holds, in all storages, and whom it waits for.
//
// A grant stays until the table's unlock_all(): locks are not released singly. Grants come from the
// owner's own stock, so that an owner that is used for one transaction after the other allocates
// nothing; a stock far above the usual is given back when everything is unlocked.
// Threads: the thread that runs the transaction; other threads read the description and the edges of
// the waits-for graph under the locks named in object_locks.h.
// Ownership: the transaction's. Destroying it releases what it still holds.
class lock_owner {
 public:
  // `description` names the owner in other owners' error messages, "thread 17" for example; when
  // empty the operating system's number of the calling thread is used.
  explicit lock_owner(std::string description = {});
  lock_owner(const lock_owner&) = delete;
  lock_owner& operator=(const lock_owner&) = delete;
  ~lock_owner();

  const std::string& description() const { return description_; }

  // Whether it holds `number` of `table` in `mode` or a stronger one. Touches nothing that other
  // threads touch.
  bool holds(const lock_table& table, object_number number, lock_mode mode) const;

  // Locks held, in all storages.
  std::size_t held() const { return used_; }

  struct internals;  // the door for lock tables, object_locks.h

 private:
  friend struct internals;

  // A table of grants by storage and number: open addressing, linear probing, a power of two.
  // Below a few locks everything is in `few_`.
  struct entry {
    const lock_table* table = nullptr;
    lock_grant* grant = nullptr;
    object_number number = 0;
  };
  static constexpr std::size_t few = 32;

  entry* find(const lock_table& table, object_number number) const;
  void insert(const lock_table& table, lock_grant& grant);
  void grow();
  void remove_all(const lock_table& table);
  lock_grant* new_grant();
  void recycle(lock_grant* grant);

  const std::string description_;
  std::array<entry, few> few_;
  std::vector<entry> many_;
  std::size_t used_ = 0;

  // Stock of grants, linked through lock_grant::next.
  lock_grant* stock_ = nullptr;
  std::size_t chunk_size_ = 16;
  std::vector<std::unique_ptr<lock_grant[]>> chunks_;

  // Waiting; see object_locks.h.
  std::condition_variable_any wake_;
  std::vector<lock_owner*> waits_for_;
  std::uint64_t visited_ = 0;
};

}  // namespace goods
