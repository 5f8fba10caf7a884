// What threads did with lists in a database, and whether transactions that run one after the other
// could have done the same.
#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <vector>

// One look at a list, or one element more at its end.
struct history_step {
  enum class kind : std::uint8_t { read, append };

  kind what = kind::read;
  std::string key;                  // names the list, wherever it is
  std::string path;                 // where it was at that moment; for messages
  std::vector<std::uint64_t> list;  // read: all elements in order; none when there was no list
  std::uint64_t element = 0;        // appended; from 1 on, used once in the whole history
};

// One attempt: what is repeated after a deadlock is another transaction.
struct history_transaction {
  enum class outcome : std::uint8_t { committed, aborted, unknown };
  static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

  std::string who;  // "session 1, thread 3"
  std::vector<history_step> steps;
  outcome end = outcome::committed;
  // Nanoseconds of the monotonic clock, which all processes of the machine share: a moment before
  // the first step, and one after the commit was acknowledged.
  std::int64_t begun = 0;
  std::int64_t ended = never;
};

// What no run of the transactions one after the other, each between its begin and its end,
// explains.
//
//   own writes         a transaction does not read what it has written, or two different states
//   G1a                an element of a transaction that was rolled back was read
//   G1b                a state in the middle of another transaction was read
//   unknown element    nobody appended what was read
//   duplicate element  an element stands twice in a list, or was appended twice
//   lost update        two transactions appended to the same state of a list
//   forked list        two states of a list of which neither begins with the other
//   lost append        a commit was acknowledged, and a later read does not have its element
//   G0, G1c, G-single, G2
//                      a circle of dependencies: of writes; also of reads of what was written; with
//                      one read of what was overwritten then; with several. "in real time": only
//                      because one transaction had ended before another one began
struct history_finding {
  std::string kind;
  std::string text;  // the transactions concerned with their paths, and of a circle its edges
};

// All findings of a history. Of each group of transactions that depend on each other in circles:
// the shortest circle of the worst kind, and of milder kinds where that is shorter still.
//
// A transaction of unknown outcome counts as committed when somebody has read what it wrote. The
// order of a list's states is known when each append follows a read in the same transaction; of
// others as far as they were read. Takes about a second for 100,000 transactions.
std::vector<history_finding> check_history(std::span<const history_transaction> history);

// For messages of tests: all findings, or "nothing".
std::string describe(std::span<const history_finding> findings);

// A transaction as a line of text and back: "10-20 ? rx@p~x=1,2 ax@p~x=3 by thread 1" began at 10,
// had ended at 20, found x at the path p~x to be [1 2] and appended 3 to it. Behind the times "!"
// stands for rolled back and "?" for an unknown outcome; paths and "by" may be left out. Keys and
// paths have no blanks.
std::string line_of(const history_transaction& transaction);
history_transaction transaction_of(const std::string& line);
