// Writes the log's pages back into the database file, in the background.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <thread>

#include "storage/guarded_mutex.h"
#include "storage/local/snapshot_pool.h"
#include "storage/local/writer_turn.h"

namespace goods {

// Most of the work is done while commits go on; for the rest, and to let the log start over, it
// takes the writer's turn for a moment. A snapshot that is kept open for long (a walk over all
// objects) lets the log grow until it ends.
//
// Threads: log_has() from any; one thread of its own.
// Errors: a failed attempt is repeated with a later commit; nothing is lost, for the log stays.
class checkpointer {
 public:
  checkpointer(connection_settings settings, writer_turn& turn, snapshot_pool& readers);
  ~checkpointer();
  checkpointer(const checkpointer&) = delete;
  checkpointer& operator=(const checkpointer&) = delete;

  // Told after every commit how many pages the log has.
  void log_has(int pages) {
    if (pages >= threshold_.load(std::memory_order_relaxed)) request();
  }

 private:
  void request();
  void run();
  void checkpoint(sqlite_connection& connection);

  const connection_settings settings_;
  writer_turn& turn_;
  snapshot_pool& readers_;
  std::atomic<int> threshold_;
  guarded_mutex lock_;
  std::condition_variable_any wake_;
  bool requested_ GUARDED_BY(lock_) = false;
  bool stopping_ GUARDED_BY(lock_) = false;
  std::thread thread_;  // last: uses all of the above
};

}  // namespace goods
