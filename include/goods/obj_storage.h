// One storage as a session uses it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <goods/dbs_storage.h>

namespace goods {

class layout_catalog;
class number_pool;

// A storage of a database with what the session adds to it: class layouts, unused numbers,
// counters. Ownership: the database's. Threads: any.
class GOODS_API obj_storage {
 public:
  obj_storage(std::shared_ptr<dbs_storage> storage, storage_number number);
  ~obj_storage();
  obj_storage(const obj_storage&) = delete;
  obj_storage& operator=(const obj_storage&) = delete;

  // Bytes of the storage's files that are in use, free room inside them not counted.
  std::uint64_t get_used_size() const;

  dbs_storage& dbs() const { return *storage_; }
  std::weak_ptr<const dbs_storage> shared() const { return storage_; }
  layout_catalog& catalog() const { return *catalog_; }
  number_pool& numbers() const { return *numbers_; }

  // The session's part in how much memory the storage keeps beside the session's cache.
  void suggest_cache(std::size_t bytes) { storage_->suggest_cache(this, bytes); }

  // Bytes of packed objects that the session has loaded from and committed to the storage.
  std::uint64_t bytes_read() const { return read_.load(std::memory_order_relaxed); }
  std::uint64_t bytes_written() const { return written_.load(std::memory_order_relaxed); }
  void count_read(std::uint64_t bytes) { read_.fetch_add(bytes, std::memory_order_relaxed); }
  void count_written(std::uint64_t bytes) { written_.fetch_add(bytes, std::memory_order_relaxed); }
  void clear_counters() { read_ = written_ = 0; }

 private:
  std::shared_ptr<dbs_storage> storage_;
  std::unique_ptr<layout_catalog> catalog_;
  std::unique_ptr<number_pool> numbers_;
  std::atomic<std::uint64_t> read_{0};
  std::atomic<std::uint64_t> written_{0};
};

}  // namespace goods
