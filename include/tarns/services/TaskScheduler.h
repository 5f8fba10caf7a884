#pragma once

#include <tarns/services/TarnTasks.h>
#include <tarns/tarns_api.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace tarns {

// Runs the tasks below one node when they are due, one after the other, from the constructor to
// stop() or the end of its scope.
//
//   TaskScheduler scheduler("data/tarns.conf");
//
// It has a session and a worker of its own, and sleeps until a task is due or the tasks are
// changed. Any number of schedulers, in any sessions, may serve one node: each due run is done by
// one of them. Tasks whose delegate this program does not have are left to others. Several programs
// serve a database in turn, as one at a time has it.
//
// A run is late by what the ones before it take; times that the clock jumps over count as passed.
//
// Errors: the constructor throws what TarnManager::connect() throws, and 0 for options that cannot
// be. What goes wrong later is in the log, and tried again: what the delegate throws counts as an
// error of the task, and so does a commit that fails; locks that are not to be had, deadlocks and
// failures of the storage do not. When the store takes no commits any more (error 106) nothing is
// run; the scheduler's session is closed then, see DatabaseWorker::start(), and connected anew when
// no other one of the process has the store open. Threads: any; a delegate of its own may neither
// stop() a scheduler nor end its life.
class TARNS_API TaskScheduler {
 public:
  struct Options {
    std::string path = TarnTasks::kDefaultPath;
    std::uint32_t mostErrors = 5;  // in a row, the last of which suspends the task; at least 1
    // Between a failure and the next attempt, doubled with each to at most `longestDelay`.
    std::chrono::microseconds firstDelay = std::chrono::seconds(1);
    std::chrono::microseconds longestDelay = std::chrono::hours(1);
    std::chrono::milliseconds lockTimeout = std::chrono::seconds(10);  // of the runs
  };
  struct Figures {
    std::uint64_t runs = 0;  // committed
    std::uint64_t failures = 0;
    std::uint64_t suspended = 0;
  };

  explicit TaskScheduler(const char* configPath);
  TaskScheduler(const char* configPath, Options options);
  ~TaskScheduler();
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  // Lets the run that goes on come to its end, and returns when nothing runs any more. Throws 111
  // within a run.
  void stop();
  Figures getFigures() const;

 private:
  class Loop;
  std::unique_ptr<Loop> loop_;
};

}  // namespace tarns
