#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnValue.h>
#include <tarns/services/TarnTaskDelegate.h>
#include <tarns/services/TaskScheduler.h>
#include <tarns/session/TarnTransaction.h>

#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "services/CountingDelegate.h"
#include "services/scheduler_fixture.h"
#include "support/captured_log.h"
#include "support/replaced_rows.h"
#include "support/throws_tarn.h"

namespace {

using namespace tarns;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

TARN_REGISTER_TASK_DELEGATE(CountingDelegate);

TARN_REGISTER_TASK_DELEGATE(SaidDelegate);

class SchedulerTest : public scheduler_test {
 protected:
  // How often each run was done.
  std::multiset<unsigned> counts() {
    std::multiset<unsigned> numbers;
    if (manager().getObject("done").is_null()) return numbers;
    for (const auto& [name, child] : manager().children("done")) {
      numbers.insert(child->getUint32(""));
    }
    return numbers;
  }
};

TEST_F(SchedulerTest, RunsWhatIsDueInTheOrderOfTimesAndWakesForWhatIsScheduledLater) {
  std::vector<std::uint64_t> order;  // of the worker, until it has ended
  std::vector<std::string> arguments;
  SaidDelegate::what = [&](TarnTaskRun& run) {
    order.push_back(run.getTask()->getNumber());
    arguments.emplace_back(run.getArguments()->getXString("").view());
    EXPECT_LE(run.getPlanned(), TarnTasks::Now());
  };
  const auto plan = [&](std::chrono::milliseconds from, const char* text) {
    const TarnRef value = TarnValue::CreateValue(TarnData(text));
    return tasks_.schedule({"SaidDelegate", TarnTasks::Now() + from, {}, value});
  };
  const std::uint64_t later = plan(-1s, "later"), first = plan(-2s, "first"), future = plan(1h, "");
  TaskScheduler scheduler(config().c_str());
  WaitUntil([&] { return tasks_.getNumTasks() == 1; });
  const std::uint64_t soon = plan(20ms, "soon");
  WaitUntil([&] { return tasks_.getNumTasks() == 1; });
  scheduler.stop();
  EXPECT_THAT(order, ElementsAre(first, later, soon));
  EXPECT_THAT(arguments, ElementsAre("first", "later", "soon"));
  EXPECT_EQ(scheduler.getFigures().runs, 3u);
  EXPECT_EQ(tasks_.list().at(0).number, future);
}

TEST_F(SchedulerTest, EachRunIsDoneOnceHoweverManySchedulersThereAre) {
  for (int i = 0; i < 200; ++i) tasks_.schedule({.delegate = "CountingDelegate"});
  {
    TaskScheduler first(config().c_str()), second(config().c_str()), third(config().c_str());
    // Meanwhile others schedule and cancel.
    for (int i = 0; i < 50; ++i) {
      tasks_.schedule({.delegate = "CountingDelegate"});
      tasks_.cancel(tasks_.schedule({"CountingDelegate", TarnTasks::Now() + 1h, {}, {}}));
    }
    waitUntilNoneAreLeft();
    first.stop();
    second.stop();
    third.stop();
    EXPECT_EQ(first.getFigures().runs + second.getFigures().runs + third.getFigures().runs, 250u);
    EXPECT_EQ(first.getFigures().failures, 0u);
  }
  const auto done = counts();
  EXPECT_EQ(done.size(), 250u);
  EXPECT_EQ(done.count(1), 250u);
  EXPECT_EQ(manager().getNumChildren("scheduler~Due"), 0u);
}

TEST_F(SchedulerTest, ATaskThatFailsIsTriedAgainThenSuspendedThenResumed) {
  std::atomic<bool> fails = true;
  std::set<std::string> keys;
  SaidDelegate::what = [&](TarnTaskRun& run) {
    keys.insert(run.getKey());
    run.getManager().set("half", 1);
    if (fails) throw std::runtime_error("the printer is on fire");
  };
  const captured_log log;
  const std::uint64_t number = tasks_.schedule({.delegate = "SaidDelegate"});
  TaskScheduler scheduler(config().c_str(), Quick());
  WaitUntil([&] { return scheduler.getFigures().suspended == 1; });
  const TarnTasks::Info info = tasks_.getInfo(number).value();
  EXPECT_EQ(info.state, TarnTask::Suspended);
  EXPECT_EQ(info.errors, 3u);
  EXPECT_EQ(info.lastError, "the printer is on fire");
  EXPECT_FALSE(manager().valueAt("half"));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("is suspended: the printer is on fire")));
  EXPECT_EQ(manager().getChildName("scheduler~Suspended", 0), "00000000000000000001");

  fails = false;
  EXPECT_TRUE(tasks_.resume(number));
  waitUntilNoneAreLeft();
  EXPECT_FALSE(tasks_.resume(number));
  scheduler.stop();
  EXPECT_EQ(keys.size(), 1u);  // one run, however often it was tried
  EXPECT_EQ(manager().getSint32("half"), 1);
}

