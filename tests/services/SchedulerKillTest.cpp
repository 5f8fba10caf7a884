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

class SchedulerKillTest : public session_test {};

TEST_F(SchedulerKillTest, EachRunIsCommittedOnceAndRepeatedOnlyWhereItWasKilled) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  for (int i = 0; i < kTasks; ++i) TarnTasks(manager()).schedule({.delegate = "CountRun"});
  std::set<std::string> keys;
  for (const auto& info : TarnTasks(manager()).list()) {
    const std::string key = TarnTasks(manager()).getTask(info.number)->getRunKey();
    manager().set("done~" + key, 0u);  // so that runs change nothing that they share
    keys.insert(key);
  }
  ASSERT_EQ(keys.size(), kTasks);
  close();

  const std::string file = directory().file("runs");
  const std::vector<std::string> command{PROGRAM_TASK_PROGRAM, configuration(), file};
  for (int i = 0; i < kKills; ++i) {
    killed_process program(command);
    ASSERT_EQ(program.next_line(std::chrono::seconds(60)), "open");
    program.kill_after(std::chrono::microseconds(random() % 60'000));
  }
  killed_process last(command);
  ASSERT_EQ(last.wait(), 0);

  open();
  for (const std::string& key : keys) EXPECT_EQ(manager().getUint32("done~" + key), 1u) << key;
  std::map<std::string, int> begun;
  std::ifstream lines(file);
  int repeated = 0;
  for (std::string key; std::getline(lines, key);) {
    EXPECT_TRUE(keys.contains(key)) << key;
    if (++begun[key] > 1) ++repeated;
  }
  EXPECT_EQ(begun.size(), keys.size());
  EXPECT_LE(repeated, kKills * kWorkers);
}

}  // namespace
