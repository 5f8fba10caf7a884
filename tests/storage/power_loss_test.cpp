// Machines that lose their power, at every moment of a workload.
//
// A workload runs once, on a disk that writes down what is done to it. From that, images are made
// of what the disk may hold after a loss of power at each moment; each is opened, and must have
// everything that had been acknowledged by then and nothing of any commit in part.

#include <functional>
#include <thread>

#include "storage/multi_commit.h"
#include "storage/numbered_commits.h"
#include "storage/storage_fixture.h"
#include "support/disk_trace.h"

namespace goods {
namespace {

// Larger than a file of the smallest log takes, so that it goes past the log.
class long_commit : public numbered_commit {
 public:
  explicit long_commit(unsigned number) : numbered_commit(number) {
    for (object_number i = 0; i < 5; ++i)
      put(first_numbered + 5000 + i, std::string(8000, static_cast<char>('a' + number % 26)));
  }
};

numbered_commit commit_of(unsigned number) {
  return number % 8 == 7 ? long_commit(number) : numbered_commit(number);
}

using storage_list = std::vector<std::shared_ptr<dbs_storage>>;

// Commits, one after the other, to the storages of a directory.
struct workload {
  const char* name;
  std::vector<const char*> addresses;
  unsigned commits;
  bool relaxed;          // may lose the last ones
  double share = 1;      // of the images
  unsigned reopens = 0;  // after each so many commits
};

void PrintTo(const workload& row, std::ostream* out) { *out << row.name; }

const workload workloads[] = {
    {"creation", {"file:one?log=64K"}, 2, false, 1, 1},
    {"commits", {"file:one?log=64K"}, 40, false, 2, 17},
    {"relaxed", {"file:one?log=64K&durability=relaxed"}, 30, true, 1, 13},
    {"several_storages", {"file:one?log=64K", "file:two?log=64K"}, 6, false, 1, 3},
};

// How many commits there must be and may be.
struct range {
  unsigned least = 0, most = 0;
};

class PowerLossTest : public testing::TestWithParam<workload> {
 protected:
  // What is noted in a trace, with the number of a commit.
  enum note : std::uint64_t {
    begun,         // it may be there from now on
    acknowledged,  // it must be
    found,         // it is not there, but those before it are, and are durable
    notes
  };

  // Opens all of its storages, settles what is between them.
  storage_list open_all(const std::string& directory) const {
    storage_list all;
    std::vector<dbs_storage*> pointers;
    for (const char* address : GetParam().addresses) {
      all.push_back(open_storage(address, directory));
      pointers.push_back(all.back().get());
    }
    recover_several(pointers);
    return all;
  }

  // Every second one goes to all storages at once, the others to one after the other.
  static bool is_of_several(unsigned number) { return number % 2 == 0; }

  void commit(const storage_list& storages, unsigned number) {
    disk_.note(number * notes + begun);
    const numbered_commit next = commit_of(number);
    std::vector<commit_part> parts;
    for (const auto& storage : storages) {
      some_layout(*storage);
      parts.push_back({storage.get(), next.request()});
    }
    if (is_of_several(number))
      commit_several(parts);
    else
      for (const auto& storage : storages) storage->commit(next.request());
    disk_.note(number * notes + acknowledged);
  }

