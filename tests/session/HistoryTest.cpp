// Whether transactions of many threads and sessions could have run one after the other: what they
// did is written down and looked through, and so it is with faults planted, which must be found.
#include <gtest/gtest.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/history.h"
#include "support/history_workload.h"
#include "support/killed_process.h"
#include "support/planted_faults.h"
#include "support/scratch_directory.h"

namespace tarns {
namespace {

using work = history_workload::work;

// Under the thread sanitizer everything takes ten times as long.
#ifdef __SANITIZE_THREAD__
constexpr std::uint64_t kTransactions = 3'000;
#else
constexpr std::uint64_t kTransactions = 20'000;
#endif

// A database with some sessions on it, each of which several threads work in.
class HistoryTest : public testing::Test {
 protected:
  static constexpr int kSessions = 3, kThreads = 8;

  HistoryTest() : random_(seed_) { TarnManager::Initialize(); }

  void configure(int storages, const std::string& options) {
    std::ofstream file(configuration());
    file << storages << '\n';
    for (int i = 0; i < storages; ++i) file << i << ": file:./data" << i << options << '\n';
  }

  void open() {
    for (int i = 0; i < kSessions; ++i) {
      sessions_.emplace_back();
      sessions_.back().connect(configuration().c_str());
      // So small that objects are dropped and loaded again.
      sessions_.back().setCacheLimit(std::size_t{1} << 20);
    }
    const TarnAttachment attachment(sessions_[0]);
    history_workload::prepare(sessions_[0]);
  }

  // All threads together, until that many transactions have ended, or for that long.
  void run(history_workload& workload, const kept_history& log, std::uint64_t transactions,
           std::chrono::seconds limit, bool toleratesErrors) {
    const auto until = std::chrono::steady_clock::now() + limit;
    const std::uint64_t goal = log.count() + transactions;
    const auto isEnough = [&] {
      return log.count() >= goal || std::chrono::steady_clock::now() > until;
    };
    std::vector<std::jthread> threads;
    for (int number = 0; number < kThreads; ++number) {
      threads.emplace_back([&, number, seed = random_()] {
        const auto session = static_cast<std::size_t>(number % kSessions);
        const std::string who =
            "session " + std::to_string(session) + ", thread " + std::to_string(number);
        const TarnAttachment attachment(sessions_[session]);
        try {
          workload.run(sessions_[session], who, static_cast<unsigned>(seed), isEnough,
                       toleratesErrors);
        } catch (const TarnException& error) {
          ADD_FAILURE() << who << ": " << error.getError();
        }
      });
    }
  }

  void readAll(history_workload& workload) {
    const TarnAttachment attachment(sessions_[0]);
    workload.read_all(sessions_[0], workload.end_of_lists());
  }

  std::string configuration() const { return directory_.file("tarns.conf"); }

  const unsigned seed_ = std::random_device()();
  const testing::ScopedTrace trace_{__FILE__, __LINE__, "seed " + std::to_string(seed_)};
  std::minstd_rand random_;
  std::deque<TarnManager> sessions_;

 private:
  scratch_directory directory_{scratch_directory::place::in_memory};
};

struct Storages {
  const char* name;
  int count;
  const char* options;
};

class StoredHistoryTest : public HistoryTest, public testing::WithParamInterface<Storages> {};

INSTANTIATE_TEST_SUITE_P(Storages, StoredHistoryTest,
                         testing::Values(Storages{"One", 1, ""},
                                         Storages{"OneWithManyMerges", 1,
                                                  "?durability=relaxed&log=64K&cache=0"},
                                         Storages{"Three", 3, "?durability=relaxed"}),
                         [](const auto& row) { return row.param.name; });

TEST_P(StoredHistoryTest, CouldHaveRunOneAfterTheOther) {
  configure(GetParam().count, GetParam().options);
  open();
  kept_history log;
  history_workload workload(log, 1, 0);
  run(workload, log, kTransactions, std::chrono::minutes(4), false);
  readAll(workload);
  EXPECT_GE(log.count(), kTransactions);
  for (unsigned kind = 0; kind < static_cast<unsigned>(work::count); ++kind) {
    EXPECT_GT(workload.count_of(static_cast<work>(kind)), kTransactions / 1000)
        << "kind of work " << kind;
  }
  EXPECT_EQ(describe(check_history(log.history())), "nothing");
}

// What is known of a killed process's transactions: the last line of each.
class KilledHistory {
 public:
  void note(const std::string& line) {
    if (line.starts_with("error")) {
      ADD_FAILURE() << line;
      return;
    }
    history_transaction one = transaction_of(line);
    for (const history_step& step : one.steps) {
      endOfLists_ =
          std::max(endOfLists_, 1 + static_cast<unsigned>(std::stoul(step.key.substr(1))));
    }
    const auto key = std::pair(one.who, one.begun);
    known_[key] = std::move(one);
  }
  unsigned endOfLists() const { return endOfLists_; }
  std::vector<history_transaction> all() const {
    std::vector<history_transaction> transactions;
    for (const auto& [key, one] : known_) transactions.push_back(one);
    return transactions;
  }

