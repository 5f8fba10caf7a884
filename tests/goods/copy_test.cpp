// Copies of databases that are in use, and what is left when making one fails.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include <goods/errors.h>
#include <goods/obj_storage.h>
#include <goods/object_handle.h>

#include "goods/errors_matcher.h"
#include "support/disk_trace.h"
#include "support/faulty_vfs.h"
#include "support/test_database.h"

namespace goods {
namespace {

namespace fs = std::filesystem;
using goods::code_of;
using operation = faulty_vfs::operation;
using fault = faulty_vfs::fault;

constexpr int storages_copied = 2;
constexpr int pairs = 3;

std::string configuration_of(const std::string& copy) { return copy + "/tarns.conf"; }

// Below the root there are pairs of cells, one in each storage, whose values have the sum 0.
std::vector<ref<cell>> cells_of(test_session& session) {
  std::vector<ref<cell>> cells;
  for (ref<cell> at(session.root()->next); at; at = ref<cell>(at->next)) cells.push_back(at);
  return cells;
}

void make_pairs(test_session& session) {
  const ref<cell> root = session.root();
  session.session().atomically([&] {
    ref<cell> first;
    for (int i = 0; i < 2 * pairs; ++i) {
      first = new_cell(0, first);
      modify(first)->attach_to_storage(&session.db(),
                                       static_cast<storage_number>(i % storages_copied));
    }
    modify(root)->next = first;
  });
}

void add_to_pair(test_session& session, const std::vector<ref<cell>>& cells, std::size_t pair) {
  session.session().atomically([&] {
    ++modify(cells[2 * pair])->value;
    --modify(cells[2 * pair + 1])->value;
  });
}

// The values of the pairs' first cells; nothing when there is no database.
std::vector<std::int64_t> values_in(const std::string& configuration) {
  database::expect_storages(configuration.c_str());
  test_session session(configuration);
  const auto cells = cells_of(session);
  std::vector<std::int64_t> values;
  session.session().atomically([&] {
    values.clear();
    for (std::size_t i = 0; i + 1 < cells.size(); i += 2) {
      values.push_back(cells[i]->value);
      EXPECT_EQ(cells[i]->value + cells[i + 1]->value, 0) << i;
    }
  });
  return values;
}

class CopyTest : public ::testing::Test {
 protected:
  explicit CopyTest(scratch_directory::place where = scratch_directory::place::on_disk)
      : store_(storages_copied, "?log=64K", where) {
    test_session session(store_);
    make_pairs(session);
  }
  std::string path(const std::string& name) const { return store_.directory().file(name); }
  // What lies beside the database, in order.
  std::vector<std::string> beside() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(store_.directory().path())) {
      const std::string name = entry.path().filename();
      if (!name.starts_with("data") && name != "test.cfg") names.push_back(name);
    }
    std::ranges::sort(names);
    return names;
  }

  test_store store_;
};

TEST_F(CopyTest, IsOfOneMomentOfAllStoragesWhileTheyAreWrittenTo) {
  constexpr int copies = 12;
  test_session session(store_);
  const auto cells = cells_of(session);
  std::array<std::atomic<std::int64_t>, pairs> begun{}, done{};
  std::atomic<bool> stops = false;
  std::vector<std::thread> writers;
  for (std::size_t t = 0; t < pairs; ++t) {
    writers.emplace_back([&, t] {
      session.db().attach();
      while (!stops) {
        ++begun[t];
        add_to_pair(session, cells, t);
        ++done[t];
      }
      session.db().detach();
    });
  }
  std::vector<std::int64_t> before(pairs);
  for (int i = 0; i < copies; ++i) {
    const std::string copy = path("copy" + std::to_string(i));
    for (std::size_t t = 0; t < pairs; ++t) before[t] = done[t];
    ASSERT_TRUE(session.db().copy_to(copy));
    const auto found = values_in(configuration_of(copy));
    ASSERT_EQ(found.size(), std::size_t{pairs});
    for (std::size_t t = 0; t < pairs; ++t) {
      EXPECT_GE(found[t], before[t]);
      EXPECT_LE(found[t], begun[t]);
    }
    // So that the copies have different things to tell.
    while (done[0] < before[0] + 20) std::this_thread::yield();
  }
  stops = true;
  for (std::thread& writer : writers) writer.join();
}