  // Runs the workload.
  disk_trace run() {
    const scratch_directory scratch(scratch_directory::place::in_memory);
    const std::string directory = scratch.path().string();
    disk_.record(directory);
    storage_list storages;
    for (unsigned i = 0; i < GetParam().commits; ++i) {
      if (i % GetParam().reopens == 0) {
        storages.clear();
        storages = open_all(directory);
        disk_.note(i * notes + found);
      }
      commit(storages, i);
      if (GetParam().relaxed && i % 5 == 0)  // leaves the background time to sync
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    storages.clear();
    return disk_.stop_recording();
  }

  const std::vector<contents>& states() {
    if (states_.empty()) states_.emplace_back();
    while (states_.size() <= GetParam().commits) {
      contents next = states_.back();
      commit_of(static_cast<unsigned>(states_.size() - 1)).apply(next);
      states_.push_back(std::move(next));
    }
    return states_;
  }

  // How many commits a storage has. Throws when it has half of one.
  unsigned commits_in(dbs_storage& storage) {
    const auto at = std::ranges::find(states(), load_all(storage));
    if (at == states().end()) throw std::runtime_error("it has half a commit");
    return static_cast<unsigned>(at - states().begin());
  }

  // Opens an image and throws what is wrong with it; or goes on with the next commit.
  void check_image(const std::string& directory, const range& expected, bool goes_on) {
    const storage_list storages = open_all(directory);
    range has{~0U, 0};
    for (const auto& storage : storages) {
      const unsigned number = commits_in(*storage);
      has = {std::min(has.least, number), std::max(has.most, number)};
    }
    if (has.least < expected.least || has.most > expected.most)
      throw std::runtime_error("it has " + std::to_string(has.least) + " to " +
                               std::to_string(has.most) + " commits instead of " +
                               std::to_string(expected.least) + " to " +
                               std::to_string(expected.most));
    if (has.least != has.most && is_of_several(has.least))
      throw std::runtime_error("a commit is in one storage only");
    if (!goes_on || has.least != has.most) return;
    disk_.note(has.least * notes + found);
    if (has.least < GetParam().commits) commit(storages, has.least);
  }

  struct conditions {
    power_loss::sync_filter counts = {};  // null: syncs do what they should
    bool twice = true;                    // now and then, another loss follows
    range expected = {};                  // at the beginning
  };

  // Whether an image is right; and where the power is lost twice, whether so is what the second
  // loss leaves, while the store is opened and used again.
  bool check(const disk_image& image, const std::string& root, const range& expected, bool twice,
             std::minstd_rand& random) {
    const scratch_directory scratch(scratch_directory::place::in_memory);
    const std::string directory = scratch.path().string();
    write_image(image, root, scratch.path());
    if (twice) disk_.record(directory);
    bool good = true;
    try {
      check_image(directory, expected, twice);
    } catch (const std::exception& error) {
      good = false;
      why_ = error.what();
    }
    if (!twice) return good;
    const disk_trace again = disk_.stop_recording();
    return good && lose_power(again, 4, random, {{}, false, expected}) == 0;
  }

  // Makes so many images, spread over the whole trace. Returns how many are wrong.
  unsigned lose_power(const disk_trace& trace, unsigned images, std::minstd_rand& random,
                      conditions with) {
    unsigned wrong = 0, made = 0;
    for_each_loss(
        trace, images, random, with.counts,
        [&](std::uint64_t noted) { follow(noted, with.expected); },
        [&](const disk_image& image) {
          const bool twice = with.twice && made++ % 20 == 0;
          wrong += check(image, trace.root, with.expected, twice, random) ? 0 : 1;
        });
    images_ += images;
    return wrong;
  }

  static void follow(std::uint64_t noted, range& expected) {
    const auto number = static_cast<unsigned>(noted / notes);
    switch (static_cast<note>(noted % notes)) {
      case begun:
        expected.most = std::max(expected.most, number + 1);
        break;
      case acknowledged:
        if (!GetParam().relaxed) expected.least = number + 1;
        break;
      case found:
        expected = {number, number};
        break;
      case notes:
        break;
    }
  }

  unsigned share_of_images() const {
    double all = 0;
    for (const workload& one : workloads) all += one.share;
    return static_cast<unsigned>(power_loss_images() * GetParam().share / all);
  }

  faulty_vfs disk_;
  std::vector<contents> states_;  // after so many commits
  std::string why_;
  unsigned images_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Workloads, PowerLossTest, testing::ValuesIn(workloads),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(PowerLossTest, LeavesWhatWasAcknowledged) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  const disk_trace trace = run();
  EXPECT_EQ(lose_power(trace, share_of_images(), random, {}), 0U) << why_;
  RecordProperty("images", static_cast<int>(images_));
}

// The controls: disks that do not sync what they are told to are found out.
TEST_P(PowerLossTest, FindsDisksThatDoNotSync) {
  std::minstd_rand random(7);
  const disk_trace trace = run();
  const auto is_of = [](const disk_event& event, const char* name) {
    return event.path.find(name) != std::string::npos;
  };
  const struct {
    const char* what;
    power_loss::sync_filter counts;
  } cases[] = {
      {"the commit log", [&](const auto& event) { return !is_of(event, "/commits."); }},
      {"SQLite's files", [&](const auto& event) { return !is_of(event, "/store."); }},
      {"directories",
       [](const auto& event) { return event.what != disk_event::kind::sync_directory; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_GT(lose_power(trace, 60, random, {c.counts, false}), 0U);
  }
}

// ---- a disk that fails, and then loses its power

struct fault_row {
  const char* name;
  faulty_vfs::operation what;
  faulty_vfs::fault how;
  bool for_good;
  bool relaxed = false;  // may lose the last ones
};

void PrintTo(const fault_row& row, std::ostream* out) { *out << row.name; }

class FailingPowerLossTest : public testing::TestWithParam<fault_row> {
 protected:
  static constexpr unsigned commits = 14;

  // What may be found from one moment on.
  struct moment {
    contents certain;
    std::optional<contents> other;
  };

  void next_moment(const contents& certain, const std::optional<contents>& other = {}) {
    moments_.push_back({certain, other});
    disk_.note(moments_.size() - 1);
  }

  // Commits on a disk of which one operation fails, or all from it on; until the store says that
  // it must be opened again.
  disk_trace run(std::uint64_t after) {
    const scratch_directory scratch(scratch_directory::place::in_memory);
    disk_.record(scratch.path().string());
    moments_.clear();
    contents all;
    next_moment(all);
    auto storage = open_storage(address(), scratch.path().string());
    some_layout(*storage);
    disk_.arm({faulty_vfs::bit(GetParam().what), after, GetParam().how, GetParam().for_good});
    for (unsigned i = 0; i < commits; ++i) {
      const numbered_commit next = commit_of(i);
      contents with = all;
      next.apply(with);
      next_moment(all, with);
      const auto failure = code_of([&] { storage->commit(next.request()); });
      if (failure == error_code::outcome_unknown) break;
      if (!failure) all = with;
      next_moment(all);
      // Leaves the background time to sync.
      if (GetParam().relaxed && i == commits / 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
    }
    storage.reset();
    disk_.disarm();
    return disk_.stop_recording();
  }

  static std::string address() {
    return GetParam().relaxed ? "file:one?log=64K&durability=relaxed" : "file:one?log=64K";
  }

  std::string fault_of(const std::string& directory, std::size_t now) {
    try {
      const contents found = load_all(*open_storage(address(), directory));
      if (found == moments_[now].certain || found == moments_[now].other) return {};
      for (std::size_t i = 0; i < now && GetParam().relaxed; ++i)
        if (found == moments_[i].certain) return {};
      return "something else is in it";
    } catch (const std::exception& error) {
      return error.what();
    }
  }

  faulty_vfs disk_;
  std::vector<moment> moments_;
};

constexpr auto sync_operation = faulty_vfs::operation::sync;
constexpr auto write_operation = faulty_vfs::operation::write;

INSTANTIATE_TEST_SUITE_P(
    Disks, FailingPowerLossTest,
    testing::Values(
        fault_row{"sync_once", sync_operation, faulty_vfs::fault::io_error, false},
        fault_row{"sync_for_good", sync_operation, faulty_vfs::fault::io_error, true},
        fault_row{"relaxed_sync_once", sync_operation, faulty_vfs::fault::io_error, false, true},
        fault_row{"torn_write", write_operation, faulty_vfs::fault::torn, false},
        fault_row{"written_but_failed", write_operation, faulty_vfs::fault::lost_sync, false},
        fault_row{"full_for_good", write_operation, faulty_vfs::fault::full, true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(FailingPowerLossTest, LeavesWhatWasAcknowledgedAndNothingThatWasRefused) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  bool failed = true;
  for (std::uint64_t after = 0; failed && !HasFailure(); ++after) {
    SCOPED_TRACE(testing::Message() << "after " << after << " operations");
    const disk_trace trace = run(after);
    failed = disk_.has_failed();
    std::size_t now = 0;
    for_each_loss(
        trace, 8, random, {}, [&](std::uint64_t note) { now = note; },
        [&](const disk_image& image) {
          const scratch_directory scratch(scratch_directory::place::in_memory);
          write_image(image, trace.root, scratch.path());
          EXPECT_EQ(fault_of(scratch.path().string(), now), "");
        });
  }
}

}  // namespace
}  // namespace goods
