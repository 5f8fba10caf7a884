// Reads segments before they are asked for.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <span>
#include <thread>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/newest_states.h"

namespace goods {

// Who goes through very many objects says which ones come next. A thread reads their segments into
// the cache, while he works on those before them.
//
// It has a connection of its own to the database, which does not map it into memory: pages that are
// mapped twice would count twice. Nobody waits for the thread, and nothing depends on it: who asks
// for a segment that is not there yet reads it himself. What cannot be read is left to him, too,
// who is told of the error then. Threads: expect() from any; one thread of its own, from the first
// request on.
class read_ahead {
 public:
  // What `from` refers to outlives this, except its connections, which are not used.
  read_ahead(const newest_states::sources& from, const connection_settings& database);
  ~read_ahead();
  read_ahead(const read_ahead&) = delete;
  read_ahead& operator=(const read_ahead&) = delete;

  // dbs_storage::expect().
  void expect(std::span<const object_number> numbers) noexcept;

 private:
  // Requests beyond these are dropped, and what would take much of the cache before it is used.
  static constexpr std::size_t most_waiting = 1024;        // segments
  static constexpr std::size_t cache_for_each = 8 * 1024;  // bytes
  // Read with one snapshot of the database, so that none is kept from starting over for long.
  static constexpr std::size_t most_at_once = 64;

  bool wait();
  bool take(segment_number& next);
  void run();
  void read_some();

  snapshot_pool readers_;
  const newest_states::sources from_;
  guarded_mutex lock_;
  std::condition_variable_any wake_;
  std::deque<segment_number> waiting_ GUARDED_BY(lock_);
  bool stopping_ GUARDED_BY(lock_) = false;
  std::thread thread_ GUARDED_BY(lock_);  // none before the first request
};

}  // namespace goods
