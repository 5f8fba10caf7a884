// A disk that fails, at every point of a workload.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include "storage/expected_contents.h"
#include "storage/multi_commit.h"
#include "storage/storage_fixture.h"
#include "support/faulty_vfs.h"

namespace goods {
namespace {

using operation = faulty_vfs::operation;
using fault = faulty_vfs::fault;

constexpr object_number first = 0x10100;

struct failing_disk {
  const char* name;
  unsigned operations;
  fault what;
  bool for_good;
};

void PrintTo(const failing_disk& row, std::ostream* out) { *out << row.name; }

const failing_disk rows[] = {
    {"write_once", faulty_vfs::bit(operation::write), fault::io_error, false},
    {"write_for_good", faulty_vfs::bit(operation::write), fault::io_error, true},
    {"torn_write", faulty_vfs::bit(operation::write), fault::torn, false},
    {"full_once", faulty_vfs::bit(operation::write), fault::full, false},
    {"full_for_good", faulty_vfs::bit(operation::write), fault::full, true},
    {"written_but_failed", faulty_vfs::bit(operation::write), fault::lost_sync, false},
    {"sync_once", faulty_vfs::bit(operation::sync), fault::io_error, false},
    {"sync_for_good", faulty_vfs::bit(operation::sync), fault::io_error, true},
    {"read_once", faulty_vfs::bit(operation::read), fault::io_error, false},
    {"read_for_good", faulty_vfs::bit(operation::read), fault::io_error, true},
    {"open_once", faulty_vfs::bit(operation::open), fault::io_error, false},
    {"truncate_once", faulty_vfs::bit(operation::truncate), fault::io_error, false},
    {"name_once", faulty_vfs::bit(operation::name), fault::io_error, false},
    {"name_for_good", faulty_vfs::bit(operation::name), fault::io_error, true},
    {"lock_once", faulty_vfs::bit(operation::lock), fault::io_error, false},
};

class FaultTest : public testing::TestWithParam<failing_disk> {
 protected:
  // Runs `workload` with one more operation that succeeds each time, until nothing fails.
  void at_every_point(const std::function<void(const std::string& directory)>& workload) {
    for (std::uint64_t after = 0;; ++after) {
      SCOPED_TRACE(testing::Message() << "after " << after << " operations");
      const scratch_directory scratch(scratch_directory::place::in_memory);
      disk_.arm({GetParam().operations, after, GetParam().what, GetParam().for_good});
      workload(scratch.path().string());
      const bool failed = disk_.has_failed();
      disk_.disarm();
      if (HasFailure() || !failed) break;
      ASSERT_LT(after, 2000U) << "the workload never passes";
    }
  }

