// Salvage of several storages: tests of the tree are in session/SalvageTest.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <goods/errors.h>
#include <goods/obj_storage.h>
#include <goods/salvage.h>

#include "support/cell.h"
#include "support/faulty_vfs.h"
#include "support/replaced_rows.h"
#include "support/test_database.h"

namespace goods {
namespace {

namespace fs = std::filesystem;
using values = std::vector<std::int64_t>;

constexpr int storages_salvaged = 2;

// The cells below the root; -1: the chain ends with an object that cannot be read.
values values_in(test_session& session) {
  values found;
  try {
    for (ref<cell> at(session.root()->next); at; at = ref<cell>(at->next))
      found.push_back(at->value);
  } catch (const database_error& error) {
    EXPECT_EQ(error.code(), error_code::corrupt_data) << error.what();
    found.push_back(-1);
  }
  return found;
}

// Cells in turn in one storage and the other.
void put_chain(test_session& session, std::int64_t first, int length) {
  const ref<cell> root = session.root();
  session.session().atomically([&] {
    ref<cell> chain;
    for (int i = length; i-- > 0;) {
      chain = new_cell(first + i, chain);
      modify(chain)->attach_to_storage(&session.db(),
                                       static_cast<std::uint32_t>(i) % storages_salvaged);
    }
    modify(root)->next = chain;
  });
}

class SalvageOfSeveralTest : public testing::Test {
 protected:
  // In the store of that directory, which nobody has open.
  static values salvaged(const fs::path& directory) {
    const test_store into(storages_salvaged, "?durability=relaxed",
                          scratch_directory::place::in_memory);
    {
      database made;
      EXPECT_TRUE(made.open(into.configuration().c_str()));
      (void)salvage(directory / "test.cfg", made, {});
    }
    test_session session(into);
    return values_in(session);
  }
  static values opened(const fs::path& directory) {
    test_session session(directory / "test.cfg");
    return values_in(session);
  }

  faulty_vfs disk_;
};

TEST_F(SalvageOfSeveralTest, WhatIsWholeInEitherComesOver) {
  const test_store store(storages_salvaged, "", scratch_directory::place::in_memory);
  object_id third = 0;
  {
    test_session session(store);
    put_chain(session, 10, 6);
    ref<cell> at(session.root()->next);
    for (int i = 0; i < 3; ++i) at = ref<cell>(at->next);
    third = at.id();
  }
  const fs::path directory = store.directory().path();
  EXPECT_EQ(salvaged(directory), (values{10, 11, 12, 13, 14, 15}));
  ASSERT_EQ(storage_of(third), 1);
  rewrite_segment(
      directory / "data1/store.db", number_of(third),
      [&](segment_builder& builder, const segment&) { builder.remove(slot_of(number_of(third))); });
  EXPECT_EQ(salvaged(directory), (values{10, 11, 12})) << "a reference to what is lost is null";
  fs::remove(directory / "data1/store.db");
  EXPECT_THROW(salvaged(directory), database_error) << "a storage without a file";
}

// A process is killed at each of its operations while it commits to both storages; in between it
// commits to one of them.
TEST_F(SalvageOfSeveralTest, CommitsAreFinishedOrDroppedAsOpeningDoes) {
  const test_store good(storages_salvaged, "?log=64K", scratch_directory::place::in_memory);
  {
    test_session session(good);
    put_chain(session, 10, 3);
  }
  bool was_killed = true;
  std::vector<values> seen;
  for (std::uint64_t operations = 0; was_killed; ++operations) {
    SCOPED_TRACE(testing::Message() << "killed after " << operations << " operations");
    const scratch_directory scratch(scratch_directory::place::in_memory);
    const fs::path one = scratch.path() / "one", other = scratch.path() / "other";
    fs::copy(good.directory().path(), one, fs::copy_options::recursive);
    const pid_t child = ::fork();
    if (child == 0) {
      try {
        test_session session(one / "test.cfg");
        const ref<cell> root = session.root();
        disk_.arm({faulty_vfs::all_operations, operations, faulty_vfs::fault::kill, true});
        put_chain(session, 20, 4);
        modify(root)->value = 1;
        put_chain(session, 30, 5);
        ::_exit(0);
      } catch (...) {
        ::_exit(1);
      }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    ASSERT_TRUE(was_killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
    fs::copy(one, other, fs::copy_options::recursive);
    const values expected = opened(one);
    ASSERT_EQ(salvaged(other), expected);
    if (seen.empty() || seen.back() != expected) seen.push_back(expected);
  }
  EXPECT_THAT(seen, testing::ElementsAre(values{10, 11, 12}, values{20, 21, 22, 23},
                                         values{30, 31, 32, 33, 34}));
}

}  // namespace
}  // namespace goods
