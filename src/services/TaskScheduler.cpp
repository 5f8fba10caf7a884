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
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "services/DueWalk.h"
#include "services/RunningTasks.h"
#include "services/TaskTable.h"

namespace tarns {

namespace {

constexpr std::uint32_t kMostInARound = 64;  // runs, between which stop() is looked for anyhow
constexpr std::size_t kTidiedAtOnce = 64;    // entries
constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kLongestReason = 4096;  // bytes
constexpr auto kRetryPause =
    std::chrono::seconds(1);  // before what could not be done is tried again
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

// How far an attempt at a run is.
enum class Phase {
  kClaiming,
  kRunning,  // the delegate
  kEnding,
  kCommitting,
};

// Whether what is being thrown is no fault of the task's; within a handler.
bool IsOfTheDatabase(Phase phase) {
  try {
    throw;
  } catch (const TarnException& error) {
    switch (error.getErrorID()) {
      case ErrorID::Deadlock:
      case ErrorID::LockTimeOut:
      case ErrorID::IOFailure:
      case ErrorID::ReadOnly:
        return true;
      // Sooner it is the limit of what a transaction may take, or comes from another database.
      case ErrorID::StorageFull:
      case ErrorID::OutcomeUnknown:
        return phase == Phase::kCommitting;
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
  using Outcome = DueWalk::Outcome;
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

  void begin();
  void work() noexcept;
  void sleepUntil(std::optional<Time> time);
  void complain(std::string& last, std::string why);
  void noteChange();
  static void RunDue(TarnManager& manager, std::uint32_t most, const void* round);
  std::optional<Time> runDue(std::uint32_t most);
  bool canCommit() const;
  void watchDue();
  Outcome runEntry(const std::string& name, const TaskTable::DueEntry& entry);
  Outcome runTask(const xcptref<TarnTask>& task, const std::string& name, Time due);
  Outcome postpone(std::uint64_t number, const xcptref<TarnTask>& task, const std::string& why);
  void noteReason(const xcptref<TarnTask>& task, const std::string& why);
  void endRun(const xcptref<TarnTask>& task);
  bool isKnown(const std::string& delegate);
  // No lock is waited for in there.
  template <class Work>
  auto withoutWaiting(const Work& work) {
    struct Restored {
      Loop& loop;
      ~Restored() { loop.worker_.setLockTimeout(loop.options_.lockTimeout); }
    } const restored{*this};
    worker_.setLockTimeout(std::chrono::milliseconds(0));
    return work();
  }
  bool claim(const xcptref<TarnTask>& task, const std::string& name, Time due);
  void runDelegate(const xcptref<TarnTask>& task);
  void noteFailure(const xcptref<TarnTask>& task, std::uint64_t run, const std::string& why);
  Time nextAttempt(std::uint32_t errors) const;
  void tidySuspended();
  void dropIfDeleted(const std::string& name);

  const Options options_;
  DatabaseWorker worker_;
  std::optional<TaskTable> table_;
  // Of the worker:
  std::set<std::string> unknown_;  // delegates that were complained of
  std::map<std::uint64_t, Postponed> postponed_;
  DueWalk walk_{kLongestSleep};
  std::uint64_t numRegistrations_ = 0;  // of delegates, when walk_ began
  std::size_t toTidy_ = kAll;           // entries of Suspended to look at
  std::string tidied_;                  // the last one that was
  std::uint64_t watchedID_ = 0;         // of what changed_ is registered with; 0 for nothing
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
  table_.emplace(worker_, options_.path);
  worker_.start(configPath, [this](TarnManager&) { begin(); });
  try {
    thread_.emplace(
        goods::task::create([](void* self) { static_cast<Loop*>(self)->work(); }, this));
  } catch (...) {
    worker_.terminate(true);  // its thread uses what is destroyed before it
    throw;
  }
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
  worker_.useSession(
      [this](TarnManager& manager) { manager.db().session().withdraw_signal(&changed_); });
  worker_.terminate(true);
}

// --- Sleeping
// -------------------------------------------------------------------------------------

void TaskScheduler::Loop::work() noexcept {
  std::string problem;
  while (!isStopping_) {
    Round round{*this, {}};
    try {
      worker_.execute(RunDue, kMostInARound, &round);
      problem.clear();
    } catch (...) {
      if (isStopping_) return;
      complain(problem, ReasonOfFailure());
      round.next = TarnTasks::Now() + kRetryPause;
    }
    sleepUntil(round.next);
  }
}

void TaskScheduler::Loop::complain(std::string& last, std::string why) {
  if (last == why) return;
  last = std::move(why);
  Log(Log::Error) << "The scheduler of \"" << options_.path.c_str()
                  << "\" could not go on and tries again: " << last.c_str();
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

// With a new session. What was postponed for want of the former one need not wait.
void TaskScheduler::Loop::begin() {
  worker_.setLockTimeout(options_.lockTimeout);
  postponed_.clear();
  walk_.forget();
  watchedID_ = 0;
  noteChange();
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
  if (watchedID_ != id) walk_.forget();
  watchedID_ = id;
  try {
    due->signal_on_modification(&changed_);
  } catch (...) {
    const std::lock_guard guard(lock_);
    isWatching_ = false;
    throw;
  }
}

// Not when the store has failed: what is run then is run in vain.
bool TaskScheduler::Loop::canCommit() const {
  worker_.verifyIsInitialized();
  return !worker_.db().has_failed();
}

std::optional<TarnTask::Time> TaskScheduler::Loop::runDue(std::uint32_t most) {
  watchDue();
  tidySuspended();
  const std::uint64_t registrations = TarnTaskDelegate::GetNumRegistrations();
  if (std::exchange(numRegistrations_, registrations) != registrations) walk_.forget();
  const std::string path = table_->pathOf(TarnTasks::kDue);
  return walk_.walk({
      .names = [&](const std::string& after,
                   std::size_t limit) { return worker_.getChildNames(path, after, limit); },
      .mayGoOn = [&] { return !isStopping_ && most > 0 && canCommit(); },
      .look =
          [&](const std::string& name, const TaskTable::DueEntry& entry) {
            const Outcome outcome = runEntry(name, entry);
            if (outcome == Outcome::kDone) --most;
            return outcome;
          },
  });
}

// What goes wrong with one task does not hold up those behind it.
TaskScheduler::Loop::Outcome TaskScheduler::Loop::runEntry(const std::string& name,
                                                           const TaskTable::DueEntry& entry) {
  const auto postponed = postponed_.find(entry.number);
  if (postponed != postponed_.end() && postponed->second.until > TarnTasks::Now()) {
    return Outcome::kPostponed;
  }
  xcptref<TarnTask> task;
  try {
    worker_.attach();  // a delegate may have left the session
    task = table_->find(TarnTasks::kDue, name, entry.number);
    const Outcome outcome = task.is_null() ? Outcome::kGone : runTask(task, name, entry.due);
    if (outcome != Outcome::kPostponed) postponed_.erase(entry.number);
    return outcome;
  } catch (...) {
    if (isStopping_) throw;  // perhaps because it was asked to; no failure
    return postpone(entry.number, task, ReasonOfFailure());
  }
}

TaskScheduler::Loop::Outcome TaskScheduler::Loop::postpone(std::uint64_t number,
                                                           const xcptref<TarnTask>& task,
                                                           const std::string& why) {
  if (postponed_.size() >= kMostRemembered) postponed_.clear();
  Postponed& postponed = postponed_[number];
  postponed.until = nextAttempt(++postponed.times);
  Log(Log::Warning) << "The task " << std::to_string(number).c_str() << " of \""
                    << options_.path.c_str() << "\" could not be run and waits: " << why.c_str();
  if (postponed.times >= options_.mostErrors && !task.is_null()) noteReason(task, why);
  return Outcome::kPostponed;
}

// So that it is seen where tasks are listed. What stands in the way of that as well is in the log.
void TaskScheduler::Loop::noteReason(const xcptref<TarnTask>& task, const std::string& why) {
  try {
    worker_.attach();
    withoutWaiting([&] {
      worker_.db().session().atomically([&] {
        const bool isOfInterest =
            task->getState() == TarnTask::Scheduled && task->getLastError() != why;
        if (isOfInterest) table_->noteReason(task, why);
      });
    });
  } catch (...) {
    Log(Log::Warning) << "That could not be kept with the task: " << ReasonOfFailure().c_str();
  }
}

TaskScheduler::Loop::Outcome TaskScheduler::Loop::runTask(const xcptref<TarnTask>& task,
                                                          const std::string& name, Time due) {
  if (!isKnown(task->getDelegate())) return Outcome::kLeft;
  const std::uint64_t run = task->getRuns();
  const RunningTasks::Scope running(RunningTasks::KeyOf(worker_, task));
  bool isMine = false;
  Phase phase = Phase::kClaiming;
  const auto isFailure = [&] {
    return phase != Phase::kClaiming && !isStopping_ && !IsOfTheDatabase(phase);
  };
  try {
    worker_.db().session().atomically([&] {
      phase = Phase::kClaiming;  // also after a deadlock
      isMine = claim(task, name, due);
      if (!isMine) return;
      running.begins();
      phase = Phase::kRunning;
      runDelegate(task);
      phase = Phase::kEnding;
      endRun(task);
      phase = Phase::kCommitting;
    });
  } catch (const TarnException& error) {
    const bool isTaken = phase == Phase::kClaiming && error.getErrorID() == ErrorID::LockTimeOut;
    if (isTaken) return Outcome::kPostponed;
    if (!isFailure()) throw;
    noteFailure(task, run, ReasonOfFailure());
    return Outcome::kDone;
  } catch (...) {
    if (!isFailure()) throw;
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
  const bool isDue = withoutWaiting(
      [&] { return task->getState() == TarnTask::Scheduled && task->getDue() == due; });
  // Looked at as committed, which cannot change now: in the transaction it would lock Tasks shared,
  // which is written later.
  const bool isDeleted =
      isDue && !worker_.db().session().outside_transaction([&] { return task->hasParent(); });
  if (isDeleted) table_->dropEntry(TarnTasks::kDue, name);
  return isDue && !isDeleted;
}

void TaskScheduler::Loop::runDelegate(const xcptref<TarnTask>& task) {
  const auto delegate = TarnTaskDelegate::Create(task->getDelegate());
  if (delegate == nullptr) {
    throw TarnException("The task's delegate has just been unloaded.", ErrorID::Unspecified);
  }
  const std::uint64_t transaction = worker_.db().session().transaction_number();
  {
    const RunScope scope(this);
    TarnTaskRun run(worker_, task, [this] { return isStopping_.load(); });
    delegate->run(run);
  }
  if (worker_.db().session().transaction_number() == transaction) return;
  throw TarnException("The delegate has ended the transaction that its run is, or left it.",
                      ErrorID::BadUsage);
}

// Throws when the transaction cannot be committed any more, which the delegate may not have
// noticed.
void TaskScheduler::Loop::endRun(const xcptref<TarnTask>& task) {
  if (task->getState() == TarnTask::Scheduled) table_->finishRun(task, TarnTasks::Now());
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
  if (toTidy_ != kAll) toTidy_ += kTidiedAtOnce;
  Log(Log::Error) << "The task " << std::to_string(task->getNumber()).c_str() << " of \""
                  << options_.path.c_str() << "\" is suspended: " << why.c_str();
}

TarnTask::Time TaskScheduler::Loop::nextAttempt(std::uint32_t errors) const {
  std::chrono::microseconds delay = options_.firstDelay;
  for (std::uint32_t i = 1; i < errors && delay < options_.longestDelay; ++i) delay *= 2;
  return TarnTasks::Now() + std::min(delay, options_.longestDelay);
}

// Takes tasks out of Suspended that somebody has deleted: looks through all of it after the start,
// a few entries in each round, and at a few more whenever a task has been suspended.
void TaskScheduler::Loop::tidySuspended() {
  const std::string path = table_->pathOf(TarnTasks::kSuspended);
  const std::size_t limit = std::min(toTidy_, kTidiedAtOnce);
  if (limit == 0) return;
  std::vector<std::string> names;
  if (!worker_.getObject(path).is_null()) names = worker_.getChildNames(path, tidied_, limit);
  for (const std::string& name : names) dropIfDeleted(name);
  if (names.size() < limit) {
    toTidy_ = 0;
    tidied_.clear();
    return;
  }
  tidied_ = names.back();
  if (toTidy_ != kAll) toTidy_ -= limit;
}

void TaskScheduler::Loop::dropIfDeleted(const std::string& name) {
  const auto number = TaskTable::ParseName(name);
  if (!number) return;  // somebody else's
  try {
    const xcptref<TarnTask> task = table_->find(TarnTasks::kSuspended, name, *number);
    if (task.is_null() || task->hasParent()) return;
    withoutWaiting([&] {
      worker_.db().session().atomically([&] {
        if (task->getState() == TarnTask::Suspended) table_->dropEntry(TarnTasks::kSuspended, name);
      });
    });
  } catch (...) {  // another round will come
    Log(Log::Warning) << "The deleted task \"" << name.c_str() << "\" of \""
                      << options_.path.c_str()
                      << "\" stays among those that are suspended: " << ReasonOfFailure().c_str();
  }
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