  faulty_vfs disk_;
};

INSTANTIATE_TEST_SUITE_P(Disks, FaultTest, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

std::shared_ptr<dbs_storage> open_in(const std::string& directory, const char* name) {
  return open_storage(std::string("file:") + name + "?mmap=off&cache=0", directory);
}

TEST_P(FaultTest, ACommitIsKeptOrRefusedAndTheStoreGoesOn) {
  at_every_point([this](const std::string& directory) {
    std::shared_ptr<dbs_storage> storage;
    class_number layout = 0;
    const auto opening = code_of([&] {
      storage = open_in(directory, "store");
      layout = some_layout(*storage);
    });
    expectation expected;
    for (unsigned i = 0; storage && !opening && i < 6; ++i) {
      // Small and large objects, new segments, removals.
      const object_number number = first + i * 40;
      const std::string text = std::string(i % 2 == 0 ? 20 : 30'000, static_cast<char>('a' + i));
      change_list changes(layout);
      changes.put(number, text).put(first, "commit " + std::to_string(i));
      if (i > 2) changes.remove(first + (i - 2) * 40);
      const auto failure = code_of([&] { storage->commit(changes.request()); });
      expected.note(failure, [&](contents& all) {
        all[number] = text;
        all[first] = "commit " + std::to_string(i);
        if (i > 2) all.erase(first + (i - 2) * 40);
      });
      // Reads go on, or fail and say so.
      const auto read_failure = code_of([&] {
        const auto now = load_text(*storage, first);
        const auto should = expected.certain().find(first);
        if (expected.is_known() && should != expected.certain().end()) {
          EXPECT_EQ(now, should->second);
        }
      });
      EXPECT_THAT(read_failure, testing::AnyOf(std::nullopt, error_code::input_output));
    }
    if (opening) {
      EXPECT_THAT(*opening, testing::AnyOf(error_code::input_output, error_code::storage_full,
                                           error_code::outcome_unknown));
    }
    storage.reset();
    disk_.disarm();
    expected.check(load_all(*open_in(directory, "store")));
  });
}

// So much that the smallest log is merged and used again several times.
TEST_P(FaultTest, NothingIsKeptOfACommitThatFails) {
  at_every_point([](const std::string& directory) {
    std::shared_ptr<dbs_storage> storage;
    auto attachment = std::make_shared<int>(1);
    const int origin = 0;
    std::unique_ptr<notice_subscription> subscription;
    try {
      storage = open_in(directory, "a");
      subscription = storage->subscribe(&origin);
      storage->commit(
          change_list(some_layout(*storage)).put(first, "text").request(&origin, attachment));
      EXPECT_EQ(attachment.use_count(), 2) << "the subscription's";
    } catch (const database_error&) {
      EXPECT_EQ(attachment.use_count(), 1);
    }
  });
}

TEST_P(FaultTest, AFullLogIsMergedOrKeptAndTheStoreGoesOn) {
  at_every_point([this](const std::string& directory) {
    std::shared_ptr<dbs_storage> storage;
    const bool opened = !code_of([&] {
      storage = open_storage("file:store?cache=0&log=64K", directory);
      some_layout(*storage);
    });
    expectation expected;
    for (unsigned i = 0; opened && i < 24; ++i) {
      // In segments, apart, growing out of a segment and back into one, removed.
      change_list changes(1);
      const std::string text(i % 3 == 0 ? 900 : 9000, static_cast<char>('a' + i));
      changes.put(first + i % 4, text).put(first + 1000 + i, std::to_string(i));
      if (i > 4) changes.remove(first + 1000 + i - 4);
      const auto failure = code_of([&] { storage->commit(changes.request()); });
      expected.note(failure, [&](contents& all) {
        all[first + i % 4] = text;
        all[first + 1000 + i] = std::to_string(i);
        if (i > 4) all.erase(first + 1000 + i - 4);
      });
      if (i % 5 != 0 || !expected.is_known()) continue;
      contents now;
      if (!code_of([&] { now = load_all(*storage); })) {
        EXPECT_EQ(now, expected.certain());
      }
    }
    storage.reset();
    disk_.disarm();
    expected.check(load_all(*open_in(directory, "store")));
  });
}

TEST_P(FaultTest, ACommitOverTwoStoragesIsInBothOrInNeither) {
  at_every_point([this](const std::string& directory) {
    std::shared_ptr<dbs_storage> one, two;
    const auto open_both = [&] {
      one = open_in(directory, "one");
      two = open_in(directory, "two");
      dbs_storage* both[] = {one.get(), two.get()};
      recover_several(both);
    };
    expectation expected;
    bool opened = !code_of([&] {
      open_both();
      some_layout(*one);
      some_layout(*two);
    });
    for (unsigned i = 0; opened && i < 3; ++i) {
      const std::string text = std::to_string(i) + std::string(i * 1500, '+');
      change_list changes(1);
      changes.put(first, text).put(first + 64 + i * 64, "n").remove(first + i * 64 + 1);
      const commit_part parts[] = {{one.get(), changes.request()}, {two.get(), changes.request()}};
      const auto failure = code_of([&] { commit_several(parts); });
      expected.note(failure, [&](contents& all) {
        all[first + 64 + i * 64] = "n";
        all[first] = text;
      });
      if (!expected.is_known()) opened = false;
    }
    one.reset();
    two.reset();
    disk_.disarm();
    open_both();
    const contents in_one = load_all(*one);
    EXPECT_EQ(in_one, load_all(*two));
    expected.check(in_one);
    EXPECT_TRUE(one->prepared().empty() && two->prepared().empty());
    EXPECT_TRUE(one->decisions().empty() && two->decisions().empty());
  });
}

// ---- syncs in the background that fail

class RelaxedTest : public storage_test {
 protected:
  RelaxedTest() { commit_text(*storage_, first, "first"); }

  // Lets syncs fail after a commit, and waits for the first that does.
  void fail_to_sync(bool for_good) {
    disk_.arm({faulty_vfs::bit(operation::sync), 0, fault::io_error, for_good});
    commit_text(*storage_, first, "not synced");
    await([this] { return disk_.has_failed(); });
  }

  // What is in the database alone.
  std::optional<std::string> text_in_database() {
    const scratch_directory copy;
    std::filesystem::create_directory(copy.file("store"));
    for (const char* name : {"store.db-wal", "store.db"})
      std::filesystem::copy_file(path("store/") + name, copy.file("store/") + name);
    try {
      return load_text(*open_storage("file:store", copy.path().string()), first);
    } catch (const database_error&) {  // copied while it was written
      return std::nullopt;
    }
  }

  static void await(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  std::shared_ptr<dbs_storage> storage_ = open("store", "?durability=relaxed");
};

TEST_F(RelaxedTest, WhatCouldNotBeSyncedGoesIntoTheDatabaseWithoutWaitingForACommit) {
  fail_to_sync(false);
  await([this] { return text_in_database() == "not synced"; });
}

TEST_F(RelaxedTest, WhatCannotBecomeDurableIsToldByCommitsAndReadsGoOn) {
  fail_to_sync(true);
  await([this] {  // the thread that syncs has yet to tell
    try {
      commit_text(*storage_, first, "not synced");
    } catch (const database_error&) {
      return true;
    }
    return false;
  });
  for (int i = 0; i < 2; ++i)
    EXPECT_THAT([this] { commit_text(*storage_, first + 1, "refused"); },
                fails_with(error_code::input_output, testing::HasSubstr(path("store"))));
  EXPECT_EQ(load_text(*storage_, first), "not synced");
  EXPECT_EQ(load_text(*storage_, first + 1), std::nullopt);
  // It cannot be closed properly: the log stays, and has the commit.
  storage_.reset();
  EXPECT_TRUE(std::filesystem::exists(path("store/commits.0")));
  EXPECT_THAT([this] { open(); },
              fails_with(error_code::input_output, testing::HasSubstr("store")));
  disk_.disarm();
  EXPECT_EQ(load_text(*open(), first), "not synced");
}

// ---- processes that end at every point

struct two_storages {
  explicit two_storages(const std::string& directory)
      : one(open_in(directory, "one")), two(open_in(directory, "two")) {
    dbs_storage* both[] = {one.get(), two.get()};
    recover_several(both);
  }
  std::shared_ptr<dbs_storage> one, two;
};

constexpr unsigned killed_commits = 5;

// The contents that the first `commits` of commit_in_both() leave.
contents contents_after(unsigned commits) {
  contents all;
  for (unsigned i = 0; i < commits; ++i) {
    all[first] = std::to_string(i) + std::string(i * 1500, '+');
    all[first + 64 + i * 64] = "n";
    if (i > 0) all.erase(first + i * 64);
  }
  return all;
}

void commit_in_both(two_storages& storages, unsigned i) {
  change_list changes(1);
  changes.put(first, std::to_string(i) + std::string(i * 1500, '+')).put(first + 64 + i * 64, "n");
  if (i > 0) changes.remove(first + i * 64);
  const commit_part parts[] = {{storages.one.get(), changes.request()},
                               {storages.two.get(), changes.request()}};
  commit_several(parts);
}

// In the child: makes both storages and commits, one byte for each commit that has returned.
[[noreturn]] void commit_until_killed(const std::string& directory, int acknowledge) {
  two_storages storages(directory);
  some_layout(*storages.one);
  some_layout(*storages.two);
  for (unsigned i = 0; i < killed_commits; ++i) {
    commit_in_both(storages, i);
    if (::write(acknowledge, "", 1) != 1) break;
  }
  ::_exit(0);
}

// Of the commits into one store with the smallest log.
constexpr unsigned logged_commits = 40;

change_list logged_changes(unsigned i) {
  change_list changes(1);
  changes.put(first, std::to_string(i)).put(first + 64 + i, std::string(2500, 'x'));
  changes.put(first + 7, std::string(i % 2 == 0 ? 10 : 4000, static_cast<char>('a' + i % 26)));
  if (i > 3) changes.remove(first + 64 + i - 3);
  return changes;
}

contents logged_contents(unsigned commits) {
  contents all;
  for (unsigned i = 0; i < commits; ++i) {
    all[first] = std::to_string(i);
    all[first + 64 + i] = std::string(2500, 'x');
    all[first + 7] = std::string(i % 2 == 0 ? 10 : 4000, static_cast<char>('a' + i % 26));
    if (i > 3) all.erase(first + 64 + i - 3);
  }
  return all;
}

std::shared_ptr<dbs_storage> open_logged(const std::string& directory) {
  return open_storage("file:store?log=64K", directory);
}

// In the child: the same with one store, from the `done`th commit on, and a clean close.
[[noreturn]] void log_until_killed(const std::string& directory, unsigned done, int acknowledge) {
  {
    const auto storage = open_logged(directory);
    some_layout(*storage);
    for (unsigned i = done; i < logged_commits; ++i) {
      storage->commit(logged_changes(i).request());
      if (::write(acknowledge, "", 1) != 1) break;
    }
  }
  ::_exit(0);
}

class KilledProcessTest : public testing::Test {
 protected:
  // Runs a child that is killed after so many operations. Returns how many commits it acknowledged.
  using child_work = std::function<void(int acknowledge)>;
  unsigned run_child(std::uint64_t operations, bool& was_killed, const child_work& work) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    disk_.arm({faulty_vfs::all_operations, operations, fault::kill, true});
    const pid_t child = ::fork();
    if (child == 0) work(ends[1]);
    disk_.disarm();
    ::close(ends[1]);
    unsigned acknowledged = 0;
    for (char c; ::read(ends[0], &c, 1) == 1;) ++acknowledged;
    ::close(ends[0]);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    EXPECT_TRUE(was_killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
    return acknowledged;
  }

  faulty_vfs disk_;
};

TEST_F(KilledProcessTest, ACommitOverTwoStoragesIsInBothOrInNeither) {
  bool was_killed = true;
  std::uint64_t operations = 0;
  // The first hundreds of operations make the storages; skim those.
  for (; was_killed; operations += operations < 60 ? 7 : 1) {
    SCOPED_TRACE(testing::Message() << "killed after " << operations << " operations");
    const scratch_directory scratch(scratch_directory::place::in_memory);
    const unsigned acknowledged = run_child(operations, was_killed, [&](int acknowledge) {
      commit_until_killed(scratch.path().string(), acknowledge);
    });
    two_storages storages(scratch.path().string());
    const contents found = load_all(*storages.one);
    EXPECT_EQ(found, load_all(*storages.two));
    EXPECT_TRUE(found == contents_after(acknowledged) || found == contents_after(acknowledged + 1))
        << acknowledged << " were acknowledged";
    EXPECT_TRUE(storages.one->prepared().empty() && storages.two->prepared().empty());
    EXPECT_TRUE(storages.one->decisions().empty() && storages.two->decisions().empty());
    some_layout(*storages.one);
    some_layout(*storages.two);
    commit_in_both(storages, 0);
    if (HasFailure()) break;
  }
  EXPECT_GT(operations, 100U);
}

// While committing, merging and closing; and the next process, while it recovers and goes on.
TEST_F(KilledProcessTest, TheLogKeepsWhatWasAcknowledged) {
  bool was_killed = true;
  for (std::uint64_t operations = 0; was_killed; operations += operations < 40 ? 5 : 1) {
    SCOPED_TRACE(testing::Message() << "killed after " << operations << " operations");
    const scratch_directory scratch(scratch_directory::place::in_memory);
    const std::string directory = scratch.path().string();
    unsigned acknowledged = run_child(operations, was_killed, [&](int acknowledge) {
      log_until_killed(directory, 0, acknowledge);
    });
    // The second one repeats a commit that the first one has not acknowledged.
    bool again = false;
    const unsigned before = acknowledged;
    acknowledged += run_child(operations % 37, again, [&](int acknowledge) {
      log_until_killed(directory, before, acknowledge);
    });
    const contents found = load_all(*open_logged(directory));
    EXPECT_TRUE(found == logged_contents(acknowledged) ||
                found == logged_contents(acknowledged + 1))
        << before << " and then " << acknowledged << " were acknowledged";
    if (HasFailure()) break;
  }
}

}  // namespace
}  // namespace goods
