// The file that commits reach first.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/log_record.h"
#include "storage/local/storage_file.h"

namespace goods {

// Takes a record for each group of commits and syncs it. There are two files: while the commits in
// one are merged into the database, the other one is written; then they change places, and their
// room is used again. A file is made when it is first needed, grows in steps whose room is written
// with zeros (so that a record changes nothing about the file but its content), and goes when the
// store is closed and everything has been merged.
//
// What makes an old record in reused room different from a new one: a file that is begun anew gets
// a new random mark, and versions go up.
// Threads: append(), has_room() and switch_files() by the holder of the writer's turn; the rest
// any.
class commit_log {
 public:
  // `room`: the most bytes of each file; a longer record must go past the log.
  commit_log(const std::string& directory, const std::string& store,
             const storage_identity& identity, std::uint64_t room);

  static std::array<std::string, 2> paths(const std::string& directory);

  std::uint64_t room() const { return room_; }
  // Whether the current file takes so much more.
  bool has_room(std::size_t bytes) const;
  bool is_half_full() const;
  // Writes a group, the first commit of which has the version `first`; with `durable`, it survives
  // a loss of power when this returns. A failure leaves nothing that could be taken for a commit
  // (input_output, storage_full); where that is not certain it is outcome_unknown, and so is every
  // later append.
  void append(std::span<const commit_request* const> group, commit_version first, bool durable);
  bool has_failed() const { return failed_.load(std::memory_order_relaxed); }

  // The other file is to be written from now on: what is in it has been merged.
  void switch_files();

  // Makes durable what was appended without it. When that fails, the file takes no more.
  void sync();
  bool has_unsynced() const;
  // Whether the current file takes no more because of that.
  bool is_broken() const;
  // All commits up to this one are durable, here or in the database.
  void note_durable(commit_version through);
  // All that the file has which is not current is in the database: its room is free.
  void note_merged();

  // Removes the files durably. Everything has been merged.
  void remove();

  std::uint64_t file_bytes() const;
  std::uint64_t used_bytes() const;

 private:
  struct log_file {
    std::string path;
    std::shared_ptr<storage_file> file;  // null until it is made
    bool is_listed = false;              // its name in the directory is durable
    bool is_broken = false;              // a sync has failed
    std::uint64_t size = 0;
    std::uint64_t synced_size = 0;
    std::uint64_t position = 0;  // of the next record
    file_block last;             // that in which it begins, as far as it is taken
    std::uint64_t mark = 0;
    commit_version unsynced = 0;  // its newest commit that is not known to be durable; 0: none
  };

  log_file& current() REQUIRES(lock_) { return files_[active_]; }
  void make_ready(log_file& f, bool durable) REQUIRES(lock_);
  void grow(log_file& f, std::uint64_t needed) REQUIRES(lock_);
  void write_at_end(log_file& f, std::span<const std::byte> bytes) REQUIRES(lock_);
  void write_record(log_file& f, bool durable) REQUIRES(lock_);
  bool undo(log_file& f) noexcept REQUIRES(lock_);

  const std::string directory_;
  const std::string store_;
  const storage_identity identity_;
  const std::uint64_t room_;
  std::random_device random_;
  std::vector<std::byte> record_;   // being written
  std::vector<file_block> blocks_;  // in which it is
  std::atomic<bool> failed_{false};
  mutable guarded_mutex lock_;
  std::array<log_file, 2> files_ GUARDED_BY(lock_);
  std::size_t active_ GUARDED_BY(lock_) = 0;
  commit_version durable_ GUARDED_BY(lock_) = 0;
};

}  // namespace goods
