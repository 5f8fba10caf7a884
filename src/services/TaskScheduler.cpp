#include <goods/cache_manager.h>
#include <goods/event.h>
#include <goods/task.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/services/DatabaseWorker.h>
#include <tarns/services/TarnTaskDelegate.h>
#include <tarns/services/TaskScheduler.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "services/TaskTable.h"

namespace tarns {

namespace {

constexpr std::uint32_t kMostInARound = 64;  // runs, between which stop() is looked for anyhow
constexpr std::size_t kNamesAtOnce = 64;
constexpr std::size_t kLongestReason = 4096;      // bytes
constexpr auto kPause = std::chrono::seconds(1);  // before what could not be done is tried again
// What nobody signals is noticed after this: that the list is another node, or a delegate known.
constexpr auto kLongestSleep = std::chrono::seconds(2);
constexpr std::size_t kMostRemembered = 10'000;  // names, tasks

// The loop whose delegate the calling thread is in; null for none.
thread_local const void* runningFor = nullptr;

class RunScope {
 public:
  explicit RunScope(const void* loop) { runningFor = loop; }
  ~RunScope() { runningFor = nullptr; }
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;
};

// Whether what is being thrown is no fault of the task's; within a handler.
bool IsOfTheDatabase() {
  try {
    throw;
  } catch (const TarnException& error) {
    switch (error.getErrorID()) {
      case ErrorID::Deadlock:
      case ErrorID::LockTimeOut:
      case ErrorID::IOFailure:
      case ErrorID::StorageFull:
      case ErrorID::OutcomeUnknown:
      case ErrorID::ReadOnly:
        return true;
      default:
        return false;
    }
  } catch (...) {
    return false;
  }
}

// What is being thrown, in words; within a handler.
std::string ReasonOfFailure() {
  try {
    throw;
  } catch (const std::exception& error) {
    return std::string(error.what()).substr(0, kLongestReason);
  } catch (...) {
    return "Something was thrown that is no exception.";
  }
}

TaskScheduler::Options Verified(TaskScheduler::Options options) {
  constexpr std::chrono::microseconds kNone(0), kLongest = std::chrono::hours(24) * 36'525;
  if (options.mostErrors == 0 || options.firstDelay < kNone || options.longestDelay < kNone ||
      options.longestDelay > kLongest) {
    throw TarnException(
        "A scheduler needs a number of errors above 0, and delays of 0 to 100 years.",
        ErrorID::Unspecified);
  }
  return options;
}

}  // namespace

// Two threads: this one sleeps, and hands rounds to the worker, which runs what is due.
class TaskScheduler::Loop {
 public:
  Loop(const char* configPath, Options options);
  ~Loop() { stop(); }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void stop();
  Figures getFigures() const { return {runs_, failures_, suspended_}; }

 private:
  using Time = TarnTask::Time;
  enum class Outcome {
    kDone,
    kGone,
    kLeft,       // to others
    kPostponed,  // to be tried again soon
  };
  struct Postponed {
    Time until;
    std::uint32_t times = 0;
  };

  // The list of what is due has changed.
  class Changed : public goods::event {
   public:
    explicit Changed(Loop& loop) : loop_(loop) {}
    void signal() override { loop_.noteChange(); }

   private:
    Loop& loop_;
  };

  struct Round {
    Loop& loop;
    std::optional<Time> next;  // when to look again; none: when something has changed
  };

  void work() noexcept;
  void sleepUntil(std::optional<Time> time);
  void noteChange();
  static void RunDue(TarnManager& manager, std::uint32_t most, const void* round);
  std::optional<Time> runDue(std::uint32_t most);
  void watchDue();
  Outcome runEntry(const std::string& name, const TaskTable::DueEntry& entry);
  Outcome runTask(const xcptref<TarnTask>& task, const std::string& name, Time due);
  Outcome postpone(std::uint64_t number, const std::string& why);
  bool isKnown(const std::string& delegate);
  bool claim(const xcptref<TarnTask>& task, const std::string& name, Time due);
  void runDelegate(const xcptref<TarnTask>& task);
  void noteFailure(const xcptref<TarnTask>& task, std::uint64_t run, const std::string& why);
  Time nextAttempt(std::uint32_t errors) const;

  const Options options_;
  DatabaseWorker worker_;
  std::optional<TaskTable> table_;
  // Of the worker:
  std::set<std::string> unknown_;  // delegates that were complained of
  std::map<std::uint64_t, Postponed> postponed_;
  std::uint64_t watchedID_ = 0;  // of what changed_ is registered with; 0 for nothing
  std::atomic<std::uint64_t> runs_{0}, failures_{0}, suspended_{0};