 private:
  std::map<std::pair<std::string, std::int64_t>, history_transaction> known_;
  unsigned endOfLists_ = 0;
};

class KilledHistoryTest : public HistoryTest, public testing::WithParamInterface<Storages> {};

INSTANTIATE_TEST_SUITE_P(Storages, KilledHistoryTest,
                         testing::Values(Storages{"One", 1, "?log=64K"}, Storages{"Two", 2, ""}),
                         [](const auto& row) { return row.param.name; });

TEST_P(KilledHistoryTest, CouldHaveRunOneAfterTheOther) {
  constexpr unsigned kCycles = 40;
  constexpr std::chrono::seconds kLimit(20);
  configure(GetParam().count, GetParam().options);
  KilledHistory log;
  for (unsigned cycle = 0; cycle < kCycles; ++cycle) {
    // Some of the lists that the last process worked on.
    const unsigned firstList = std::max(log.endOfLists(), 4U) - 4;
    killed_process writer({PROGRAM_HISTORY_WRITER, configuration(),
                           std::to_string(cycle * 1'000'000 + 1), std::to_string(firstList),
                           std::to_string(random_())});
    // After some transactions, and mostly while a commit is on its way.
    for (unsigned lines = 1 + random_() % 60; lines > 0;) {
      const std::string line = writer.next_line(kLimit);
      ASSERT_FALSE(line.empty());
      log.note(line);
      const bool commits = transaction_of(line).end == history_transaction::outcome::unknown;
      if (lines > 1 || commits) --lines;
    }
    for (const std::string& line : writer.kill_after(std::chrono::microseconds(random_() % 300)))
      log.note(line);
  }
  open();
  kept_history end;
  history_workload workload(end, 1, 0);
  const TarnAttachment attachment(sessions_[0]);
  workload.read_all(sessions_[0], log.endOfLists());
  std::vector<history_transaction> history = log.all();
  history.insert(history.end(), end.history().begin(), end.history().end());
  using outcome = history_transaction::outcome;
  const auto count = [&](outcome kind) {
    return std::ranges::count(history, kind, &history_transaction::end);
  };
  EXPECT_GT(count(outcome::committed), kCycles);
  EXPECT_GT(count(outcome::unknown), 0);
  EXPECT_EQ(describe(check_history(history)), "nothing");
}

struct PlantedFault {
  const char* name;
  planted_faults::fault what;
  unsigned every;
};

class PlantedFaultTest : public HistoryTest, public testing::WithParamInterface<PlantedFault> {};

INSTANTIATE_TEST_SUITE_P(
    Faults, PlantedFaultTest,
    testing::Values(PlantedFault{"SkippedLock", planted_faults::fault::skipped_lock, 7},
                    PlantedFault{"StaleState", planted_faults::fault::stale_state, 50},
                    PlantedFault{"LateNotice", planted_faults::fault::late_notice, 50}),
    [](const auto& row) { return row.param.name; });

TEST_P(PlantedFaultTest, IsFound) {
  constexpr std::chrono::seconds kLimit(60);
  planted_faults faults(GetParam().what, GetParam().every);
  configure(1, "?durability=relaxed");
  open();
  kept_history log;
  history_workload workload(log, 1, 0);
  const auto until = std::chrono::steady_clock::now() + kLimit;
  std::vector<history_finding> findings;
  for (std::uint64_t transactions = 1000;
       findings.empty() && std::chrono::steady_clock::now() < until; transactions *= 2) {
    run(workload, log, transactions, kLimit, true);
    findings = check_history(log.history());
  }
  EXPECT_FALSE(findings.empty()) << log.count() << " transactions, " << faults.count() << " faults";
  sessions_.clear();
}

}  // namespace
}  // namespace tarns
