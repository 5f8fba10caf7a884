// What has been run when programs with two schedulers each are killed.
#include <gtest/gtest.h>
#include <tarns/services/TarnTasks.h>

#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>

#include "support/killed_process.h"
#include "support/session_fixture.h"

namespace {

using namespace tarns;

constexpr int kTasks = 1000;
constexpr int kKills = 50;
constexpr int kWorkers = 2;  // each may be in one run when it is killed

class SchedulerKillTest : public session_test {
 protected:
  // Kills the program again and again, then lets it end. How often each run was begun.
  std::map<std::string, int> runWithKills(int kills) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::minstd_rand random(seed);
    close();
    const std::string file = directory().file("runs");
    const std::vector<std::string> command{PROGRAM_TASK_PROGRAM, configuration(), file};
    for (int i = 0; i < kills; ++i) {
      killed_process program(command);
      EXPECT_EQ(program.next_line(std::chrono::seconds(60)), "open");
      program.kill_after(std::chrono::microseconds(random() % 60'000));
    }
    killed_process last(command);
    EXPECT_EQ(last.wait(), 0);
    open();
    std::map<std::string, int> begun;
    std::ifstream lines(file);
    for (std::string key; std::getline(lines, key);) ++begun[key];
    return begun;
  }
};

TEST_F(SchedulerKillTest, EachRunIsCommittedOnceAndRepeatedOnlyWhereItWasKilled) {
  for (int i = 0; i < kTasks; ++i) TarnTasks(manager()).schedule({.delegate = "CountRun"});
  std::set<std::string> keys;
  for (const auto& info : TarnTasks(manager()).list()) {
    const std::string key = TarnTasks(manager()).getTask(info.number)->getRunKey();
    manager().set("done~" + key, 0u);  // so that runs change nothing that they share
    keys.insert(key);
  }
  ASSERT_EQ(keys.size(), kTasks);
  const std::map<std::string, int> begun = runWithKills(kKills);
  for (const std::string& key : keys) EXPECT_EQ(manager().getUint32("done~" + key), 1u) << key;
  int repeated = 0;
  for (const auto& [key, times] : begun) {
    EXPECT_TRUE(keys.contains(key)) << key;
    repeated += times - 1;
  }
  EXPECT_EQ(begun.size(), keys.size());
  EXPECT_LE(repeated, kKills * kWorkers);
}

// No run of a periodic task is lost, and no error of a failing one forgotten or counted twice.
TEST_F(SchedulerKillTest, PeriodicAndFailingTasksCountAsIfNobodyHadKilledThem) {
  constexpr unsigned kEach = 20, kFewKills = 15, kErrors = 5;
  TarnTasks tasks(manager());
  for (unsigned i = 0; i < kEach; ++i) {
    const auto number =
        tasks.schedule({"CountTenRuns", TarnTasks::Now(), std::chrono::milliseconds(2), {}});
    manager().getNoFail("done~" + std::to_string(number));
    tasks.schedule({.delegate = "FailRun"});
  }
  std::map<std::string, int> begun = runWithKills(kFewKills);
  int repeated = 0;
  for (unsigned i = 0; i < kEach; ++i) {
    const std::string counts = "done~" + std::to_string(2 * i + 1);
    EXPECT_EQ(manager().getNumChildren(counts), 10u);
    for (const auto& [key, count] : manager().children(counts)) {
      EXPECT_EQ(count->getUint32(""), 1u) << key;
      repeated += begun[key] - 1;
    }
  }
  const auto left = TarnTasks(manager()).list();
  EXPECT_EQ(left.size(), kEach);
  for (const TarnTasks::Info& info : left) {
    EXPECT_EQ(info.state, TarnTask::Suspended);
    EXPECT_EQ(info.errors, kErrors);
    EXPECT_EQ(info.lastError, "as it was told");
    const std::string key = TarnTasks(manager()).getTask(info.number)->getRunKey();
    EXPECT_TRUE(manager().getObject("done~" + key).is_null());
    EXPECT_GE(begun[key], static_cast<int>(kErrors));
    repeated += begun[key] - static_cast<int>(kErrors);
  }
  EXPECT_LE(repeated, static_cast<int>(kFewKills) * kWorkers);
  EXPECT_EQ(manager().getNumChildren("scheduler~Due"), 0u);
  EXPECT_EQ(manager().getNumChildren("scheduler~Suspended"), kEach);
}

}  // namespace