TEST_F(SchedulerTest, APeriodicTaskLeavesOutWhatHasPassed) {
  std::vector<std::string> keys;
  SaidDelegate::what = [&](TarnTaskRun& run) {
    keys.push_back(run.getKey());
    if (keys.size() == 3) {
      EXPECT_TRUE(TarnTasks(run.getManager()).cancel(run.getTask()->getNumber()));
    }
  };
  // The planned times are whole multiples of the period from the first.
  const auto start = TarnTasks::Now() - 90min;
  const std::uint64_t number = tasks_.schedule({"SaidDelegate", start, 1h, {}});
  TaskScheduler scheduler(config().c_str());
  WaitUntil([&] { return tasks_.getInfo(number)->runs == 1; });
  EXPECT_EQ(tasks_.getInfo(number)->due, start + 2h);
  scheduler.stop();

  const std::uint64_t quickOne = tasks_.schedule({"SaidDelegate", TarnTasks::Now(), 2ms, {}});
  TaskScheduler another(config().c_str());
  WaitUntil([&] { return !tasks_.getInfo(quickOne); });
  another.stop();
  EXPECT_EQ(std::set(keys.begin(), keys.end()).size(), 3u);
}

TEST_F(SchedulerTest, WhatThisProgramCannotDoIsLeftToOthers) {
  const captured_log log;
  const std::uint64_t number = tasks_.schedule({.delegate = "Stranger"});
  tasks_.schedule({.delegate = "CountingDelegate"});
  TaskScheduler scheduler(config().c_str());
  WaitUntil([&] { return tasks_.getNumTasks() == 1; });
  EXPECT_EQ(tasks_.getInfo(number)->errors, 0u);
  EXPECT_THAT(log.lines(), Contains(HasSubstr("\"Stranger\" are left alone")));
  const TarnTaskDelegateRegistration known("Stranger", [] {
    return std::unique_ptr<TarnTaskDelegate>(std::make_unique<CountingDelegate>());
  });
  tasks_.schedule({.delegate = "CountingDelegate"});  // wakes the scheduler
  waitUntilNoneAreLeft();
  scheduler.stop();
  EXPECT_THAT(counts(), ElementsAre(1, 1, 1));
}

TEST_F(SchedulerTest, StopLetsTheRunEndAndWhatGivesUpThenHasNotFailed) {
  std::atomic<int> begun = 0;
  SaidDelegate::what = [&](TarnTaskRun& run) {
    ++begun;
    while (!run.shouldStop()) std::this_thread::sleep_for(1ms);
    if (begun == 1) throw std::runtime_error("stopped");
  };
  const std::uint64_t number = tasks_.schedule({.delegate = "SaidDelegate"});
  for (int i = 1; i <= 2; ++i) {
    TaskScheduler scheduler(config().c_str());
    WaitUntil([&] { return begun == i; });
    EXPECT_EQ(tasks_.getNumTasks(), 1u);
    scheduler.stop();
    EXPECT_EQ(scheduler.getFigures().failures, 0u);
  }
  EXPECT_FALSE(tasks_.getInfo(number));
  EXPECT_EQ(begun, 2);
}

TEST_F(SchedulerTest, SchedulingIsPartOfTheTransaction) {
  {
    TarnTransaction transaction(manager());
    const std::uint64_t number = tasks_.schedule({.delegate = "CountingDelegate"});
    EXPECT_TRUE(tasks_.cancel(number));
    EXPECT_FALSE(tasks_.cancel(number));
    tasks_.schedule({.delegate = "CountingDelegate"});
    transaction.rollback();
  }
  EXPECT_EQ(tasks_.getNumTasks(), 0u);
  TaskScheduler scheduler(config().c_str());
  manager().transaction([&] {
    tasks_.schedule({.delegate = "CountingDelegate"});
    tasks_.schedule({.delegate = "CountingDelegate"});
  });
  waitUntilNoneAreLeft();
  EXPECT_EQ(counts().size(), 2u);
}

