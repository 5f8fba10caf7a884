// Moves what was committed from the log and the overlay into the database.
#pragma once

#include <condition_variable>
#include <exception>
#include <thread>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/checkpointer.h"
#include "storage/local/commit_log.h"
#include "storage/local/commit_overlay.h"
#include "storage/local/prepared_commits.h"
#include "storage/local/presence_map.h"
#include "storage/local/segment_store.h"
#include "storage/local/store_versions.h"
#include "storage/local/writer_turn.h"

namespace goods {

// A merge takes what one file of the log has, and writes it in one durable transaction, while
// commits go on into the other file; then the first one may be used again. When both are full,
// commits wait. One that fails is tried again, now and then and whenever a commit waits for it;
// until it succeeds nothing is given up.
//
// With durability=relaxed, its thread also syncs the log. When that fails, it begins a merge at
// once: what was committed and is not durable becomes so in the database.
// Threads: the holder of the writer's turn; one thread of its own, which only tries to take the
// turn.
class log_merger {
 public:
  struct parts {
    segment_store& store;  // of the holder of database_turn, as `prepared` and `stored`
    writer_turn& turn;
    writer_turn& database_turn;
    prepared_commits& prepared;
    presence_map& stored;
    commit_log& log;
    commit_overlay& overlay;
    store_versions& versions;
    checkpointer& checkpoints;
  };
  // `most_bytes`: of memory that the overlay may take for one merge.
  log_merger(const parts& with, std::size_t most_bytes, bool syncs_log);
  ~log_merger();  // gives up what is not merged: it is in the log
  log_merger(const log_merger&) = delete;
  log_merger& operator=(const log_merger&) = delete;

  // Returns when the log takes so many bytes. Throws why merging failed when it waited for that.
  void make_room(std::size_t bytes);

  // Returns when everything is in the database, or throws why that failed.
  void merge_all();

  // Merges while commits go on, until so little is left that merge_all() takes milliseconds, or
  // gives up after some rounds. The caller does not have the writer's turn. Throws as merge_all().
  void merge_most();

  // Returns when no merge is on its way, or throws why one failed. Any thread.
  void wait();

 private:
  void start();
  void begin();
  void run();
  bool wait_for_work(bool failed) REQUIRES(lock_);
  void merge();
  void sync_log() noexcept;
  void leave_broken_file() noexcept;

  const parts with_;
  const std::size_t most_bytes_;
  const bool syncs_log_;
  guarded_mutex lock_;
  std::condition_variable_any wake_, changed_;
  bool pending_ GUARDED_BY(lock_) = false;  // there is a frozen table
  bool stopping_ GUARDED_BY(lock_) = false;
  std::uint64_t waiting_ GUARDED_BY(lock_) = 0;
  std::uint64_t failures_ GUARDED_BY(lock_) = 0;
  std::exception_ptr failure_ GUARDED_BY(lock_);  // the last one
  std::thread thread_;                            // last: uses all of the above
};

}  // namespace goods