  std::mutex lock_;
  std::condition_variable wakes_;
  bool hasChanged_ = false;  // under lock_
  bool isWatching_ = false;  // under lock_: changed_ has yet to be signalled
  std::atomic<bool> isStopping_{false};
  Changed changed_{*this};
  std::mutex ending_;  // of whoever stops
  std::optional<goods::task> thread_;
};

TaskScheduler::Loop::Loop(const char* configPath, Options options)
    : options_(Verified(std::move(options))) {
  worker_.start(configPath);
  worker_.setLockTimeout(options_.lockTimeout);
  table_.emplace(worker_, options_.path);
  thread_.emplace(goods::task::create([](void* self) { static_cast<Loop*>(self)->work(); }, this));
}

void TaskScheduler::Loop::stop() {
  if (runningFor == this) {
    throw TarnException("A task cannot wait for the end of its scheduler.", ErrorID::BadUsage);
  }
  {
    const std::lock_guard guard(lock_);
    isStopping_ = true;
  }
  wakes_.notify_all();
  const std::lock_guard ending(ending_);
  if (thread_) thread_->join();
  if (!worker_.hasStopped()) worker_.db().session().withdraw_signal(&changed_);
  worker_.terminate(true);
}

// --- Sleeping
// -------------------------------------------------------------------------------------

void TaskScheduler::Loop::work() noexcept {
  while (!isStopping_) {
    Round round{*this, {}};
    try {
      worker_.execute(RunDue, kMostInARound, &round);
    } catch (...) {
      if (isStopping_) return;
      Log(Log::Error) << "The scheduler of \"" << options_.path.c_str()
                      << "\" could not go on and tries again: " << ReasonOfFailure().c_str();
      round.next = TarnTasks::Now() + kPause;
    }
    sleepUntil(round.next);
  }
}

void TaskScheduler::Loop::sleepUntil(std::optional<Time> time) {
  const Time latest = TarnTasks::Now() + kLongestSleep;
  std::unique_lock guard(lock_);
  wakes_.wait_until(guard, time ? std::min(*time, latest) : latest,
                    [this] { return hasChanged_ || isStopping_; });
  hasChanged_ = false;
}

void TaskScheduler::Loop::noteChange() {
  {
    const std::lock_guard guard(lock_);
    hasChanged_ = true;
    isWatching_ = false;
  }
  wakes_.notify_all();
}

// --- On the worker
// --------------------------------------------------------------------------------

void TaskScheduler::Loop::RunDue(TarnManager&, std::uint32_t most, const void* round) {
  auto& mine = *static_cast<Round*>(const_cast<void*>(round));
  mine.next = mine.loop.runDue(most);
}

// Before the list is looked at, so that no change is missed. The list may be another node by now.
void TaskScheduler::Loop::watchDue() {
  const TarnRef due = worker_.getNoFail(table_->pathOf(TarnTasks::kDue));
  const std::uint64_t id = TarnObject::GetObjectID(due);
  {
    const std::lock_guard guard(lock_);
    if (isWatching_ && id == watchedID_) return;
  }
  worker_.db().session().withdraw_signal(&changed_);
  {
    const std::lock_guard guard(lock_);
    isWatching_ = true;
  }
  watchedID_ = id;
  try {
    due->signal_on_modification(&changed_);
  } catch (...) {
    const std::lock_guard guard(lock_);
    isWatching_ = false;
    throw;
  }
}

std::optional<TarnTask::Time> TaskScheduler::Loop::runDue(std::uint32_t most) {
  watchDue();
  const std::string path = table_->pathOf(TarnTasks::kDue);
  std::string last;
  std::optional<Time> again;  // for what is postponed
  while (true) {
    const std::vector<std::string> names = worker_.getChildNames(path, last, kNamesAtOnce);
    for (const std::string& name : names) {
      const auto entry = TaskTable::ParseDueName(name);
      if (!entry) continue;  // somebody else's
      if (entry->due > TarnTasks::Now()) return again ? std::min(*again, entry->due) : entry->due;
      if (isStopping_ || most == 0) return TarnTasks::Now();
      const Outcome outcome = runEntry(name, *entry);
      if (outcome == Outcome::kDone) --most;
      if (outcome == Outcome::kPostponed) again = TarnTasks::Now() + kPause;
    }
    if (names.size() < kNamesAtOnce) return again;
    last = names.back();
  }
}

// What goes wrong with one task does not hold up those behind it.
TaskScheduler::Loop::Outcome TaskScheduler::Loop::runEntry(const std::string& name,
                                                           const TaskTable::DueEntry& entry) {
  const auto postponed = postponed_.find(entry.number);
  if (postponed != postponed_.end() && postponed->second.until > TarnTasks::Now()) {
    return Outcome::kPostponed;
  }
  try {
    worker_.attach();  // a delegate may have left the session
    const xcptref<TarnTask> task = table_->find(TarnTasks::kDue, name, entry.number);
    const Outcome outcome = task.is_null() ? Outcome::kGone : runTask(task, name, entry.due);
    if (outcome != Outcome::kPostponed) postponed_.erase(entry.number);
    return outcome;
  } catch (...) {
    if (isStopping_) throw;  // perhaps because it was asked to; no failure
    return postpone(entry.number, ReasonOfFailure());
  }
}

TaskScheduler::Loop::Outcome TaskScheduler::Loop::postpone(std::uint64_t number,
                                                           const std::string& why) {
  if (postponed_.size() >= kMostRemembered) postponed_.clear();
  Postponed& postponed = postponed_[number];
  postponed.until = nextAttempt(++postponed.times);
  Log(Log::Warning) << "The task " << std::to_string(number).c_str() << " of \""
                    << options_.path.c_str() << "\" could not be run and waits: " << why.c_str();
  return Outcome::kPostponed;
}

TaskScheduler::Loop::Outcome TaskScheduler::Loop::runTask(const xcptref<TarnTask>& task,
                                                          const std::string& name, Time due) {
  if (!isKnown(task->getDelegate())) return Outcome::kLeft;
  const std::uint64_t run = task->getRuns();
  bool isMine = false, hasReturned = false;
  try {
    worker_.db().session().atomically([&] {
      isMine = hasReturned = false;  // after a deadlock
      isMine = claim(task, name, due);
      if (!isMine) return;
      runDelegate(task);
      hasReturned = true;
      if (task->getState() == TarnTask::Scheduled) table_->finishRun(task, TarnTasks::Now());
    });
  } catch (const TarnException& error) {
    const bool isTaken = !isMine && error.getErrorID() == ErrorID::LockTimeOut;
    if (isTaken) return Outcome::kPostponed;
    if (!isMine || hasReturned || isStopping_ || IsOfTheDatabase()) throw;
    noteFailure(task, run, ReasonOfFailure());
    return Outcome::kDone;
  } catch (...) {
    if (hasReturned || isStopping_) throw;
    noteFailure(task, run, ReasonOfFailure());
    return Outcome::kDone;
  }
  if (!isMine) return Outcome::kGone;
  ++runs_;
  return Outcome::kDone;
}

bool TaskScheduler::Loop::isKnown(const std::string& delegate) {
  if (TarnTaskDelegate::IsKnown(delegate)) return true;
  if (unknown_.size() >= kMostRemembered) unknown_.clear();
  if (unknown_.insert(delegate).second) {
    Log(Log::Warning) << "Tasks for \"" << delegate.c_str()
                      << "\" are left alone: this program has no such delegate.";
  }
  return false;
}

// Takes the task, or throws at once when somebody has it. False when it is not to be run (now).
bool TaskScheduler::Loop::claim(const xcptref<TarnTask>& task, const std::string& name, Time due) {
  worker_.setLockTimeout(std::chrono::milliseconds(0));
  const auto restore = [this] { worker_.setLockTimeout(options_.lockTimeout); };
  bool isDue = false;
  try {
    isDue = task->getState() == TarnTask::Scheduled && task->getDue() == due;
  } catch (...) {
    restore();
    throw;
  }
  restore();
  // Looked at as committed, which cannot change now: in the transaction it would lock Tasks shared,
  // which is written later.
  const bool isDeleted =
      isDue && !worker_.db().session().outside_transaction([&] { return task->hasParent(); });
  if (isDeleted) table_->dropDueEntry(name);
  return isDue && !isDeleted;
}

void TaskScheduler::Loop::runDelegate(const xcptref<TarnTask>& task) {
  const auto delegate = TarnTaskDelegate::Create(task->getDelegate());
  if (delegate == nullptr) {
    throw TarnException("The task's delegate has just been unloaded.", ErrorID::Unspecified);
  }
  const RunScope scope(this);
  TarnTaskRun run(worker_, task, [this] { return isStopping_.load(); });
  delegate->run(run);
}

void TaskScheduler::Loop::noteFailure(const xcptref<TarnTask>& task, std::uint64_t run,
                                      const std::string& why) {
  bool isLast = false;
  worker_.attach();
  worker_.db().session().atomically([&] {
    isLast = false;
    if (task->getState() != TarnTask::Scheduled || task->getRuns() != run) return;
    const std::uint32_t errors = task->getErrors() + 1;
    isLast = errors >= options_.mostErrors;
    table_->failRun(task, why, isLast ? std::nullopt : std::optional(nextAttempt(errors)));
  });
  ++failures_;
  if (!isLast) return;
  ++suspended_;
  Log(Log::Error) << "The task " << std::to_string(task->getNumber()).c_str() << " of \""
                  << options_.path.c_str() << "\" is suspended: " << why.c_str();
}

TarnTask::Time TaskScheduler::Loop::nextAttempt(std::uint32_t errors) const {
  std::chrono::microseconds delay = options_.firstDelay;
  for (std::uint32_t i = 1; i < errors && delay < options_.longestDelay; ++i) delay *= 2;
  return TarnTasks::Now() + std::min(delay, options_.longestDelay);
}

// --- TaskScheduler
// --------------------------------------------------------------------------------

TaskScheduler::TaskScheduler(const char* configPath) : TaskScheduler(configPath, Options()) {}

TaskScheduler::TaskScheduler(const char* configPath, Options options)
    : loop_(std::make_unique<Loop>(configPath, std::move(options))) {}

TaskScheduler::~TaskScheduler() = default;

void TaskScheduler::stop() { loop_->stop(); }

TaskScheduler::Figures TaskScheduler::getFigures() const { return loop_->getFigures(); }

}  // namespace tarns
