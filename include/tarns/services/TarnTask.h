#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>
#include <tarns/tarns_api.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace tarns {

// Work for a time: which delegate does it, when, and how it has gone so far. TarnTasks makes them
// and keeps them in the tree, a TaskScheduler runs them.
//
// The node's child Arguments, if there is one, is what schedule() was given; the delegate may read
// and change it, and add children of its own.
//
// Locks: a transaction that reads a task through a reference has it, see
// goods::hierarchical_access_scheme. Threads and errors: as every node.
class TARNS_API TarnTask : public TarnObject {
  TARN_CLASS(TarnTask, TarnObject)

 public:
  // Times are in UTC, in microseconds.
  using Time = std::chrono::sys_time<std::chrono::microseconds>;
  enum State : std::uint32_t {
    Scheduled,  // runs when it is due
    Suspended,  // has failed too often, and waits for TarnTasks::resume()
    Ended       // has been run or cancelled: not in the tree any more
  };

  static constexpr const char* kArguments = "Arguments";

  ~TarnTask() override;

  std::uint64_t getNumber() const { return number_; }  // from 1; never given twice
  std::string getDelegate() const { return delegate_.str(); }
  State getState() const { return static_cast<State>(state_); }
  // When it is run next: as planned, or tried again after a failure.
  Time getDue() const { return Time(std::chrono::microseconds(due_)); }
  Time getPlanned() const { return Time(std::chrono::microseconds(planned_)); }
  std::chrono::microseconds getPeriod() const { return std::chrono::microseconds(period_); }
  std::uint64_t getRuns() const { return runs_; }      // that have been committed
  std::uint32_t getErrors() const { return errors_; }  // since the last of these
  std::string getLastError() const { return lastError_.str(); }
  // The same for each attempt at one run, and of no other run of any task: see TarnTaskDelegate.
  std::string getRunKey() const;

  bool write(const char* name, GOODSinOut& out) override;

 private:
  friend class TarnTasks;
  friend class TaskTable;

  std::uint64_t number_ = 0;
  TarnString delegate_;
  std::uint32_t state_ = Scheduled;
  std::int64_t created_ = 0;  // these in microseconds since 1970
  std::int64_t planned_ = 0;
  std::int64_t due_ = 0;
  std::int64_t period_ = 0;  // microseconds; 0: once
  std::uint64_t runs_ = 0;
  std::uint32_t errors_ = 0;
  TarnString lastError_;
};

}  // namespace tarns
