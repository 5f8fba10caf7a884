// What is left when a program that writes, collects and backs up with several threads is killed.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <random>

#include "session/counted_numbers.h"
#include "support/damage.h"
#include "support/killed_process.h"
#include "support/scratch_directory.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

namespace fs = std::filesystem;

// A part of the cycles, so that ctest can run several parts at a time. On a disk in memory: a
// killed process loses nothing that it has written there, or anywhere else.
struct KillShard {
  const char* name;
  const char* options;  // of both storages
  scratch_directory::place place;
  int cycles;
};

void PrintTo(const KillShard& shard, std::ostream* out) { *out << shard.name; }

constexpr auto kInMemory = scratch_directory::place::in_memory;

const KillShard kShards[] = {
    {"merging_1", "?log=64K", kInMemory, 300},
    {"merging_2", "?log=64K", kInMemory, 300},
    {"merging_3", "?log=64K", kInMemory, 300},
    {"usual_1", "", kInMemory, 300},
    {"usual_2", "", kInMemory, 300},
    {"relaxed_1", "?durability=relaxed&log=64K", kInMemory, 200},
    {"relaxed_2", "?durability=relaxed", kInMemory, 200},
    {"on_disk", "?log=64K", scratch_directory::place::on_disk, 100},
};

class KillTest : public testing::TestWithParam<KillShard> {
 protected:
  explicit KillTest(const KillShard& shard = GetParam()) : directory_(shard.place) {
    std::ofstream(configuration())
        << "2\n0: file:./data0" << shard.options << "\n1: file:./data1" << shard.options << '\n';
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect(configuration().c_str());
    const TarnAttachment attachment(manager);
    MakePlaces(manager);
  }

  std::string configuration() const { return directory_.file("tarns.conf"); }

  // Kills a program at work, after its first acknowledgement or at once.
  void runAndKill(const std::string& mode, bool waits) {
    acknowledged_.fill(0);
    killed_process writer({PROGRAM_SESSION_WRITER, configuration(), mode});
    std::vector<std::string> lines;
    if (waits) {
      lines.push_back(writer.next_line(std::chrono::seconds(60)));
      ASSERT_FALSE(lines.front().empty()) << "the writer has failed";
    }
    for (std::string& line : writer.kill_after(std::chrono::microseconds(random_() % 10'000)))
      lines.push_back(std::move(line));
    for (const std::string& line : lines) {
      const std::size_t thread = std::stoul(line);
      acknowledged_.at(thread) = std::stoi(line.substr(line.find(' ')));
      ++count_;
    }
  }

  // What is wrong with a database; empty for nothing.
  std::string faultOf(const std::string& path, bool isCopy) try {
    TarnManager manager;
    manager.connect(path.c_str());
    const TarnAttachment attachment(manager);
    for (int i = 0; i < kCountingThreads; ++i) {
      std::string fault = FaultOf(manager, i, isCopy ? 0 : acknowledged_.at(i));
      if (!fault.empty()) return fault;
    }
    return {};
  } catch (const TarnException& error) {
    return error.getError();
  }

  // What a full check finds.
  static std::string DamageOf(const std::string& path) {
    TarnManager manager;
    manager.connect(path.c_str());
    return damage_of(manager);
  }

  std::string faultOfDatabase() { return faultOf(configuration(), false); }

  // Looks at all backups that have got their names, and removes them.
  std::string faultOfBackups() {
    std::string fault;
    for (int i = 0; fault.empty(); ++i) {
      const std::string backup = directory_.file("backup" + std::to_string(i));
      if (!fs::exists(backup)) break;
      ++backups_;
      fault = faultOf(backup + "/tarns.conf", true);
      fs::remove_all(backup);
    }
    return fault;
  }

  const scratch_directory directory_;
  const unsigned seed_ = std::random_device()();
  std::minstd_rand random_{seed_};
  std::array<int, kCountingThreads> acknowledged_{};
  int count_ = 0, backups_ = 0;
};

TEST_P(KillTest, NothingAcknowledgedIsLostAndNothingIsHalfThere) {
  SCOPED_TRACE(testing::Message() << "seed " << seed_);
  const int cycles = GetParam().cycles;
  for (int cycle = 0; cycle < cycles; ++cycle) {
    SCOPED_TRACE(testing::Message() << "cycle " << cycle);
    // Every fourth is killed while it opens the database.
    ASSERT_NO_FATAL_FAILURE(runAndKill("work", cycle % 4 != 0));
    ASSERT_EQ(faultOfDatabase(), "");
    ASSERT_EQ(faultOfBackups(), "");
    if (cycle % 50 == 49) {
      ASSERT_EQ(DamageOf(configuration()), "");
    }
  }
  EXPECT_GT(count_, cycles / 2);
  EXPECT_GT(backups_, 0);
  // Whatever the last collection had come to: all that nothing leads to goes.
  TarnManager manager;
  manager.connect(configuration().c_str());
  const TarnAttachment attachment(manager);
  ASSERT_TRUE(manager.startGarbageCollection());
  int left = 0;
  goods::gc_options options;
  options.dry_run = true;
  options.removes = [&](goods::object_id, std::string_view) { ++left; };
  ASSERT_TRUE(manager.startGarbageCollection(options));
  EXPECT_EQ(left, 0);
  EXPECT_EQ(faultOfDatabase(), "");
  std::printf("%d acknowledgements, %d backups in %d cycles\n", count_, backups_, cycles);
}

INSTANTIATE_TEST_SUITE_P(Shards, KillTest, testing::ValuesIn(kShards),
                         [](const auto& about) { return std::string(about.param.name); });

// The controls: programs that do it wrong are found out.
class KillControlTest : public KillTest {
 protected:
  KillControlTest() : KillTest({"control", "", kInMemory, 0}) {}

  testing::AssertionResult isCaught(const std::string& mode) {
    for (int cycle = 0; cycle < 200; ++cycle) {
      runAndKill(mode, true);
      if (HasFatalFailure()) break;
      const std::string fault = faultOfDatabase();
      if (!fault.empty()) return testing::AssertionSuccess() << fault;
      faultOfBackups();
    }
    return testing::AssertionFailure();
  }
};

TEST_F(KillControlTest, WhoAcknowledgesBeforeItCommitsIsCaught) { EXPECT_TRUE(isCaught("early")); }

TEST_F(KillControlTest, WhoCommitsInTwoPartsIsCaught) { EXPECT_TRUE(isCaught("torn")); }

}  // namespace
}  // namespace tarns
