// The command that waits for what other programs change.
#include <gmock/gmock.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/killed_process.h"
#include "support/run_program.h"

namespace tarns {
namespace {

using namespace std::chrono_literals;

using testing::HasSubstr;

constexpr auto kLong = 60s;

class WatchCommandTest : public testing::Test {
 protected:
  WatchCommandTest() {
    EXPECT_EQ(run({"init"}).status, 0);
    EXPECT_EQ(run({"set", "w~start", "-3"}).status, 0);
  }

  std::vector<std::string> command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND, "-d", directory_.file("db"), "--wait",
                                 "30"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
  program_result run(const std::vector<std::string>& arguments) const {
    return run_program(command(arguments));
  }

  // Returns when it tells of changes: what it tells of from now on has been made from now on.
  void awaitFirstLook(killed_process& watch) const {
    std::string line;
    for (int i = 0; i < 300 && line.empty(); ++i) {
      EXPECT_EQ(run({"set", "w~start", std::to_string(i)}).status, 0);
      line = watch.next_line(200ms);
    }
    ASSERT_THAT(line, HasSubstr("w~start"));
    EXPECT_EQ(run({"set", "w~start", "-1"}).status, 0);
    while (!line.empty() && line.find("-1") == std::string::npos) line = watch.next_line(kLong);
  }

  scratch_directory directory_;
};

TEST_F(WatchCommandTest, TellsWhatOtherProgramsChange) {
  killed_process watch(command({"watch", "w"}));
  awaitFirstLook(watch);
  struct Step {
    std::vector<std::string> change;
    std::vector<std::string> told;
  };
  const Step steps[] = {
      {{"set", "beside", "1"}, {}},
      {{"set", "w~a~b", "5"}, {"added w~a", "added w~a~b = 5"}},
      {{"set", "w~a~b", "6"}, {"changed w~a~b = 6"}},
      {{"set", "w~text", "\x1b[2J\x07"}, {"added w~text = \\u{1b}[2J\\u{7}"}},
      {{"mv", "w~a", "w~c"}, {"moved w~c from w~a"}},
      {{"rm", "w~c"}, {"removed w~c"}},
      {{"rm", "w"}, {"removed w"}},
  };
  for (const Step& step : steps) {
    EXPECT_EQ(run(step.change).status, 0);
    for (const std::string& expected : step.told) EXPECT_EQ(watch.next_line(kLong), expected);
  }
}

TEST_F(WatchCommandTest, WritesAnObjectForEachChange) {
  killed_process watch(command({"watch", "w", "--json"}));
  awaitFirstLook(watch);
  EXPECT_EQ(run({"set", "w~e", "\x1b[2J"}).status, 0);
  EXPECT_EQ(
      watch.next_line(kLong),
      R"({"kind": "added", "path": "w~e", "class": "TarnStringValue", "value": "\u001b[2J"})");
  EXPECT_EQ(run({"mv", "w~e", "w~f"}).status, 0);
  EXPECT_EQ(
      watch.next_line(kLong),
      R"({"kind": "moved", "path": "w~f", "from": "w~e", "class": "TarnStringValue", "value": "\u001b[2J"})");
}

// What a path holds is never taken for a part of the line.
TEST_F(WatchCommandTest, RunsALineWithTheChangeInItsEnvironment) {
  const std::string told = directory_.file("told"), trap = directory_.file("trap");
  const std::string line = "printf '%s|%s\\n' \"$TARNS_KIND\" \"$TARNS_PATH\" >> '" + told + "'";
  killed_process watch(command({"watch", "w", "--exec", line}));
  awaitFirstLook(watch);
  const std::string name = "$(touch '" + trap + "')`touch '" + trap + "'`\"; touch " + trap;
  EXPECT_EQ(run({"set", "w~" + name, "1"}).status, 0);
  EXPECT_THAT(watch.next_line(kLong), HasSubstr("added"));
  EXPECT_EQ(run({"set", "w~start", "-2"}).status, 0);  // told when the line has been run
  EXPECT_THAT(watch.next_line(kLong), HasSubstr("-2"));
  std::ifstream file(told, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  EXPECT_THAT(text, HasSubstr("added|w~" + name + "\n"));
  EXPECT_FALSE(std::filesystem::exists(trap));
}

TEST_F(WatchCommandTest, WaitsForAProgramThatKeepsTheDatabase) {
  killed_process watch(command({"watch", "w"}));
  awaitFirstLook(watch);
  {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect((directory_.file("db") + "/tarns.conf").c_str(), 60s);
    const TarnAttachment attachment(manager);
    for (int i = 0; i < 10; ++i) manager.set("w~start", i);
    manager.set("w~end", 1);
    EXPECT_EQ(watch.next_line(300ms), "");  // it cannot see them yet
  }
  EXPECT_EQ(watch.next_line(kLong), "added w~end = 1");
  EXPECT_EQ(watch.next_line(kLong), "changed w~start = 9");
}

TEST_F(WatchCommandTest, Ends) {
  EXPECT_EQ(run({"watch", "--timeout", "0.3"}).status, 1);
  EXPECT_EQ(run({"watch", "--count", "0"}).status, 2);
  killed_process watch(command({"watch", "w", "--count", "1", "--timeout", "100"}));
  std::string line;
  for (int i = 0; line.empty() && i < 300; ++i) {
    EXPECT_EQ(run({"set", "w~start", std::to_string(i)}).status, 0);
    line = watch.next_line(200ms);
  }
  EXPECT_EQ(watch.wait(), 0);
  const program_result absent =
      run_program({PROGRAM_TARNS_COMMAND, "-d", directory_.file("absent"), "watch"});
  EXPECT_EQ(absent.status, 3);
  EXPECT_THAT(absent.err, HasSubstr("no database"));
}

}  // namespace
}  // namespace tarns