TEST_F(SchedulerTest, WhatIsNoPlanIsRefusedAndWhatIsNoTaskDoesNoHarm) {
  const TarnTasks::Plan bad[] = {
      {"", TarnTasks::Now(), {}, {}},
      {"x", TarnTasks::Time(-1us), {}, {}},
      {"x", TarnTasks::kLatest + 1us, {}, {}},
      {"x", TarnTasks::Now(), -1us, {}},
      {"x", TarnTasks::Now(), std::chrono::hours(24 * 36'526), {}},
  };
  for (const TarnTasks::Plan& plan : bad) {
    EXPECT_THAT([&] { tasks_.schedule(plan); }, ThrowsTarn(0, HasSubstr("cannot be scheduled")));
  }
  TaskScheduler::Options none;
  none.mostErrors = 0;
  EXPECT_THAT([&] { TaskScheduler(config().c_str(), none); }, ThrowsTarn(0, HasSubstr("errors")));
  EXPECT_THAT(tasks_.list(), testing::IsEmpty());
  EXPECT_FALSE(tasks_.cancel(7));

  // Others have put things there, and have taken a task away.
  manager().set("scheduler~Due~x", 1);
  manager().set("scheduler~Due~00000000000000000001-00000000000000000001", 1);
  manager().set("scheduler~Tasks~y", 1);
  tasks_.schedule({.delegate = "CountingDelegate"});
  ASSERT_TRUE(manager().deleteBranch("scheduler~Tasks~00000000000000000001"));
  tasks_.schedule({.delegate = "CountingDelegate"});
  TaskScheduler scheduler(config().c_str());
  WaitUntil([&] { return scheduler.getFigures().runs == 1; });
  scheduler.stop();
  EXPECT_THAT(counts(), ElementsAre(1));
  EXPECT_EQ(manager().getNumChildren("scheduler~Due"), 2u);
}

TEST_F(SchedulerTest, GoesOnWhenItsBranchIsMadeAnew) {
  TaskScheduler scheduler(config().c_str());
  tasks_.schedule({.delegate = "CountingDelegate"});
  waitUntilNoneAreLeft();
  manager().deleteBranch("scheduler");
  tasks_.schedule({.delegate = "CountingDelegate"});
  WaitUntil([&] { return tasks_.getNumTasks() == 0; });
  manager().transaction([&] {  // both in one
    manager().deleteBranch("scheduler");
    tasks_.schedule({.delegate = "CountingDelegate"});
  });
  WaitUntil([&] { return tasks_.getNumTasks() == 0; });
  scheduler.stop();
  EXPECT_EQ(scheduler.getFigures().runs, 3u);
}

TEST_F(SchedulerTest, ADamagedTaskHoldsUpNoOther) {
  std::vector<std::uint64_t> nodes;
  for (const auto early : {3s, 2s, 1s}) {
    const auto number = tasks_.schedule({"CountingDelegate", TarnTasks::Now() - early, {}, {}});
    nodes.push_back(TarnObject::GetObjectID(tasks_.getTask(number)));
  }
  close();
  goods::rewrite_object(directory().file("data0/store.db"), goods::number_of(nodes[0]),
                        [](std::vector<std::byte>& state) { state.resize(1); });
  open();
  const captured_log log;
  TaskScheduler scheduler(config().c_str(), Quick());
  WaitUntil([&] { return scheduler.getFigures().runs == 2; });
  scheduler.stop();
  EXPECT_THAT(log.lines(), Contains(HasSubstr("could not be run and waits: ")));
  EXPECT_THAT(counts(), ElementsAre(1, 1));
  EXPECT_EQ(manager().getNumChildren("scheduler~Due"), 1u);  // until it is restored
}

TEST_F(SchedulerTest, ALockThatIsNotHadIsNoFailureOfTheTask) {
  const captured_log log;
  SaidDelegate::what = [](TarnTaskRun& run) { run.getManager().set("shared", 2); };
  manager().set("shared", 1);
  const std::uint64_t number = tasks_.schedule({.delegate = "SaidDelegate"});
  TaskScheduler::Options options = Quick();
  options.lockTimeout = 1ms;
  options.mostErrors = 1;
  TarnTransaction transaction(manager());
  manager().set("shared", 3);
  TaskScheduler scheduler(config().c_str(), options);
  WaitUntil([&] { return !log.lines().empty(); });
  EXPECT_THAT(log.lines(), Contains(HasSubstr("could not be run and waits: ")));
  // The reason is kept where tasks are listed.
  WaitUntil([&] {
    const auto info =
        manager().db().session().outside_transaction([&] { return tasks_.getInfo(number); });
    EXPECT_EQ(info->errors, 0u);
    return info->lastError.find("\"shared\" could not be locked") != std::string::npos;
  });
  transaction.commit();
  waitUntilNoneAreLeft();
  std::thread other([&] { scheduler.stop(); });
  scheduler.stop();
  other.join();
  EXPECT_EQ(scheduler.getFigures().failures, 0u);
  EXPECT_FALSE(tasks_.getInfo(number));
  EXPECT_EQ(manager().getSint32("shared"), 2);
}

TEST_F(SchedulerTest, ManyThreadsScheduleWithoutLosingANumber) {
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      const TarnAttachment attachment(manager());
      for (int n = 0; n < kEach; ++n) {
        tasks_.schedule({"CountingDelegate", TarnTasks::Now() + 1h, {}, {}});
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::uint64_t expected = 0;
  for (const TarnTasks::Info& info : tasks_.list()) EXPECT_EQ(info.number, ++expected);
  EXPECT_EQ(expected, kThreads * kEach);
}

}  // namespace
