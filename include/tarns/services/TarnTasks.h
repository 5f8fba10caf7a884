#pragma once

#include <tarns/services/TarnTask.h>
#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarns {

// The tasks below one node of the tree.
//
//   TarnTasks tasks(manager);
//   tasks.schedule({.delegate = "SendReport", .due = TarnTasks::Now() + std::chrono::hours(1)});
//
// In the tree: the child Tasks has all tasks, by number; Due lists those that are scheduled in the
// order of their times, Suspended the others. What a call does is one transaction, or part of the
// caller's: a task that is scheduled in a transaction is there when that commits, and not when it
// is rolled back.
//
// Ownership: `manager` must outlive it. Threads: any, each attached to the session.
// Errors: TarnException; 0 for what a plan cannot be, others as for TarnManager.
class TARNS_API TarnTasks {
 public:
  using Time = TarnTask::Time;

  static constexpr const char* kDefaultPath = "scheduler";
  static constexpr const char* kTasks = "Tasks";
  static constexpr const char* kDue = "Due";
  static constexpr const char* kSuspended = "Suspended";
  static constexpr const char* kLastNumber = "LastNumber";
  static constexpr std::size_t kPage = 1000;
  // Of Plan::due, and of when a periodic task is due next.
  static constexpr Time kLatest{std::chrono::microseconds(253'402'300'799'999'999)};  // end of 9999

  struct Plan {
    std::string delegate;  // the type name of a TarnTaskDelegate, not empty; need not be known here
    Time due = Now();      // 1970 to the end of 9999; in the past: at once
    // 0: once. Otherwise it runs at `due` and each multiple of this after it; of times that have
    // passed before a run has ended, only one counts. At most 100 years.
    std::chrono::microseconds period{0};
    TarnRef arguments{};  // becomes a child of the task; null for none
  };

  struct Info {
    std::uint64_t number = 0;
    std::string delegate;
    TarnTask::State state = TarnTask::Scheduled;
    Time due;
    std::chrono::microseconds period{0};
    std::uint64_t runs = 0;
    std::uint32_t errors = 0;  // since the last run that was committed
    // Of these; or what has kept it from being run several times in a row, without being an error
    // of the task. Empty when there is nothing to tell.
    std::string lastError;
  };

  explicit TarnTasks(TarnManager& manager, std::string path = kDefaultPath);

  static Time Now();

  // Returns the task's number.
  std::uint64_t schedule(const Plan& plan);
  // Takes the task away; false when there is none (any more). Waits while it is running, however
  // long that is: a task that runs once has then ended, a periodic one goes. Within a transaction
  // of the caller's, where the run might wait for the caller, it is a lock like any other, and
  // throws 101 after the session's lock time-out. A run may cancel its own task; a thread that the
  // run waits for may not: both would wait for ever.
  bool cancel(std::uint64_t number);
  // Schedules a suspended task again, with no errors; false when there is no such task.
  bool resume(std::uint64_t number, Time due = Now());

  xcptref<TarnTask> getTask(std::uint64_t number) const;  // null when there is none
  std::optional<Info> getInfo(std::uint64_t number) const;
  // Up to `limit` tasks with numbers above `after`, in their order.
  std::vector<Info> list(std::uint64_t after = 0, std::size_t limit = kPage) const;
  unsigned long getNumTasks() const;

 private:
  bool cancelNow(std::uint64_t number);

  TarnManager& manager_;
  std::string path_;
};

}  // namespace tarns
