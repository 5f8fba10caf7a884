// Memory that runs out, at every point of a workload.

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "storage/lock_owner.h"
#include "storage/multi_commit.h"
#include "storage/numbered_commits.h"
#include "storage/storage_fixture.h"
#include "support/failing_memory.h"

namespace goods {
namespace {

class MemoryTest : public testing::TestWithParam<bool> {
 protected:
  // Runs `workload`, which makes a failing_memory, with one more allocation that succeeds each
  // time, until none fails.
  using work = std::function<void(const std::string& directory, std::uint64_t after)>;
  void at_every_point(const work& workload) {
    const std::uint64_t step = GetParam() ? 7 : 1;  // for good: most of it is the same
    for (std::uint64_t after = 0;; after += step) {
      SCOPED_TRACE(testing::Message() << "after " << after << " allocations");
      const scratch_directory scratch(scratch_directory::place::in_memory);
      workload(scratch.path().string(), after);
      if (HasFailure() || !failing_memory::has_failed()) break;
      ASSERT_LT(after, 20'000U) << "the workload never passes";
    }
  }

  faulty_vfs disk_;  // syncs nothing
};

INSTANTIATE_TEST_SUITE_P(RunsOut, MemoryTest, testing::Bool(), [](const auto& row) {
  return std::string(row.param ? "for_good" : "once");
});

TEST_P(MemoryTest, ACommitIsKeptOrRefusedAndTheStoreGoesOn) {
  at_every_point([](const std::string& directory, std::uint64_t after) {
    auto storage = open_storage("file:store?cache=64K&log=64K", directory);
    const auto subscription = storage->subscribe(nullptr);
    expectation expected;
    std::vector<std::optional<error_code>> failures(10);
    std::vector<numbered_commit> commits;
    for (unsigned i = 0; i < failures.size(); ++i) commits.emplace_back(i);
    some_layout(*storage);
    std::optional<error_code> layout_failure;
    {
      const failing_memory memory(after, GetParam());
      for (unsigned i = 0; i < failures.size(); ++i) {
        const auto request = commits[i].request();
        failures[i] = code_of([&] { storage->commit(request); });
        if (i == 5)
          layout_failure = code_of([&] { storage->intern_layout(bytes_of("another layout")); });
      }
    }
    for (unsigned i = 0; i < failures.size(); ++i)
      expected.note(failures[i], [&](contents& all) { commits[i].apply(all); });
    EXPECT_THAT(layout_failure, testing::AnyOf(std::nullopt, error_code::storage_full,
                                               error_code::outcome_unknown));
    if (expected.is_known()) {
      EXPECT_EQ(load_all(*storage), expected.certain());
      EXPECT_EQ(subscription->take(storage->newest_version()).size(), storage->newest_version());
      EXPECT_EQ(storage->intern_layout(bytes_of("another layout")), 2U);
      EXPECT_EQ(storage->intern_layout(bytes_of("a third layout")), 3U);
    }
    storage.reset();
    storage = open_storage("file:store", directory);
    expected.check(load_all(*storage));
  });
}

TEST_P(MemoryTest, ACommitOverTwoStoragesIsInBothOrInNeither) {
  at_every_point([](const std::string& directory, std::uint64_t after) {
    const auto open_both = [&] {
      std::vector<std::shared_ptr<dbs_storage>> both{open_storage("file:one", directory),
                                                     open_storage("file:two", directory)};
      dbs_storage* const pointers[] = {both[0].get(), both[1].get()};
      recover_several(pointers);
      return both;
    };
    auto both = open_both();
    for (const auto& storage : both) some_layout(*storage);
    expectation expected;
    std::vector<std::optional<error_code>> failures(2);
    std::vector<numbered_commit> commits;
    for (unsigned i = 0; i < failures.size(); ++i) commits.emplace_back(i);
    {
      const failing_memory memory(after, GetParam());
      for (unsigned i = 0; i < failures.size(); ++i) {
        const auto request = commits[i].request();
        const commit_part parts[] = {{both[0].get(), request}, {both[1].get(), request}};
        failures[i] = code_of([&] { commit_several(parts); });
        if (failures[i] == error_code::outcome_unknown) break;
      }
    }
    for (unsigned i = 0; i < failures.size() && expected.is_known(); ++i)
      expected.note(failures[i], [&](contents& all) { commits[i].apply(all); });
    both.clear();
    both = open_both();
    const contents in_one = load_all(*both[0]);
    EXPECT_EQ(in_one, load_all(*both[1]));
    expected.check(in_one);
    for (const auto& storage : both)
      EXPECT_TRUE(storage->prepared().empty() && storage->decisions().empty());
  });
}

// Of a store that its process has left open: database, SQLite's log, and commits in our own.
TEST_P(MemoryTest, OpeningRecoversOrSaysThatItCouldNot) {
  const scratch_directory scratch(scratch_directory::place::in_memory);
  contents all;
  {
    const auto storage = open_storage("file:store?log=64K", scratch.path().string());
    some_layout(*storage);
    for (unsigned i = 0; i < 8; ++i) {
      const numbered_commit commit(i);
      storage->commit(commit.request());
      commit.apply(all);
    }
    std::filesystem::create_directory(scratch.file("left"));
    for (const char* name : {"store.db", "store.db-wal", "commits.0", "commits.1"})
      std::filesystem::copy_file(scratch.file("store/") + name, scratch.file("left/") + name);
  }
  at_every_point([&](const std::string& directory, std::uint64_t after) {
    std::filesystem::copy(scratch.file("left"), directory + "/store");
    contents found;
    std::optional<error_code> failure;
    {
      const failing_memory memory(after, GetParam());
      failure = code_of([&] {
        found[first_numbered] = *load_text(*open_storage("file:store", directory), first_numbered);
      });
    }
    EXPECT_THAT(failure, testing::AnyOf(std::nullopt, error_code::storage_full));
    if (!failure) {
      EXPECT_EQ(found[first_numbered], all[first_numbered]);
    }
    EXPECT_EQ(load_all(*open_storage("file:store", directory)), all);
  });
}

// Without memory a request is refused as if it had never been made; nobody else is held up, and
// nothing of it stays in the table.
TEST_P(MemoryTest, ALockIsGivenOrRefusedAndOthersGetTheirs) {
  at_every_point([](const std::string& directory, std::uint64_t after) {
    using namespace std::chrono_literals;
    constexpr object_number a = 0x10001, b = 0x10002;
    const auto storage = open_storage("file:store", directory);
    lock_table& locks = storage->locks();
    lock_owner first("first"), second("second"), third("third");
    const auto lock = [&](lock_owner& owner, object_number number, lock_mode mode,
                          std::chrono::milliseconds limit) {
      try {
        locks.lock(owner, number, mode, limit);
      } catch (const std::bad_alloc&) {
      } catch (const error_info&) {  // deadlock and lock_timeout
      }
    };
    locks.lock(first, a, lock_mode::exclusive, 0ms);
    std::atomic<bool> has_begun = false;
    std::thread other([&] {
      locks.lock(second, b, lock_mode::exclusive, 0ms);
      has_begun = true;
      lock(second, a, lock_mode::exclusive, 60'000ms);
      locks.unlock_all(second);
    });
    while (!has_begun) std::this_thread::yield();
    {
      const failing_memory memory(after, GetParam());
      lock(third, a, lock_mode::shared, 1ms);       // time-out
      lock(first, b, lock_mode::exclusive, 200ms);  // deadlock, unless the other one is not there
      for (object_number number = b + 1; number < b + 40; ++number)
        lock(third, number, lock_mode::shared, 0ms);
      locks.unlock_all(first);
    }
    other.join();
    locks.unlock_all(third);
    EXPECT_EQ(first.held() + second.held() + third.held(), 0U);
    for (object_number number = a; number < b + 40; ++number)
      locks.lock(third, number, lock_mode::exclusive, 0ms);
    locks.unlock_all(third);
  });
}

}  // namespace
}  // namespace goods
