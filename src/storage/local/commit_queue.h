// Gathers commits that arrive together into groups that share one flush.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/writer_turn.h"

namespace goods {

// One commit on its way through the queue.
struct queued_commit {
  const commit_request* request;
  commit_version version = 0;  // set when it succeeded
  std::exception_ptr failure;  // set when it did not
};

// The first to arrive leads: it takes the writer's turn, writes everything that is queued by then
// as one group, and hands the lead to the first of those that came meanwhile. The others wait.
//
// Threads that commit one change after the other come back soon after their group has been written,
// but the next one would be on its way without them: so they would go in two groups that take
// turns, with a flush for each. The leader therefore waits for as many as went together lately, and
// now and then for one more: until half of what a flush takes has passed since the last one at
// most, and hardly ever when that was in vain. Threads: any.
class commit_queue {
 public:
  // Commits all of a group and sets version or failure of each; throws nothing.
  using commit_group = std::span<queued_commit* const>;
  using writer = std::function<void(commit_group)>;

  commit_queue(writer_turn& turn, writer write) : turn_(turn), write_(std::move(write)) {}

  // Returns the version or throws what went wrong.
  commit_version commit(const commit_request& request);

 private:
  using clock = std::chrono::steady_clock;

  struct waiting : queued_commit {
    bool leads = false;
    bool done = false;
    std::condition_variable_any wake;
  };

  std::vector<queued_commit*> take_group() REQUIRES(lock_);
  void lead(waiting& self);
  void gather();
  void note_written(std::size_t group, std::chrono::nanoseconds took) REQUIRES(lock_);
  void leave_queue(waiting& self) noexcept;
  void hand_over() noexcept REQUIRES(lock_);

  writer_turn& turn_;
  const writer write_;
  guarded_mutex lock_;
  std::vector<waiting*> queue_ GUARDED_BY(lock_);  // in the order of arrival
  bool has_leader_ GUARDED_BY(lock_) = false;

  // For gather(), of the last group unless it says otherwise.
  std::chrono::nanoseconds flush_ GUARDED_BY(lock_){0};  // how long a group takes, about
  clock::time_point written_at_ GUARDED_BY(lock_);
  std::size_t together_ GUARDED_BY(lock_) = 1;      // its commits
  std::size_t expected_ GUARDED_BY(lock_) = 1;      // these, and those that came meanwhile
  std::size_t gathered_for_ GUARDED_BY(lock_) = 0;  // the leader waits for so many; 0: it does not
  unsigned in_vain_ GUARDED_BY(lock_) = 0;          // waits, one after the other
  unsigned patience_ GUARDED_BY(lock_) = 0;         // groups until one more is waited for again
  std::condition_variable_any gathered_;
};

}  // namespace goods