TEST_F(CopyTest, IsADatabaseOfItsOwnThatCanBeOpenedBesideTheOther) {
  const std::string copy = path("copy");
  {
    test_session session(store_);
    add_to_pair(session, cells_of(session), 1);
    EXPECT_TRUE(session.db().copy_to(copy + '/'));
    add_to_pair(session, cells_of(session), 0);
    test_session of_copy(configuration_of(copy));
    EXPECT_EQ(cells_of(of_copy)[0]->value, 0);
    add_to_pair(of_copy, cells_of(of_copy), 2);
    session.db().attach();
    EXPECT_EQ(cells_of(session)[4]->value, 0);
    for (storage_number s = 0; s < storages_copied; ++s)
      EXPECT_NE(session.db().storage(s).dbs().identity(), of_copy.db().storage(s).dbs().identity());
  }
  EXPECT_EQ(values_in(store_.configuration()), (std::vector<std::int64_t>{1, 1, 0}));
  EXPECT_EQ(values_in(configuration_of(copy)), (std::vector<std::int64_t>{0, 1, 1}));
  // A commit over a storage and its copy.
  std::ofstream(path("test.cfg")) << "2\n0: file:./data0\n1: file:./copy/data0\n";
  test_session both(path("test.cfg"));
  const ref<cell> root = both.root();
  ref<cell> far = new_cell(7);
  both.session().atomically([&] {
    modify(far)->attach_to_storage(&both.db(), 1);
    modify(root)->next = far;
  });
  EXPECT_EQ(storage_of(far.handle()->id()), 1);
}

TEST_F(CopyTest, CanBeReadByItsOwnerOnlyAndKeepsTheOptions) {
  const ::mode_t before = ::umask(0);
  ASSERT_TRUE(test_session(store_).db().copy_to(path("copy")));
  ::umask(before);
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(path("copy"))) {
    names.push_back(fs::relative(entry.path(), path("copy")));
    EXPECT_EQ(entry.status().permissions(), fs::perms(entry.is_directory() ? 0700 : 0600)) << entry;
  }
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("tarns.conf", "data0", "data1",
                                                     "data0/store.db", "data1/store.db"));
  EXPECT_EQ(fs::status(path("copy")).permissions(), fs::perms(0700));
  std::ifstream file(configuration_of(path("copy")));
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_EQ(text, "2\n0: file:./data0?log=64K\n1: file:./data1?log=64K\n");
}

TEST_F(CopyTest, RefusesPlacesWhereSomethingIs) {
  fs::create_directory(path("empty"));
  std::ofstream(path("file")) << 'x';
  fs::create_symlink("nowhere", path("link"));
  fs::create_directories(path("a.unfinished/mine"));
  fs::create_symlink(path("empty"), path("b.unfinished"));
  fs::create_directory(path("c.unfinished"));
  std::ofstream(path("c.unfinished/unfinished-copy")) << "";
  std::ofstream(path("c.unfinished/mine")) << 'x';
  const auto before = beside();
  struct row {
    std::string target;
    error_code code;
  };
  const row cases[] = {
      {path("empty"), error_code::usage},
      {path("file"), error_code::usage},
      {path("link"), error_code::usage},
      {path("a"), error_code::usage},
      {path("b"), error_code::input_output},
      {path("c"), error_code::input_output},
      {path("file/x"), error_code::input_output},
      {path("no/x"), error_code::input_output},
      {"/proc/x", error_code::input_output},
      {"", error_code::usage},
      {"/", error_code::usage},
  };
  test_session session(store_);
  for (const row& c : cases) {
    SCOPED_TRACE(c.target);
    EXPECT_EQ(code_of([&] { session.db().copy_to(c.target); }), c.code);
    EXPECT_EQ(beside(), before);
  }
  EXPECT_TRUE(fs::exists(path("a.unfinished/mine")) && fs::exists(path("c.unfinished/mine")));
}

TEST_F(CopyTest, EndsWhenItIsToldAndLeavesNothing) {
  test_session session(store_);
  struct stop {};
  for (const bool throws : {false, true}) {
    bool is_done = false;
    for (int calls = 0; !is_done; ++calls) {
      SCOPED_TRACE(::testing::Message() << "after " << calls << " calls");
      int called = 0;
      copy_progress last;
      copy_options options;
      options.progress = [&](const copy_progress& reached) {
        EXPECT_GE(reached.written, last.written);
        EXPECT_GE(reached.verified, last.verified);
        last = reached;
        if (called++ < calls) return true;
        if (throws) throw stop();
        return false;
      };
      try {
        is_done = session.db().copy_to(path("copy"), options);
      } catch (const stop&) {
      }
      EXPECT_EQ(is_done, !beside().empty());
      if (!is_done) continue;
      EXPECT_EQ(last.written, last.bytes);
      EXPECT_EQ(last.verified, last.bytes);
    }
    EXPECT_EQ(beside(), std::vector<std::string>{"copy"});
    fs::remove_all(path("copy"));
  }
}

