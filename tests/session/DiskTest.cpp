// What is left when the disk fails.
#include <gmock/gmock.h>

#include <cstdlib>
#include <random>

#include "support/faulty_vfs.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

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
