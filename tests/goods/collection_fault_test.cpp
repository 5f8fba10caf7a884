// Collections on a disk that fails or loses its power.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <numeric>
#include <optional>
#include <random>
#include <vector>

#include <goods/errors.h>
#include <goods/obj_storage.h>

#include "support/cell.h"
#include "support/disk_trace.h"
#include "support/faulty_vfs.h"
#include "support/test_database.h"

namespace goods {
namespace {

using cell_values = std::vector<std::int64_t>;  // values of the cells below the root
using operation = faulty_vfs::operation;

constexpr const char* short_log = "?log=64K";
constexpr int storages_collected = 2;

cell_values chain_of(test_session& session) {
  cell_values values;
  for (ref<cell> at(session.root()->next); at; at = ref<cell>(at->next))
    values.push_back(at->value);
  return values;
}

std::size_t objects_in_all_storages(database& db) {
  std::size_t count = 0;
  for (storage_number s = 0; s < storages_collected; ++s)
    db.storage(s).dbs().for_each([&](const object_state&) {
      ++count;
      return true;
    });
  return count;
}

// A step cuts off a part of the chain, or adds to it, which is one commit: now and then over both
// storages.
constexpr int steps = 12;
// So many that whole groups of neighbours become free, and are used again.
constexpr std::size_t links = 70, cut = 85;

void apply(int step, cell_values& to) {
  if (step % 3 == 2) {
    to.erase(to.begin(), to.begin() + cut);
    return;
  }
  cell_values added(links);
  std::iota(added.begin(), added.end(), step * 100);
  to.insert(to.begin(), added.begin(), added.end());
}

void apply(int step, test_session& session) {
  const ref<cell> root = session.root();
  ref<cell> first(root->next);
  if (step % 3 == 2) {
    for (std::size_t i = 0; i < cut; ++i) first = ref<cell>(first->next);
  } else {
    for (std::size_t i = links; i-- > 0;) {
      first = new_cell(step * 100 + static_cast<std::int64_t>(i), first);
      if (step % 4 == 1 && i == links / 2) modify(first)->attach_to_storage(&session.db(), 1);
    }
  }
  modify(root)->next = first;
}

cell_values chain_after(int count) {
  cell_values result;
  for (int i = 0; i < count; ++i) apply(i, result);
  return result;
}

class CollectionFaultTest : public testing::Test {
 protected:
  // Cuts off, adds and collects. Free numbers are those of the last collection, or were found when
  // the storages were opened.
  void work(const test_store& store) {
    std::optional<test_session> session;
    for (int i = 0; i < steps; ++i) {
      if (i % 4 == 0) session.emplace(store);
      disk_.note(2 * static_cast<std::uint64_t>(i));
      apply(i, *session);
      disk_.note(2 * static_cast<std::uint64_t>(i) + 1);
      if (i % 2 == 1) session->db().start_gc();
    }
    object_number highest = 0;
    session->db().storage(0).dbs().for_each([&](const object_state& state) {
      highest = state.number;
      return true;
    });
    EXPECT_LT(highest, root_object_number + steps * 2 / 3 * links) << "no number was used again";
  }

  // What is wrong with the database of which between `least` and `most` steps must be there.
  static std::string fault_of(const std::string& directory, int least, int most) try {
    test_session session(directory + "/test.cfg");
    const cell_values found = chain_of(session);
    int count = least;
    while (count <= most && found != chain_after(count)) ++count;
    if (count > most) return "it has none of the states that it may have";
    session.db().start_gc();
    if (chain_of(session) != found) return "a collection removed what is needed";
    if (objects_in_all_storages(session.db()) != found.size() + 1)
      return "a collection left something";
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }

  // Returns how many images are wrong.
  unsigned lose_power(const disk_trace& trace, unsigned images, std::minstd_rand& random,
                      const power_loss::sync_filter& counts = {}) {
    int least = 0, most = 0;
    unsigned wrong = 0;
    for_each_loss(
        trace, images, random, counts,
        [&](std::uint64_t note) { ++(note % 2 == 0 ? most : least); },
        [&](const disk_image& image) {
          const scratch_directory scratch(scratch_directory::place::in_memory);
          write_image(image, trace.root, scratch.path());
          const std::string fault = fault_of(scratch.path().string(), least, most);
          if (fault.empty()) return;
          ++wrong;
          why_ = fault;
        });
    return wrong;
  }

  faulty_vfs disk_;
  std::string why_;
};

TEST_F(CollectionFaultTest, ALossOfPowerLosesNothingThatIsNeeded) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  const test_store store(storages_collected, short_log, scratch_directory::place::in_memory);
  test_session(store).root();
  disk_.record(store.directory().path().string());
  work(store);
  const disk_trace trace = disk_.stop_recording();
  EXPECT_EQ(lose_power(trace, power_loss_images() / 5, random), 0U) << why_;
  // The control: a disk that does not sync is found out.
  const auto nothing = [](const disk_event&) { return false; };
  EXPECT_GT(lose_power(trace, 50, random, nothing), 0U);
}

TEST_F(CollectionFaultTest, ADiskThatFailsAtAnyPointLosesNothingThatIsNeeded) {
  const test_store good(storages_collected, short_log, scratch_directory::place::in_memory);
  {
    test_session session(good);
    for (int i = 0; i < steps; ++i) apply(i, session);
  }
  for (const operation what : {operation::open, operation::read, operation::write, operation::sync,
                               operation::truncate, operation::name, operation::lock})
    for (std::uint64_t after = 0;; ++after) {
      SCOPED_TRACE(testing::Message() << "operation " << static_cast<int>(what) << ", " << after);
      const scratch_directory scratch(scratch_directory::place::in_memory);
      std::filesystem::copy(good.directory().path(), scratch.path(),
                            std::filesystem::copy_options::recursive);
      disk_.arm({faulty_vfs::bit(what), after, faulty_vfs::fault::io_error, false});
      try {
        test_session session(scratch.file("test.cfg"));
        session.db().start_gc();
      } catch (const std::exception&) {  // it may say so
      }
      const bool failed = disk_.has_failed();
      disk_.disarm();
      ASSERT_EQ(fault_of(scratch.path().string(), steps, steps), "");
      if (!failed) break;
    }
}

// Each file operation in turn is the last one of a process that collects; the next collection
// removes all the rest.
TEST_F(CollectionFaultTest, AProcessKilledAtAnyPointLosesNothingThatIsNeeded) {
  const test_store good(storages_collected, short_log, scratch_directory::place::in_memory);
  {
    test_session session(good);
    for (int i = 0; i < steps; ++i) apply(i, session);
  }
  bool was_killed = true;
  for (std::uint64_t operations = 0; was_killed; ++operations) {
    SCOPED_TRACE(testing::Message() << "killed after " << operations << " operations");
    const scratch_directory scratch(scratch_directory::place::in_memory);
    std::filesystem::copy(good.directory().path(), scratch.path(),
                          std::filesystem::copy_options::recursive);
    const pid_t child = ::fork();
    if (child == 0) {
      try {
        // Opened, collected and closed: nothing of it is spared.
        disk_.arm({faulty_vfs::all_operations, operations, faulty_vfs::fault::kill, true});
        test_session(scratch.file("test.cfg")).db().start_gc();
        ::_exit(0);
      } catch (...) {
        ::_exit(1);
      }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    ASSERT_TRUE(was_killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
    ASSERT_EQ(fault_of(scratch.path().string(), steps, steps), "");
  }
}

}  // namespace
}  // namespace goods
