// What becomes of tasks whose runs, or whose nodes, are not as they should be.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnValue.h>
#include <tarns/session/TarnTransaction.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "services/TaskTable.h"
#include "services/scheduler_fixture.h"
#include "support/throws_tarn.h"

namespace {

using namespace tarns;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

class SchedulerFaultTest : public scheduler_test {
 protected:
  // The keys of the runs of a periodic task of a database, at least three.
  static std::vector<std::string> KeysOfThreeRuns(const std::string& configuration) {
    std::vector<std::string> keys;  // of the worker, until it has ended
    std::atomic<int> runs = 0;
    SaidDelegate::what = [&](TarnTaskRun& run) {
      keys.push_back(run.getKey());
      ++runs;
    };
    TaskScheduler scheduler(configuration.c_str());
    WaitUntil([&] { return runs >= 3; });
    scheduler.stop();
    return keys;
  }
};

TEST_F(SchedulerFaultTest, WhatReturnsButCannotBeCommittedHasFailed) {
  struct Case {
    const char* reason;
    void (*run)(TarnManager& manager);
  };
  const Case cases[] = {
      {"a transaction within it was rolled back",
       [](TarnManager& manager) {
         TarnTransaction inner(manager);
         manager.set("half", 1);
         inner.rollback();
       }},
      {"failed after half of its changes",
       [](TarnManager& manager) {
         try {
           manager.transaction([&] {
             manager.set("half", 1);
             throw std::runtime_error("one of many");
           });
         } catch (const std::runtime_error&) {
           return;  // the next one, please
         }
       }},
      {"has ended the transaction",
       [](TarnManager& manager) {
         manager.set("half", 1);
         manager.db().session().abort_transaction();
       }},
      {"has ended the transaction",
       [](TarnManager& manager) {
         manager.set("half", 1);
         manager.detach();
       }},
      {"more than the 1 MiB",
       [](TarnManager& manager) {
         manager.setTransactionLimit(1 << 20);
         const std::string text(1 << 16, 'x');
         for (int i = 0; i < 100; ++i) manager.set("half~" + std::to_string(i), text.c_str());
       }},
      {"more than the 1 MiB",
       [](TarnManager& manager) {
         manager.setTransactionLimit(1 << 20);
         const std::string text(1 << 21, 'x');
         try {
           manager.set("half", text.c_str());
         } catch (const TarnException&) {
           return;
         }
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    SaidDelegate::what = [&](TarnTaskRun& run) { c.run(run.getManager()); };
    const std::uint64_t number = tasks_.schedule({.delegate = "SaidDelegate"});
    TaskScheduler scheduler(config().c_str(), Quick());
    WaitUntil([&] { return scheduler.getFigures().suspended == 1; });
    scheduler.stop();
    const TarnTasks::Info info = tasks_.getInfo(number).value();
    EXPECT_EQ(info.state, TarnTask::Suspended);
    EXPECT_EQ(info.errors, 3u);
    EXPECT_THAT(info.lastError, HasSubstr(c.reason));
    EXPECT_EQ(scheduler.getFigures().failures, 3u);
    EXPECT_EQ(scheduler.getFigures().runs, 0u);
    EXPECT_TRUE(manager().getObject("half").is_null());
  }
}

TEST_F(SchedulerFaultTest, NoTwoPlannedRunsHaveOneKeyAfterARestoreOrACopy) {
  tasks_.schedule({"SaidDelegate", TarnTasks::Now(), 2ms, {}});
  ASSERT_TRUE(manager().backup(directory().file("backup").c_str()));
  manager().copyBranch("scheduler", "copy");
  const std::vector<std::string> original = KeysOfThreeRuns(config());
  const std::vector<std::string> restored =
      KeysOfThreeRuns(directory().file("backup") + "/tarns.conf");
  EXPECT_EQ(restored[0], original[0]);  // the same run once more
  std::set<std::string> keys(original.begin(), original.end());
  keys.insert(restored.begin(), restored.end());
  keys.insert(TarnTasks(manager(), "copy").getTask(1)->getRunKey());
  EXPECT_EQ(keys.size(), original.size() + restored.size());
}

TEST_F(SchedulerFaultTest, CancellingWaitsForTheRunHoweverLongThatIs) {
  manager().setLockTimeout(0ms);
  for (const bool isPeriodic : {false, true}) {
    SCOPED_TRACE(isPeriodic);
    std::atomic<bool> isRunning = false, mayEnd = false, hasReturned = false;
    SaidDelegate::what = [&](TarnTaskRun& run) {
      run.getManager().set("ran", true);
      isRunning = true;
      WaitUntil([&] { return mayEnd.load(); });
    };
    const auto period = isPeriodic ? 1h : 0h;
    const std::uint64_t number =
        tasks_.schedule({"SaidDelegate", TarnTasks::Now() - 1ms, period, {}});
    TaskScheduler scheduler(config().c_str());
    WaitUntil([&] { return isRunning.load(); });
    // In a transaction, where the run might wait for it, it is a lock like any other.
    EXPECT_THAT([&] { manager().transaction([&] { tasks_.cancel(number); }); },
                ThrowsTarn(101, HasSubstr("could not be locked")));
    std::jthread cancels([&] {
      const TarnAttachment attachment(manager());
      EXPECT_EQ(tasks_.cancel(number), isPeriodic);
      hasReturned = true;
    });
    std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(hasReturned);
    mayEnd = true;
    cancels.join();
    scheduler.stop();
    EXPECT_FALSE(tasks_.getInfo(number));
    EXPECT_EQ(scheduler.getFigures().runs, 1u);
    EXPECT_TRUE(manager().getBoolean("ran"));
    manager().deleteBranch("ran");
  }
}

TEST_F(SchedulerFaultTest, WhatIsLockedWithoutBeingRunIsNotWaitedForWithoutEnd) {
  const std::uint64_t number = tasks_.schedule({"SaidDelegate", TarnTasks::Now() + 1h, {}, {}});
  manager().transaction([&] {
    EXPECT_EQ(tasks_.getTask(number)->getState(), TarnTask::Scheduled);
    TarnManager other;
    other.connect(config().c_str());
    other.setLockTimeout(1ms);
    std::jthread([&] {
      const TarnAttachment attachment(other);
      EXPECT_THAT([&] { TarnTasks(other).cancel(number); },
                  ThrowsTarn(101, HasSubstr("could not be locked")));
    }).join();
  });
}

TEST_F(SchedulerFaultTest, SuspendedTasksThatSomebodyHasDeletedAreForgotten) {
  SaidDelegate::what = [](TarnTaskRun&) { throw std::runtime_error("no"); };
  TaskScheduler::Options options = Quick();
  options.mostErrors = 1;
  const auto suspend = [&](TaskScheduler& scheduler) {
    const std::uint64_t before = scheduler.getFigures().suspended;
    const std::uint64_t number = tasks_.schedule({.delegate = "SaidDelegate"});
    WaitUntil([&] { return scheduler.getFigures().suspended > before; });
    return "scheduler~Tasks~" + TaskTable::NameOf(number);
  };
  const auto numLeft = [&] { return manager().getNumChildren("scheduler~Suspended"); };
  {
    TaskScheduler scheduler(config().c_str(), options);
    const std::string task = suspend(scheduler);
    scheduler.stop();
    manager().deleteBranch(task);
    EXPECT_EQ(numLeft(), 1u);
  }
  manager().set("scheduler~Suspended~somebody's", 1);
  TaskScheduler scheduler(config().c_str(), options);
  WaitUntil([&] { return numLeft() == 1; });
}

TEST_F(SchedulerFaultTest, WhatIsLeftToOthersIsNeitherForgottenNorInTheWayOfTheRest) {
  constexpr std::uint64_t kStrangers = 200;
  manager().transaction([&] {
    for (std::uint64_t i = 0; i < kStrangers; ++i) {
      tasks_.schedule({"NotYetKnown", TarnTasks::Now() - 1h, {}, {}});
    }
  });
  std::vector<int> order;  // of the worker, until it has ended
  SaidDelegate::what = [&](TarnTaskRun& run) {
    order.push_back(run.getArguments().is_null() ? 0 : run.getArguments()->getSint32(""));
  };
  const auto plan = [&](std::chrono::milliseconds ago, std::int32_t number) {
    const TarnRef value = TarnValue::CreateValue(TarnData(number));
    tasks_.schedule({"SaidDelegate", TarnTasks::Now() - ago, {}, value});
    WaitUntil([&] { return tasks_.getNumTasks() == kStrangers; });
  };
  TaskScheduler scheduler(config().c_str());
  plan(1s, 1);
  plan(0s, 2);
  plan(24h, 3);  // before all of them
  plan(0s, 4);
  const TarnTaskDelegateRegistration known("NotYetKnown", [] {
    return std::unique_ptr<TarnTaskDelegate>(std::make_unique<SaidDelegate>());
  });
  tasks_.schedule({"SaidDelegate", TarnTasks::Now() - 48h, {}, {}});  // wakes the scheduler
  waitUntilNoneAreLeft();
  scheduler.stop();
  EXPECT_EQ(order.size(), kStrangers + 5);
  order.resize(6);
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 0, 0));
}

// Where the order of locks is checked, what goes against it ends the process.
TEST_F(SchedulerFaultTest, WorksWhereTheOrderOfLocksIsChecked) {
  struct Checked {
    Checked() { TarnCacheManager::EnableTransactionChecking(true); }
    ~Checked() { TarnCacheManager::EnableTransactionChecking(false); }
  } const checked;
  std::atomic<bool> fails = true;
  SaidDelegate::what = [&](TarnTaskRun& run) {
    TarnManager& inRun = run.getManager();
    inRun.set("z", inRun.getSint32("z", 0) + 1);
    inRun.set("a", inRun.getSint32("z"));
    TarnTasks(inRun).cancel(TarnTasks(inRun).schedule({.delegate = "SaidDelegate"}));
    if (fails) throw std::runtime_error("not yet");
  };
  TaskScheduler scheduler(config().c_str(), Quick());
  std::uint64_t number = 0;
  manager().transaction([&] { number = tasks_.schedule({.delegate = "SaidDelegate"}); });
  WaitUntil([&] { return scheduler.getFigures().suspended == 1; });
  fails = false;
  EXPECT_TRUE(tasks_.resume(number));
  waitUntilNoneAreLeft();
  const std::uint64_t periodic = tasks_.schedule({"SaidDelegate", TarnTasks::Now(), 1ms, {}});
  WaitUntil([&] { return tasks_.getInfo(periodic)->runs >= 3; });
  EXPECT_TRUE(tasks_.cancel(periodic));
  scheduler.stop();
  EXPECT_EQ(manager().getSint32("a"), manager().getSint32("z"));
  EXPECT_EQ(static_cast<std::uint64_t>(manager().getSint32("z")), scheduler.getFigures().runs);
}

}  // namespace
