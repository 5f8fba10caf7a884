// What works beside the application on a store that takes no commits any more.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/services/TarnTaskDelegate.h>
#include <tarns/services/TarnWatcher.h>
#include <tarns/services/TaskScheduler.h>
#include <tarns/session/TarnManagerPool.h>
#include <tarns/session/TarnMeister.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/captured_log.h"
#include "support/faulty_vfs.h"
#include "support/scratch_directory.h"
#include "support/throws_tarn.h"

namespace {

using namespace tarns;
using namespace std::chrono_literals;
using testing::AnyOf;
using testing::HasSubstr;

std::function<void(TarnTaskRun&)> whatToDo;

class DiskDelegate : public TarnTaskDelegate {
  void run(TarnTaskRun& run) override { whatToDo(run); }
};
TARN_REGISTER_TASK_DELEGATE(DiskDelegate);

class FailedStoreTest : public testing::Test {
 protected:
  FailedStoreTest() {
    std::ofstream(config_) << "1\n0: file:./data\n";
    TarnManager::Initialize();
  }
  ~FailedStoreTest() override { TarnWatcher::Destroy(); }

  void failCommits(std::uint64_t after) {
    disk_.arm(
        {faulty_vfs::bit(faulty_vfs::operation::sync), after, faulty_vfs::fault::lost_sync, true});
  }
  template <class Test>
  static void WaitUntil(Test test) {
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (!test()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "waited in vain";
      std::this_thread::sleep_for(1ms);
    }
  }

  static unsigned long NumTasks(TarnManagerPool& pool) {
    TarnMeister session(pool);
    return TarnTasks(session).getNumTasks();
  }

  faulty_vfs disk_;
  const scratch_directory directory_;
  const std::string config_ = directory_.file("tarns.conf");
};

TEST_F(FailedStoreTest, NothingIsRunOnItAndAllGoesOnWhenItIsOpenedAgain) {
  const captured_log log;
  TarnManagerPool pool(config_.c_str(), {.largest = 1});
  std::atomic<int> begun = 0;
  whatToDo = [&](TarnTaskRun& run) {
    if (begun++ == 0) failCommits(0);
    run.getManager().set("ran~" + run.getKey(), 1);
  };
  {
    TarnMeister session(pool);
    session.set("watched", 1);
    session.set("other", 1);
    for (int i = 0; i < 3; ++i) TarnTasks(session).schedule({.delegate = "DiskDelegate"});
  }
  TarnWatcher::Initialize(config_.c_str());
  TarnWatcher& watcher = *TarnWatcher::GetWatcher();
  const std::uint64_t id = TarnMeister(pool).getObjectID("watched");
  const std::uint64_t other = TarnMeister(pool).getObjectID("other");
  std::atomic<int> calls = 0;
  const TarnWatch watch = watcher.watch(id, [&] { ++calls; });

  TaskScheduler scheduler(config_.c_str());
  // Both workers let go of it, while the pool still has it.
  WaitUntil([&] {
    const auto lines = log.lines();
    return std::ranges::count_if(lines, [](const std::string& line) {
             return line.find("has closed its session") != std::string::npos;
           }) == 2;
  });
  EXPECT_EQ(begun, 1);
  EXPECT_EQ(calls, 0);
  EXPECT_THAT([&] { const TarnWatch none = watcher.watch(other, [] {}); },
              ThrowsTarn(106, HasSubstr("opened again")));
  disk_.disarm();
  TarnMeister(pool).set("x", 1);  // has it opened again
  WaitUntil([&] { return NumTasks(pool) == 0; });
  WaitUntil([&] { return calls == 1; });  // it may have changed
  scheduler.stop();
  EXPECT_EQ(begun, 4);  // the first one once more
  EXPECT_EQ(scheduler.getFigures().runs, 3u);
  EXPECT_EQ(scheduler.getFigures().failures, 0u);
  EXPECT_EQ(TarnMeister(pool).getNumChildren("ran"), 3u);

  const TarnWatch again = watcher.watch(id, [&] { ++calls; });
  TarnMeister(pool).set("watched", 2);
  WaitUntil([&] { return calls == 2; });
}

TEST_F(FailedStoreTest, APoolRenewsItselfBesideASchedulerAndAWatcherUnderLoad) {
  constexpr int kEnough = 50;
  TarnManagerPool pool(config_.c_str(), {.largest = 2, .wait = 60s});
  whatToDo = [](TarnTaskRun& run) { run.getManager().set("ran", 1); };
  TarnMeister(pool).set("t", 0);
  const std::uint64_t id = TarnMeister(pool).getObjectID("t");
  TarnWatcher::Initialize(config_.c_str());
  std::atomic<int> calls = 0;
  TaskScheduler scheduler(config_.c_str());
  for (int round = 0; round < 3; ++round) {
    const int callsBefore = calls;
    const TarnWatch watch = TarnWatcher::GetWatcher()->watch(id, [&] { ++calls; });
    std::atomic<int> failed{0}, committed{0};
    failCommits(20);
    const auto end = std::chrono::steady_clock::now() + 60s;
    const auto use = [&](int thread) {
      while (committed < kEnough && std::chrono::steady_clock::now() < end) {
        try {
          TarnMeister session(pool);
          session.set("n~" + std::to_string(thread), committed.load());
          if (thread == 0) TarnTasks(session).schedule({.delegate = "DiskDelegate"});
          if (failed > 0) ++committed;
        } catch (const TarnException& error) {
          // 102 where the pool finds the store failed, and cannot open it again yet.
          EXPECT_THAT(error.getErrorID(), AnyOf(102, 106)) << error.what();
          ++failed;
          disk_.disarm();
        }
      }
    };
    {
      std::vector<std::jthread> threads;
      for (int i = 0; i < 4; ++i) threads.emplace_back(use, i);
    }
    EXPECT_GT(failed, 0);
    EXPECT_GE(committed, kEnough);
    WaitUntil([&] { return calls > callsBefore; });
    WaitUntil([&] { return NumTasks(pool) == 0; });
  }
  EXPECT_EQ(scheduler.getFigures().failures, 0u);
}

}  // namespace
