// What is left when a program is killed, and when the disk fails.
#include <gmock/gmock.h>

#include <cstdlib>
#include <random>

#include "support/faulty_vfs.h"
#include "support/killed_process.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

class CrashTest : public session_test {
 protected:
  // Whether what the writer did for a number is there as a whole (1), not at all (0) or in part
  // (-1).
  int stateOf(int number) {
    const std::string name = std::to_string(number);
    const bool half = manager().getSint32("log~" + name + "~half", 0) == number;
    const bool other = manager().getSint32("log~" + name + "~other half", 0) == -number;
    const TarnRef branch = manager().getObject("tree~" + name);
    const bool leaf = manager().getSint32("tree~" + name + "~leaf", 0) == number;
    if (half != other || (leaf && !half) || (!branch.is_null() && !leaf)) return -1;
    return leaf ? 1 : 0;
  }
};

TEST_F(CrashTest, NothingAcknowledgedIsLostAndNothingIsHalfWritten) {
  constexpr int kCycles = 500;
  constexpr std::chrono::seconds kLimit(20);
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  int checked = 0;
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    SCOPED_TRACE(testing::Message() << "cycle " << cycle);
    close();
    int acknowledged = checked;
    {
      killed_process writer({PROGRAM_SESSION_WRITER, configuration()});
      // Every fourth is killed while it opens the database.
      if (cycle % 4 != 0) {
        const std::string first = writer.next_line(kLimit);
        ASSERT_FALSE(first.empty());
        acknowledged = std::stoi(first);
      }
      for (const std::string& line :
           writer.kill_after(std::chrono::microseconds(random() % 8000))) {
        acknowledged = std::stoi(line);
      }
    }
    open();
    const int last = manager().getSint32("last", 0);
    ASSERT_GE(last, acknowledged);
    for (; checked < last; ++checked) {
      const int number = checked + 1;
      ASSERT_NE(stateOf(number), -1) << number;
      // Of the last number the second call may be missing.
      if (number <= acknowledged) {
        ASSERT_EQ(stateOf(number), 1) << number;
      }
    }
    ASSERT_EQ(stateOf(last + 1), 0);
    if (cycle % 50 == 49) {
      goods::check_options options;
      options.full = true;
      options.found = [](const goods::check_finding& finding) {
        ADD_FAILURE() << finding.path << " (" << finding.id << "): " << finding.text;
      };
      EXPECT_GT(manager().check(options).objects, 0U);
    }
  }
  EXPECT_GT(checked, kCycles / 2);
}

// Takes the disk over before the database is opened.
class DiskTest : public testing::Test {
 protected:
  faulty_vfs disk_;
};

TEST_F(DiskTest, AFullDiskIsAnErrorAndLeavesWhatWasCommitted) {
  const scratch_directory directory;
  const std::string configuration = directory.file("tarns.conf");
  std::ofstream(configuration) << "1\n0: file:./data\n";
  const std::string text(50'000, 'x');
  TarnManager::Initialize();
  int kept = 0;
  {
    TarnManager manager;
    manager.connect(configuration.c_str());
    const TarnAttachment attachment(manager);
    manager.set("committed", 1);
    disk_.arm({faulty_vfs::bit(faulty_vfs::operation::write), 20, faulty_vfs::fault::full, true});
    unsigned long failure = 0;
    for (; kept < 1000 && failure == 0; ++kept) {
      try {
        manager.set("t~" + std::to_string(kept), text);
      } catch (const TarnException& error) {
        failure = error.getErrorID();
        --kept;
      }
    }
    EXPECT_THAT(failure, testing::AnyOf(102, 103));
    EXPECT_EQ(manager.getSint32("committed", 0), 1) << "reading goes on";
    disk_.disarm();
    // The session works again, or says that it must be reopened.
    try {
      manager.set("after", 2);
      EXPECT_EQ(manager.getSint32("after", 0), 2);
    } catch (const TarnException& error) {
      EXPECT_THAT(error.getError(), testing::HasSubstr("open"));
    }
  }
  TarnManager manager;
  manager.connect(configuration.c_str());
  const TarnAttachment attachment(manager);
  EXPECT_EQ(manager.getSint32("committed", 0), 1);
  for (int i = 0; i < kept; ++i) {
    EXPECT_EQ(manager.getXString("t~" + std::to_string(i), "").getLength(), text.size()) << i;
  }
}

// One sync after the other fails, then the process ends as if killed: what was acknowledged is
// there, what was refused is not, and only where the outcome was said to be unknown it may be.
TEST_F(DiskTest, AFailedSyncIsToldAndWhatWasRefusedDoesNotComeBack) {
  constexpr int kCalls = 6;
  TarnManager::Initialize();
  for (const bool forGood : {false, true}) {
    for (std::uint64_t after = 0; after < kCalls; ++after) {
      SCOPED_TRACE(testing::Message() << "after " << after << (forGood ? " for good" : " once"));
      const scratch_directory directory;
      const std::string configuration = directory.file("tarns.conf");
      std::ofstream(configuration) << "1\n0: file:./data\n";
      const std::string copy = directory.file("copy");
      std::filesystem::create_directory(copy);
      std::map<int, unsigned long> outcomes;  // 0: acknowledged
      {
        TarnManager manager;
        manager.connect(configuration.c_str());
        const TarnAttachment attachment(manager);
        manager.set("committed", 1);
        disk_.arm({faulty_vfs::bit(faulty_vfs::operation::sync), after,
                   faulty_vfs::fault::lost_sync, forGood});
        for (int i = 0; i < kCalls; ++i) {
          try {
            manager.set("t~" + std::to_string(i), i);
            outcomes[i] = 0;
          } catch (const TarnException& error) {
            outcomes[i] = error.getErrorID();
            EXPECT_THAT(outcomes[i], testing::AnyOf(102, 106)) << error.getError();
          }
        }
        EXPECT_EQ(manager.getSint32("committed", 0), 1) << "reading goes on";
        std::filesystem::copy(directory.file("data"), copy + "/data",
                              std::filesystem::copy_options::recursive);
        disk_.disarm();
      }
      std::ofstream(copy + "/tarns.conf") << "1\n0: file:./data\n";
      TarnManager manager;
      manager.connect((copy + "/tarns.conf").c_str());
      const TarnAttachment attachment(manager);
      EXPECT_EQ(manager.getSint32("committed", 0), 1);
      for (const auto& [i, outcome] : outcomes) {
        const bool isThere = manager.valueAt("t~" + std::to_string(i)).has_value();
        if (outcome == 106) continue;
        EXPECT_EQ(isThere, outcome == 0) << i << ": " << outcome;
      }
    }
  }
}

}  // namespace
}  // namespace tarns
