// Hands out object numbers so that what one commit makes lies together.
#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_set>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

// A session's stock of unused numbers in one storage, in ranges of neighbours that the storage
// keeps together. A committing thread works through one range at a time, so that the new objects of
// two threads do not mix. Numbers of removed objects come before those that were never used, unless
// somebody keeps_numbers. What is left goes back to the storage in the end.
//
// Threads: any.
class number_pool {
 public:
  struct range {
    object_number next = 0;
    std::uint32_t left = 0;
  };

  explicit number_pool(dbs_storage& storage) : storage_(storage) {}
  ~number_pool();
  number_pool(const number_pool&) = delete;
  number_pool& operator=(const number_pool&) = delete;

  // Of one group of neighbours, which nobody else gets numbers of until it is put back.
  range take();
  // Of a range of this group, what is left of it, perhaps nothing, when what was used of it has
  // been committed.
  void put_back(range left, object_number group) noexcept;

  // Whether numbers of this group of neighbours are here, or taken.
  bool has(object_number group) const;

 private:
  static constexpr std::uint32_t largest_block = 1 << 16;
  static constexpr std::uint32_t most_at_once = 1024;  // of removed objects

  void begin_range();
  void reuse();

  dbs_storage& storage_;
  mutable std::mutex lock_;
  std::vector<range> begun_;                 // under lock_: each of one group; has room for taken_
  std::unordered_set<object_number> taken_;  // under lock_: groups
  range again_;                              // under lock_: of removed objects
  range fresh_;                              // under lock_
  std::uint32_t block_ = neighbours::most;   // under lock_: how many to ask for, growing
};

// One commit's numbers; what it leaves goes back to the pool.
class number_run {
 public:
  explicit number_run(number_pool& pool) : pool_(pool) {}
  number_run(const number_run&) = delete;
  number_run& operator=(const number_run&) = delete;
  ~number_run();

  object_number next();
  // Of a number that some commit is giving to an object: whether it is this one.
  bool has_given(object_number number) const {
    return groups_.contains(neighbours::group_of(number));
  }

  // The commit has failed: all of them are unused.
  void withdraw() { is_withdrawn_ = true; }

 private:
  number_pool& pool_;
  std::vector<number_pool::range> used_;      // as they were taken
  std::unordered_set<object_number> groups_;  // of these
  number_pool::range range_;                  // what is left of the last one
  bool is_withdrawn_ = false;
};

}  // namespace goods
