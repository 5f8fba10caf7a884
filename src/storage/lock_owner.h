// A transaction as the lock tables see it.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/lock_conflict.h"

namespace goods {

struct lock_grant;
struct lock_waiter;

// What one transaction holds, in all storages, and whom it waits for.
//
// A lock stays until the table's unlock_all(): locks are not released singly. The owner's memory is
// kept for its next transaction, unless it has grown far beyond the usual; so an owner that is used
// again and again allocates nothing.
// Threads: the thread that runs the transaction. Other threads read the description and the
// waits-for edges, under the locks that object_locks.h names. Ownership: the transaction's.
// Destroying an owner releases what it still holds.
class lock_owner {
 public:
  // `description` names the owner in other owners' error messages, "thread 17" for example. When it
  // is empty, that is made of the operating system's number of the calling thread.
  explicit lock_owner(std::string description = {});
  lock_owner(const lock_owner&) = delete;
  lock_owner& operator=(const lock_owner&) = delete;
  ~lock_owner();

  const std::string& description() const { return description_; }

  // Whether it holds `number` of `table` in `mode` or a stronger one. Touches no memory that other
  // threads write to.
  bool holds(const lock_table& table, object_number number, lock_mode mode) const;

  // Whether it holds one of several objects exclusively.
  bool holds_exclusively(const lock_table& table, const neighbours& objects) const;

  bool holds_nothing() const { return held_ == nullptr; }
  // Bytes that its locks take, here and in the tables, roughly.
  std::size_t memory() const { return held_count_ * 200; }
  // Locks held, in all storages; counts them.
  std::size_t held() const;

  // Why the last lock() of the owner threw deadlock or lock_timeout.
  const lock_conflict& conflict() const { return conflict_; }

  class door;  // for lock tables

 private:
  // Grants by group and table: open addressing, at most half full, a power of two in size.
  struct place {
    lock_grant* grant = nullptr;
    object_number group = 0;
  };
  static constexpr std::size_t few = 32;

  lock_grant* find(const lock_table& table, object_number group) const;
  void insert(lock_grant* grant);
  void put(lock_grant* grant);
  void grow();
  void forget(const lock_table& table);
  void give_back_memory();
  lock_grant* new_grant();

  const std::string description_;
  std::array<place, few> few_places_;
  std::vector<place> many_places_;
  place* places_ = few_places_.data();
  std::size_t mask_ = few - 1;

  lock_grant* held_ = nullptr;  // all grants, linked through next_held
  std::size_t held_count_ = 0;
  lock_grant* stock_ = nullptr;  // unused grants, linked likewise
  std::vector<std::unique_ptr<lock_grant[]>> chunks_;

  std::condition_variable_any wake_;
  lock_conflict conflict_;

  // Under the mutex of the waits-for graph.
  const lock_waiter* waiter_ = nullptr;  // null unless it waits; on its thread's stack
  std::vector<lock_edge> edges_;         // empty unless it waits
  std::uint64_t visited_ = 0;            // by which search for a cycle
  lock_owner* found_from_ = nullptr;     // by that search
  const lock_edge* found_by_ = nullptr;
  lock_owner* next_searched_ = nullptr;
};

}  // namespace goods
