#include "session/path_shortcuts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/session_fixture.h"

namespace tarns {
namespace {

TEST(PathShortcutsTest, FindsWhatWasRememberedForTheSameNumberOfRelinks) {
  PathShortcuts table(1 << 20);
  const auto key = [&](const std::string& path, std::uint64_t relinks) {
    return table.withRelinks(table.keyOf(path), relinks);
  };
  EXPECT_EQ(table.find(key("a", 0)), 0U);
  for (std::uint64_t i = 1; i <= 1000; ++i) table.remember(key("a~" + std::to_string(i), 3), i);
  table.remember(key("a~7", 3), 70);
  for (std::uint64_t i = 1; i <= 1000; ++i) {
    EXPECT_EQ(table.find(key("a~" + std::to_string(i), 3)), i == 7 ? 70 : i);
    EXPECT_EQ(table.find(key("a~" + std::to_string(i), 4)), 0U);
    EXPECT_EQ(table.find(key("b~" + std::to_string(i), 3)), 0U);
  }
}

TEST(PathShortcutsTest, ForgetsRatherThanGrow) {
  PathShortcuts table(1);  // one bucket
  for (std::uint64_t i = 1; i <= 100; ++i) table.remember(table.keyOf(std::to_string(i)), i);
  int known = 0;
  for (std::uint64_t i = 1; i <= 100; ++i) {
    const std::uint64_t found = table.find(table.keyOf(std::to_string(i)));
    EXPECT_TRUE(found == 0 || found == i);
    known += found == i ? 1 : 0;
  }
  EXPECT_EQ(known, 4);
}

TEST(PathShortcutsTest, ThreadsNeverFindAnotherPathsEntry) {
  PathShortcuts table(256);  // so small that everybody meets in the same places
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
      threads.emplace_back([&, seed] {
        std::minstd_rand random(seed);
        for (int i = 0; i < 50'000; ++i) {
          const std::uint64_t id = random() % 50 + 1;
          const auto key = table.withRelinks(table.keyOf(std::to_string(id)), i / 1000);
          const std::uint64_t found = table.find(key);
          if (found != 0 && found != id) ++wrong;
          table.remember(key, id);
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
}

// A path that one thread remembers is given to other values by another.
class RememberedPathsTest : public session_test {};

TEST_F(RememberedPathsTest, NeverLeadToWhatAReadMayNoLongerSee) {
  // Two values change places, by moving, again and again: 1 is at "a~x" when 2 is at "b~x".
  manager().set("a~x", 1);
  manager().set("b~x", 2);
  std::atomic<bool> isDone = false;
  std::atomic<int> wrong = 0, reads = 0;
  TarnManager& m = manager();
  {
    std::vector<std::jthread> readers;
    for (int i = 0; i < 2; ++i) {
      readers.emplace_back([&] {
        const TarnAttachment attachment(m);
        while (!isDone || reads == 0) {
          const int value = m.getSint32("a~x", 0);
          if (value != 1 && value != 2) ++wrong;
          ++reads;
        }
      });
    }
    for (int i = 0; i < 200; ++i) {
      m.transaction([&] {
        m.moveBranch("a", "c");
        m.moveBranch("b", "a");
        m.moveBranch("c", "b");
      });
      // What this thread has committed it sees at once.
      EXPECT_EQ(m.getSint32("a~x"), i % 2 == 0 ? 2 : 1);
      EXPECT_EQ(m.getSint32("b~x"), i % 2 == 0 ? 1 : 2);
    }
    isDone = true;
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace tarns