TEST_F(CopyTest, OneAtATimeIsMadeUnderAName) {
  test_session session(store_);
  copy_options options;
  std::optional<error_code> second;
  options.progress = [&](const copy_progress&) {
    if (!second) second = code_of([&] { session.db().copy_to(path("copy")); });
    return true;
  };
  EXPECT_TRUE(session.db().copy_to(path("copy"), options));
  EXPECT_EQ(second, error_code::database_in_use);
  EXPECT_EQ(values_in(configuration_of(path("copy"))).size(), std::size_t{pairs});
}

// A flipped bit in what no session has read is found while the copy is made.
TEST_F(CopyTest, DamageIsFoundAndNotCopied) {
  const std::string file = path("data0/store.db");
  std::string content;
  {
    std::ifstream in(file, std::ios::binary);
    content.assign(std::istreambuf_iterator<char>(in), {});
  }
  const std::size_t at = content.rfind("S\0\0\0", std::string::npos, 4);  // a segment's kind
  ASSERT_NE(at, std::string::npos);
  content[at + 40] ^= 1;
  std::ofstream(file, std::ios::binary) << content;
  database db;
  ASSERT_TRUE(db.open(store_.configuration().c_str()));
  EXPECT_EQ(code_of([&] { db.copy_to(path("copy")); }), error_code::corrupt_data);
  EXPECT_EQ(beside(), std::vector<std::string>());
}

// On a disk of its own.
class CopyFaultTest : public CopyTest {
 protected:
  CopyFaultTest() : CopyTest(scratch_directory::place::in_memory) {
    test_session session(store_);
    for (int i = 0; i < 3; ++i) add_to_pair(session, cells_of(session), 0);
  }

  // There is no copy, or a whole one; and one can be made.
  void check(bool must_be_there) {
    if (fs::exists(path("copy")) || must_be_there) {
      EXPECT_EQ(values_in(configuration_of(path("copy"))), (std::vector<std::int64_t>{3, 0, 0}));
      fs::remove_all(path("copy"));
    }
    EXPECT_TRUE(test_session(store_).db().copy_to(path("copy")));
    EXPECT_EQ(values_in(configuration_of(path("copy"))), (std::vector<std::int64_t>{3, 0, 0}));
    EXPECT_EQ(beside(), std::vector<std::string>{"copy"});
    fs::remove_all(path("copy"));
  }

  faulty_vfs disk_;
};

TEST_F(CopyFaultTest, ADiskThatFailsAtAnyPointLeavesNoCopyOrAWholeOne) {
  struct row {
    operation what;
    fault how;
    bool for_good;
  };
  const row cases[] = {
      {operation::open, fault::io_error, false},  {operation::read, fault::io_error, false},
      {operation::write, fault::io_error, false}, {operation::write, fault::full, true},
      {operation::write, fault::torn, false},     {operation::sync, fault::io_error, false},
      {operation::sync, fault::io_error, true},   {operation::truncate, fault::io_error, false},
      {operation::name, fault::io_error, false},  {operation::name, fault::io_error, true},
      {operation::lock, fault::io_error, false},
  };
  for (const row& c : cases) {
    for (std::uint64_t after = 0;; ++after) {
      SCOPED_TRACE(::testing::Message() << "operation " << static_cast<int>(c.what) << ", fault "
                                        << static_cast<int>(c.how) << ", after " << after);
      bool is_made = false, failed = false;
      {
        test_session session(store_);
        disk_.arm({faulty_vfs::bit(c.what), after, c.how, c.for_good});
        try {
          is_made = session.db().copy_to(path("copy"));
        } catch (const database_error& error) {
          EXPECT_THAT(error.code(),
                      ::testing::AnyOf(error_code::input_output, error_code::storage_full,
                                       error_code::corrupt_data));  // met while it is verified
        }
        failed = disk_.has_failed();
        disk_.disarm();
      }
      EXPECT_TRUE(is_made || failed);
      check(is_made);
      if (HasFailure()) return;
      if (!failed) break;
    }
  }
}

// Each file operation in turn is the last one of a process.
TEST_F(CopyFaultTest, AProcessKilledAtAnyPointLeavesNoCopyOrAWholeOne) {
  bool was_killed = true;
  for (std::uint64_t operations = 0; was_killed; ++operations) {
    SCOPED_TRACE(::testing::Message() << "killed after " << operations << " operations");
    const pid_t child = ::fork();
    if (child == 0) {
      try {
        database db;
        if (!db.open(store_.configuration().c_str())) ::_exit(1);
        disk_.arm({faulty_vfs::all_operations, operations, fault::kill, true});
        const bool is_made = db.copy_to(path("copy"));
        ::_exit(is_made ? 0 : 2);
      } catch (...) {
        ::_exit(3);
      }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    ASSERT_TRUE(was_killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
    check(!was_killed);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace goods
