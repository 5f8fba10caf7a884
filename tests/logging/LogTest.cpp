#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/logging/Log.h>
#include <tarns/util/XString.h>

#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/captured_log.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

TEST(LogTest, WritesOneLinePerObject) {
  const captured_log log;
  {
    Log line(Log::Warning);
    line << "object \"" << XString("a~b") << "\" has " << 3U << ' ' << std::string("names");
    EXPECT_THAT(log.lines(), ElementsAre());
  }
  Log() << "second";
  Log(Log::Error) << "third";
  EXPECT_THAT(log.lines(), ElementsAre("object \"a~b\" has 3 names", "second", "third"));
  EXPECT_THAT(log.levels(), ElementsAre(Log::Warning, Log::Info, Log::Error));
}

TEST(LogTest, LeavesNoControlBytesInALine) {
  const captured_log log;
  Log() << "a\nb\r\x1B[2J\x7F\tc" << std::string_view("\0", 1) << "\xC3\xA4";
  EXPECT_THAT(log.lines(), ElementsAre("a\\x0Ab\\x0D\\x1B[2J\\x7F\tc\\x00\xC3\xA4"));
}

TEST(LogTest, BreaksLinesWhereItIsToldToOnly) {
  const captured_log log;
  Log() << "a\n" << Log::Break << Log::Break << "\nb" << '\n';
  EXPECT_THAT(log.lines(), ElementsAre("a\\x0A\n\n\\x0Ab\\x0A"));
}

TEST(LogTest, DropsWhatIsBelowTheLevel) {
  const captured_log log;
  Log(Log::Debug) << "no";
  Log::SetLevel(Log::Debug);
  Log(Log::Debug) << "yes";
  Log::SetLevel(Log::Error);
  Log(Log::Warning) << "no";
  Log(Log::Error) << "yes";
  Log::SetLevel(Log::Info);
  EXPECT_THAT(log.lines(), ElementsAre("yes", "yes"));
}

TEST(LogTest, SurvivesASinkThatThrowsOrLogs) {
  int calls = 0;
  const Log::Sink previous = Log::Redirect([&calls](Log::Level, std::string_view line) {
    ++calls;
    if (line == "outer") Log() << "inner";
    throw std::runtime_error("refused");
  });
  Log() << "outer";
  Log::Redirect(previous);
  EXPECT_EQ(calls, 2);
}

TEST(LogTest, GoesToStandardErrorInWholeLines) {
  constexpr unsigned kThreads = 4;
  constexpr unsigned kLines = 200;
  testing::internal::CaptureStderr();
  {
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([thread] {
        for (unsigned line = 0; line < kLines; ++line) {
          Log(Log::Warning) << "thread " << thread << " line " << line << '.';
        }
      });
    }
  }
  std::istringstream written(testing::internal::GetCapturedStderr());
  std::set<std::string> ends;
  for (std::string line; std::getline(written, line);) {
    ASSERT_THAT(line,
                MatchesRegex("\\[.*\\] \\[tarns\\] \\[warning\\] thread [0-9] line [0-9]+\\."));
    ends.insert(line.substr(line.find("thread")));
  }
  EXPECT_EQ(ends.size(), kThreads * kLines);
}

}  // namespace
}  // namespace tarns
