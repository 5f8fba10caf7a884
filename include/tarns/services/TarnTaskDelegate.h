#pragma once

#include <tarns/services/TarnTask.h>
#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tarns {

// One run of a task, for the delegate that does it. Lives as long as the run.
class TARNS_API TarnTaskRun {
 public:
  TarnTaskRun(TarnManager& manager, xcptref<TarnTask> task, std::function<bool()> shouldStop);

  // The scheduler's session; the calling thread is attached to it, and in the run's transaction.
  TarnManager& getManager() const { return manager_; }
  const xcptref<TarnTask>& getTask() const { return task_; }
  TarnRef getArguments() const;  // null when there are none
  // What the plan said; a late run is later.
  TarnTask::Time getPlanned() const { return task_->getPlanned(); }
  // See TarnTaskDelegate.
  const std::string& getKey() const { return key_; }
  // Whether the scheduler waits for this run to end: long work may throw, and is done again later.
  bool shouldStop() const { return shouldStop_(); }

 private:
  TarnManager& manager_;
  xcptref<TarnTask> task_;
  std::function<bool()> shouldStop_;
  std::string key_;
};

// What does the work of tasks. Which one, a task says by its type name, so that a program may do
// them that did not schedule them. A derived class registers itself:
//
//   class SendReport : public tarns::TarnTaskDelegate {
//     void run(tarns::TarnTaskRun& run) override;
//   };
//   TARN_REGISTER_TASK_DELEGATE(SendReport);
//
// A run is a transaction: what it changes in the database is committed together with the task's
// end, or with its next time, so it happens exactly once, whatever crashes. What it does elsewhere
// (a mail that is sent, a file) happens at least once: a run that was killed, failed, or was the
// victim of a deadlock before its commit is done again. All attempts at one run have the same
// TarnTaskRun::getKey(), which no other run of any task ever has; hand it to whatever can tell that
// it has had this one, or keep it there. A run that is done again since its database was set back
// to a backup has the key that it had before.
//
// A run that throws has failed and is rolled back. It is tried again after a delay that doubles
// each time; too many failures in a row suspend the task, with what was thrown. So has a run that
// returns from a transaction that cannot be committed, say because one within it was rolled back or
// a call in it failed halfway, whether or not the delegate has caught that. It may not end the
// run's transaction itself, nor leave the session: a TarnAttachment to another one, or a
// TarnMeister, throws 111. What needs another session (another database, a pool) does that in a
// thread of its own that the run waits for; that thread has no part in the run's transaction.
//
// Each run gets a delegate of its own, made by its default constructor. Threads: the scheduler's
// worker, which has a stack of 256 KiB.
class TARNS_API TarnTaskDelegate {
 public:
  using Maker = std::unique_ptr<TarnTaskDelegate> (*)();

  TarnTaskDelegate() = default;
  virtual ~TarnTaskDelegate();
  TarnTaskDelegate(const TarnTaskDelegate&) = delete;
  TarnTaskDelegate& operator=(const TarnTaskDelegate&) = delete;

  virtual void run(TarnTaskRun& run) = 0;

  // Null when this program does not have it.
  static std::unique_ptr<TarnTaskDelegate> Create(std::string_view type);
  static bool IsKnown(std::string_view type);
  // How many have been registered so far, also those that are gone.
  static std::uint64_t GetNumRegistrations();
};

// Makes a delegate known while it lives; of two of one name the later one counts. Threads: any.
class TARNS_API TarnTaskDelegateRegistration {
 public:
  TarnTaskDelegateRegistration(std::string type, TarnTaskDelegate::Maker maker);
  ~TarnTaskDelegateRegistration();
  TarnTaskDelegateRegistration(const TarnTaskDelegateRegistration&) = delete;
  TarnTaskDelegateRegistration& operator=(const TarnTaskDelegateRegistration&) = delete;

 private:
  std::uint64_t number_;
};

}  // namespace tarns

// In one source file, outside of functions.
#define TARN_REGISTER_TASK_DELEGATE(Class)                                            \
  static const ::tarns::TarnTaskDelegateRegistration Class##Registration(#Class, [] { \
    return std::unique_ptr<::tarns::TarnTaskDelegate>(std::make_unique<Class>());     \
  })
