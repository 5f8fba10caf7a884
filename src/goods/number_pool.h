// Hands out object numbers so that what one commit makes lies together.
#pragma once

#include <mutex>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

// A session's stock of unused numbers in one storage, in ranges of neighbours that the storage
// keeps together. A committing thread works through one range at a time, so that the new objects of
// two threads do not mix. Threads: any.
class number_pool {
 public:
  struct range {
    object_number next = 0;
    object_number end = 0;
  };

  explicit number_pool(dbs_storage& storage) : storage_(storage) {}
  range take();
  void give_back(range unused);

 private:
  static constexpr object_number neighbours = 64;
  static constexpr std::uint32_t largest_block = 1 << 16;

  dbs_storage& storage_;
  std::mutex lock_;
  std::vector<range> begun_;          // under lock_: partly used ranges
  range fresh_;                       // under lock_
  std::uint32_t block_ = neighbours;  // under lock_: how many to ask the storage for, growing
};

// One commit's numbers; what it leaves goes back to the pool.
class number_run {
 public:
  explicit number_run(number_pool& pool) : pool_(pool) {}
  number_run(const number_run&) = delete;
  number_run& operator=(const number_run&) = delete;
  ~number_run() {
    if (range_.next != range_.end) pool_.give_back(range_);
  }
  object_number next() {
    if (range_.next == range_.end) range_ = pool_.take();
    return range_.next++;
  }

 private:
  number_pool& pool_;
  number_pool::range range_;
};

}  // namespace goods
