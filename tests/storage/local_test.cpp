// What the embedded backend promises beyond the contract: about its directory, other processes,
// crashes and damage.

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "storage/local/storage_file.h"
#include "storage/storage_fixture.h"
#include "storage/storage_rows.h"
#include "support/killed_process.h"
#include "support/replaced_rows.h"

namespace goods {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
namespace fs = std::filesystem;

class LocalTest : public storage_test {
 protected:
  LocalTest() { fs::create_directory(path("plain")); }

  static unsigned mode_of(const fs::path& file) {
    struct stat status;
    EXPECT_EQ(::stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
  }
};

TEST_F(LocalTest, RefusesAddressesItDoesNotUnderstand) {
  const struct {
    const char* address;
    const char* why;
  } cases[] = {
      {"localhost:6100", "of no known kind"},
      {"", "of no known kind"},
      {"file:", "names no directory"},
      {"file:?mmap=off", "names no directory"},
      {"file:store?durability=none", "durability=none"},
      {"file:store?mmap", "mmap"},
      {"file:store?cache=16X", "cache=16X"},
      {"file:store?log=4K", "log=4K"},
      {"file:store?log=2G", "log=2G"},
      {"file:store?cache=99999999999G", "cache"},
      {"file:store?mmap=off&fast=1", "fast=1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.address);
    EXPECT_THAT([&] { open_storage(c.address, path("")); },
                fails_with(error_code::usage, AllOf(HasSubstr(c.address), HasSubstr(c.why))));
  }
  EXPECT_FALSE(fs::exists(path("store")));
}

TEST_F(LocalTest, NamesADirectoryThatCannotBeUsed) {
  write_file(path("file"), "");
  for (const char* name : {"file", "missing/store", "file/store"}) {
    SCOPED_TRACE(name);
    EXPECT_THAT([&] { open(name); }, fails_with(error_code::input_output, HasSubstr(path(name))));
  }
  // Nobody can write there, not even the superuser.
  EXPECT_THAT([&] { open_storage("file:/proc/store", "/"); },
              fails_with(error_code::input_output, HasSubstr("/proc/store")));
  EXPECT_THAT([&] { open_storage("file:/proc", "/"); },
              fails_with(error_code::input_output, HasSubstr("/proc/lock")));
}

TEST_F(LocalTest, KeepsItsFilesPrivateUnderAnyUmask) {
  for (mode_t mask : {0000, 0027, 0777}) {
    SCOPED_TRACE(mask);
    const std::string name = "masked" + std::to_string(mask);
    const mode_t before = ::umask(mask);
    const auto storage = open(name);
    commit_text(*storage, storage->allocate(1), "text");
    ::umask(before);
    EXPECT_EQ(mode_of(path(name)), 0700U);
    unsigned files = 0;
    for (const auto& entry : fs::directory_iterator(path(name))) {
      EXPECT_EQ(mode_of(entry.path()), 0600U) << entry.path();
      ++files;
    }
    EXPECT_EQ(files, 5U) << "store.db, its log, the log's index, the commit log, lock";
  }
}

TEST_F(LocalTest, LeavesOneFileWhenClosed) {
  commit_text(*open(), root_object_number, "text");
  unsigned files = 0;
  for (const auto& entry : fs::directory_iterator(path("store"))) {
    EXPECT_THAT(entry.path().filename().string(), AnyOf("store.db", "lock"));
    ++files;
  }
  EXPECT_EQ(files, 2U);
}

// Blocks go past the cache; what comes in other pieces is written all the same.
TEST_F(LocalTest, FilesThatBypassTheCacheTakeEveryWrite) {
  for (const auto place :
       {scratch_directory::place::on_disk, scratch_directory::place::in_memory}) {
    const scratch_directory directory(place);
    const auto file = storage_disk::machine().create(directory.file("f"));
    std::vector<std::byte> expected(5 * file_block::bytes), found(expected.size());
    const auto write = [&](std::uint64_t at, std::span<const std::byte> from) {
      file->write(at, from);
      std::ranges::copy(from, expected.begin() + static_cast<std::ptrdiff_t>(at));
      file->sync();
      storage_disk::machine().open(directory.file("f"))->read(0, found);
      EXPECT_TRUE(found == expected) << at;
    };
    std::vector<file_block> blocks(5);
    write(0, std::as_bytes(std::span(blocks)));
    file->bypass_cache();
    for (const std::size_t i : {0U, 3U, 2U}) {
      blocks[0].content.fill(static_cast<std::byte>(i + 1));
      write(i * file_block::bytes, std::as_bytes(std::span(blocks).first(1)));
    }
    blocks[0].content.fill(std::byte{9});
    write(100, std::as_bytes(std::span(blocks).first(1)).subspan(1, 300));
    write(file_block::bytes, std::as_bytes(std::span(blocks).first(2)));
  }
}

TEST_F(LocalTest, SessionsOfAProcessShareTheOpenStore) {
  const auto storage = open();
  fs::create_directory_symlink(path("store"), path("alias"));
  EXPECT_EQ(open("alias"), storage);
  EXPECT_EQ(open("./plain/../store/"), storage);
  EXPECT_NE(open("another"), storage);
  EXPECT_THAT([&] { open("store", "?durability=relaxed"); },
              fails_with(error_code::usage, HasSubstr("durability=relaxed")));
}

TEST_F(LocalTest, ManyThreadsMayOpenAndCloseIt) {
  std::vector<std::thread> threads;
  for (object_number i = 0; i < 4; ++i)
    threads.emplace_back([this, i] {
      for (int round = 0; round < 25; ++round)
        commit_text(*open(), root_object_number + i, std::to_string(round));
    });
  for (std::thread& thread : threads) thread.join();
  for (object_number i = 0; i < 4; ++i) EXPECT_EQ(load_text(*open(), root_object_number + i), "24");
}

TEST_F(LocalTest, AnotherProcessHasToWait) {
  killed_process other({PROGRAM_STORAGE_WRITER, scratch_.path().string(), "0"});
  ASSERT_EQ(other.next_line(std::chrono::seconds(60)), "open");
  EXPECT_THAT([&] { open(); }, fails_with(error_code::database_in_use, HasSubstr(path("store"))));
  other.kill_after(std::chrono::microseconds(0));
  open();
}

TEST_F(LocalTest, OneOfTwoProcessesThatMakeItWins) {
  for (int round = 0; round < 10; ++round) {
    const scratch_directory scratch;
    const std::vector<std::string> command{PROGRAM_STORAGE_WRITER, scratch.path().string(), "1"};
    killed_process one(command), two(command);
    // Whoever is refused has ended; the winner goes on.
    const std::string first = one.next_line(std::chrono::seconds(60));
    const std::string second = first.empty() ? two.next_line(std::chrono::seconds(60)) : "";
    EXPECT_TRUE(first == "0 1" || second == "0 1") << first << ", " << second;
  }
}

TEST_F(LocalTest, AChildMadeByForkCannotUseIt) {
  auto storage = open();
  commit_text(*storage, root_object_number, "parent");
  const pid_t child = ::fork();
  if (child == 0) {
    const auto is_refused = [](const std::function<void()>& use) {
      try {
        use();
      } catch (const database_error& error) {
        return error.code() == error_code::usage;
      }
      return false;
    };
    bool good = is_refused([&] { commit_text(*storage, root_object_number, "child"); });
    good = good && is_refused([&] { load_text(*storage, root_object_number); });
    good = good && is_refused([&] { open(); });
    storage.reset();  // leaves everything to the parent
    ::_exit(good ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  commit_text(*storage, root_object_number, "parent again");
  storage.reset();
  EXPECT_EQ(load_text(*open(), root_object_number), "parent again");
}

TEST_F(LocalTest, RefusesFilesThatAreNoStore) {
  commit_text(*open("good"), root_object_number, "text");
  const std::string good = read_file(path("good/store.db"));
  const struct {
    const char* what;
    std::function<void(const std::string&)> make;
    error_code code;
    const char* why;
  } cases[] = {
      {"empty", [](auto& file) { write_file(file, ""); }, error_code::corrupt_data, "too short"},
      {"text", [](auto& file) { write_file(file, std::string(500, 'x')); },
       error_code::corrupt_data, "no database"},
      {"foreign", [](auto& file) { execute(file, "CREATE TABLE t(x)"); }, error_code::corrupt_data,
       "another application"},
      {"newer",
       [&](auto& file) {
         write_file(file, good);
         execute(file, "PRAGMA user_version=4");
       },
       error_code::newer_version, "format 4"},
      {"older",
       [&](auto& file) {
         write_file(file, good);
         execute(file, "PRAGMA user_version=2");
       },
       error_code::corrupt_data, "format 2"},
      {"trigger",
       [&](auto& file) {
         write_file(file, good);
         execute(file, "CREATE TRIGGER x AFTER INSERT ON segments BEGIN DELETE FROM about; END");
       },
       error_code::corrupt_data, "does not belong"},
      {"other_table",
       [&](auto& file) {
         write_file(file, good);
         execute(file, "DROP TABLE layouts; CREATE TABLE layouts(a, b)");
       },
       error_code::corrupt_data, "layouts"},
      {"no_state",
       [&](auto& file) {
         write_file(file, good);
         execute(file, "DELETE FROM about WHERE id=2");
       },
       error_code::corrupt_data, "about"},
      {"log_only", [](auto& file) { write_file(file + "-wal", "x"); }, error_code::corrupt_data,
       "missing"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::create_directory(path(c.what));
    c.make(path(std::string(c.what) + "/store.db"));
    EXPECT_THAT([&] { open(c.what); },
                fails_with(c.code, AllOf(HasSubstr(path(c.what)), HasSubstr(c.why))));
  }
}

// What a process leaves that is killed with a log full of commits.
TEST_F(LocalTest, FindsTheCommitsInTheLogOrSaysThatTheyAreDamaged) {
  const auto leave_log = [this](const char* name) {
    const pid_t child = ::fork();
    if (child != 0) {
      int status = 0;
      EXPECT_EQ(::waitpid(child, &status, 0), child);
      return;
    }
    const auto storage = open(name);
    for (object_number i = 0; i < 50; ++i)
      commit_text(*storage, root_object_number + i * 30, std::to_string(i));
    ::_exit(0);
  };
  leave_log("good");
  leave_log("bad");
  EXPECT_EQ(load_all(*open("good")).size(), 50U);
  EXPECT_FALSE(fs::exists(path("good/commits.0")));
  EXPECT_EQ(load_all(*open("good")).size(), 50U);

  std::string log = read_file(path("bad/commits.0"));
  char& damaged = log[1288];  // in the header of the eleventh record
  damaged = static_cast<char>(~damaged);
  write_file(path("bad/commits.0"), log);
  EXPECT_THAT([&] { open("bad"); },
              fails_with(error_code::corrupt_data, HasSubstr(path("bad/commits.0"))));
  // Not even by trying again.
  EXPECT_THAT([&] { open("bad"); },
              fails_with(error_code::corrupt_data, HasSubstr(path("bad/commits.0"))));
}

TEST_F(LocalTest, ClearsAwayAHalfMadeStore) {
  fs::create_directory(path("store"));
  for (const char* name : {"store/store.new", "store/store.new-wal", "store/store.new-journal"})
    write_file(path(name), "half");
  EXPECT_EQ(load_text(*open(), root_object_number), std::nullopt);
  EXPECT_FALSE(fs::exists(path("store/store.new")));
  EXPECT_FALSE(fs::exists(path("store/store.new-wal")));
}

// ---- crashes

TEST_F(LocalTest, KeepsWhatAKilledProcessHasAcknowledged) {
  constexpr unsigned threads = 3, cycles = 100;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  unsigned commits = 0;
  for (unsigned cycle = 0; cycle < cycles && !HasFailure(); ++cycle) {
    killed_process writer(
        {PROGRAM_STORAGE_WRITER, scratch_.path().string(), std::to_string(threads)});
    // Some are killed while they open the store.
    std::vector<std::string> lines;
    if (cycle % 4 != 0) lines.push_back(writer.next_line(std::chrono::seconds(60)));
    for (auto& line : writer.kill_after(std::chrono::microseconds(random() % 30'000)))
      lines.push_back(line);
    unsigned acknowledged[threads] = {};
    for (const std::string& line : lines) {
      ASSERT_FALSE(line.empty()) << "the writer did not start";
      const std::size_t blank = line.find(' ');
      ASSERT_NE(blank, std::string::npos) << line;
      acknowledged[std::stoul(line.substr(0, blank)) % threads] =
          static_cast<unsigned>(std::stoul(line.substr(blank)));
      ++commits;
    }
    const auto storage = open();
    for (unsigned thread = 0; thread < threads; ++thread) {
      const unsigned stored = stored_number(*storage, thread);
      // Acknowledgements tell of this run only.
      if (acknowledged[thread] == 0) continue;
      EXPECT_GE(stored, acknowledged[thread]) << "cycle " << cycle;
      EXPECT_LE(stored, acknowledged[thread] + 1) << "cycle " << cycle;
    }
    EXPECT_THAT(faults_of(*storage), testing::IsEmpty()) << "cycle " << cycle;
  }
  EXPECT_GT(commits, cycles);
}

}  // namespace
}  // namespace goods
