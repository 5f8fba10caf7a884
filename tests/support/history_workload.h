// Threads that work on lists in a database and write down what they did.
#pragma once

#include <tarns/session/TarnManager.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "support/history.h"

// Lists are texts under names of their own ("k17"), each below one of a few nodes ("p0" ...), which
// may be in different storages. Transactions find lists, read them, append, make new ones, move
// them from one node to another or delete them here and insert them there, and look through all
// nodes; some are rolled back. Besides there are single calls outside transactions. New lists come
// into use as time goes by, and old ones go out of use.
//
// Threads: run() may be called by many at the same time.
class history_workload {
 public:
  static constexpr int places = 4;
  static constexpr int lists_in_use = 8;

  // Told of transactions as they go on; called by the threads that run them.
  class observer {
   public:
    virtual ~observer() = default;
    // The commit comes next. It may be repeated as another transaction.
    virtual void commits(const history_transaction&) {}
    virtual void ended(history_transaction transaction) = 0;
  };

  // How often each kind of work was committed, to see that there is something of all.
  enum class work : std::uint8_t {
    look,       // at some lists
    append,     // to some lists
    move,       // of a list to another node, by one call, perhaps with an append
    take_over,  // delete here, insert there
    scan,       // of all nodes
    single,     // call outside a transaction
    roll_back,  // by the application
    repeat,     // after a deadlock
    count
  };

  // Elements are from `first_element` on; lists begin with number `first_list`.
  history_workload(observer& log, std::uint64_t first_element, unsigned first_list);

  // Makes the nodes, in the storages of the database in turn, unless they are there.
  static void prepare(tarns::TarnManager& manager);

  // Works until `is_enough` says so, on a thread that is attached to `manager`. Errors of the
  // library but deadlocks leave it, unless `tolerates_errors`: then the transaction is written down
  // as rolled back.
  void run(tarns::TarnManager& manager, const std::string& who, unsigned seed,
           const std::function<bool()>& is_enough, bool tolerates_errors = false);

  // Behind the last list that has come into use so far.
  unsigned end_of_lists() const;
  // Reads all lists up to that one, in one transaction.
  void read_all(tarns::TarnManager& manager, unsigned end);

  std::uint64_t count_of(work kind) const { return counts_[static_cast<std::size_t>(kind)]; }

 private:
  class thread_work;

  observer& log_;
  const unsigned first_list_;
  std::atomic<std::uint64_t> next_element_;
  std::atomic<std::uint64_t> transactions_{0};
  std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(work::count)> counts_{};
};

// Keeps a history in memory.
class kept_history : public history_workload::observer {
 public:
  void ended(history_transaction transaction) override {
    const std::lock_guard guard(lock_);
    history_.push_back(std::move(transaction));
    ++count_;
  }
  std::uint64_t count() const { return count_; }
  // No thread may be at work.
  const std::vector<history_transaction>& history() const { return history_; }

 private:
  std::mutex lock_;
  std::vector<history_transaction> history_;
  std::atomic<std::uint64_t> count_{0};
};
