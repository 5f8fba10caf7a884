// The writing side of a store: one transaction at a time, all tables.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/presence_map.h"
#include "storage/local/snapshot_pool.h"

namespace goods {

// Owns the connection that writes. Everything that becomes durable does so through here.
//
// A write happens in a `transaction`, which is rolled back unless commit() succeeds, and is durable
// when it does.
// Threads: the holder of the database's turn.
// Errors: corrupt_data, input_output and storage_full, after which the store is as it was and
// usable; outcome_unknown when a commit's failure could not be settled, after which nothing can be
// written.
class segment_store {
 public:
  explicit segment_store(const connection_settings& settings);

  // As of the last commit; within a transaction, what will be committed.
  const store_state& state() const { return state_; }
  store_reader& reader() { return reader_; }
  const std::string& name() const { return store_; }
  // Pages in the write-ahead log after the last commit.
  int log_pages() const { return log_pages_; }
  bool has_failed() const { return failed_.load(std::memory_order_acquire); }  // from any thread
  // Nothing can be written until the store is opened again.
  void set_failed() { failed_ = true; }

  // What it means when commit() fails, and the transaction may yet turn up after a crash.
  enum class after_failure : std::uint8_t {
    settle,    // it must not: where that is not certain, the outcome is unknown
    harmless,  // nothing: it will be repeated, and then holds what it holds now or more
  };

  class transaction {
   public:
    explicit transaction(segment_store& store, after_failure then = after_failure::settle);
    ~transaction();
    transaction(const transaction&) = delete;
    transaction& operator=(const transaction&) = delete;

    store_state& state() { return store_.state_; }
    store_reader& reader() { return store_.reader_; }  // with what has been written
    const std::string& store_name() const { return store_.store_; }
    void write_segment(const segment_view& content);
    void remove_segment(segment_number number);
    void write_apart(object_number object, std::span<const std::byte> body, commit_version version);
    void remove_apart(object_number first, object_number last);
    void write_presence(std::uint32_t chunk, const presence_map::content& bits);
    void write_layout(class_number number, std::span<const std::byte> layout);
    void write_prepared(std::int64_t key, std::span<const std::byte> content);
    void remove_prepared(std::int64_t key);
    void write_decision(std::int64_t key, std::span<const std::byte> content);
    void remove_decision(std::int64_t key);

    void commit();

   private:
    segment_store& store_;
    const after_failure then_;
    store_state before_;
    bool open_ = false;
  };

 private:
  friend class transaction;

  void write(sqlite_statement& statement, row_kind kind, std::uint64_t key, commit_version version,
             std::span<const std::byte> content);
  void write_state();
  void commit_failed(const store_state& before);
  bool settle(const store_state& before) noexcept;
  void roll_back() noexcept;
  static int note_log_pages(void* self, struct sqlite3*, const char*, int pages);

  const std::string store_;
  std::unique_ptr<sqlite_connection> connection_;
  store_reader reader_;
  sqlite_statement begin_, commit_, rollback_;
  sqlite_statement write_about_;
  sqlite_statement write_segment_, remove_segment_;
  sqlite_statement write_piece_, remove_pieces_;
  sqlite_statement write_presence_;
  sqlite_statement write_layout_;
  sqlite_statement write_prepared_, remove_prepared_;
  sqlite_statement write_decision_, remove_decision_;
  std::vector<std::byte> row_;  // being written
  store_state state_;
  std::atomic<bool> failed_{false};
  int log_pages_ = 0;
};

}  // namespace goods
