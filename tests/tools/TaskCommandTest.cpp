// The command about scheduled tasks.
#include <gmock/gmock.h>
#include <tarns/services/TaskScheduler.h>
#include <tarns/session/TarnAttachment.h>

#include <chrono>
#include <string>

#include "support/run_program.h"

namespace tarns {
namespace {

using testing::HasSubstr;
using testing::Not;

class TaskCommandTest : public testing::Test {
 protected:
  TaskCommandTest() { EXPECT_EQ(run({"init"}).status, 0); }

  program_result run(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND, "-d", directory_.file("db")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(all);
  }

  const scratch_directory directory_;
};

TEST_F(TaskCommandTest, ListsCancelsAndResumes) {
  const auto due = TarnTask::Time(std::chrono::microseconds(1'795'000'000'250'000));
  {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect((directory_.file("db") + "/tarns.conf").c_str());
    const TarnAttachment attachment(manager);
    TarnTasks tasks(manager, "night~jobs");
    tasks.schedule({"Clean\x1b[2J", due, std::chrono::hours(24), {}});
    tasks.schedule({"Report", due, {}, {}});
  }
  const std::vector<std::string> at{"--at", "night~jobs"};
  const auto withPath = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), at.begin(), at.end());
    return run(arguments);
  };
  program_result result = withPath({"task", "ls"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("2026-11-18T11:06:40.250000Z  86400 s  0"));
  EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
  result = withPath({"task", "ls", "--format", "json"});
  EXPECT_THAT(result.out,
              HasSubstr("{\"task\": 2, \"delegate\": \"Report\", \"state\": "
                        "\"scheduled\", \"due\": \"2026-11-18T11:06:40.250000Z\", "
                        "\"period\": 0, \"runs\": 0, \"errors\": 0, \"reason\": \"\"}"));

  EXPECT_EQ(withPath({"task", "cancel", "2"}).status, 0);
  result = withPath({"task", "cancel", "2"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("There is no task 2 at \"night~jobs\"."));
  EXPECT_EQ(withPath({"task", "resume", "1"}).status, 1);  // not suspended
  EXPECT_EQ(run({"task", "ls"}).status, 1);                // nothing is there
  EXPECT_EQ(run({"task", "ls", "--format", "raw"}).status, 2);
}

}  // namespace
}  // namespace tarns
