#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "services/TaskTable.h"

namespace tarns {

// Goes through the entries of Due that are due, from the first time on. Keeps in mind which of them
// this program has left to others: those are not looked at again, and as long as nothing else comes
// before them even their names are passed over, but for one walk in every `interval`.
// Threads: one.
class DueWalk {
 public:
  using Time = TarnTask::Time;
  enum class Outcome {
    kDone,
    kGone,
    kLeft,       // to others
    kPostponed,  // to be tried again soon
  };
  struct Steps {
    // Up to `limit` names behind one, in their order.
    std::function<std::vector<std::string>(const std::string& after, std::size_t limit)> names;
    std::function<bool()> mayGoOn;  // asked before each entry that is looked at
    std::function<Outcome(const std::string& name, const TaskTable::DueEntry& entry)> look;
  };

  static constexpr std::size_t kNamesAtOnce = 64;

  explicit DueWalk(std::chrono::milliseconds interval) : interval_(interval) {}

  // When to go again; none: when something has changed. What is put before entries that are passed
  // over is found within `interval`.
  std::optional<Time> walk(const Steps& steps);
  // What has been left may be of this program now, or something else.
  void forget();

 private:
  // A walk from the first entry on.
  struct Whole {
    std::vector<TaskTable::DueEntry> left;
    std::string leading;  // the last of those that come before anything else
    std::size_t numLeading = 0;
    bool isLeading = true;
  };

  bool isLeft(const TaskTable::DueEntry& entry) const;
  void leave(const TaskTable::DueEntry& entry);
  static void Note(Whole& whole, bool isLeft, const std::string& name,
                   const TaskTable::DueEntry& entry);
  std::optional<Time> walkFrom(std::string last, const Steps& steps, Whole& whole);

  using Clock = std::chrono::steady_clock;
  const std::chrono::milliseconds interval_;
  std::vector<TaskTable::DueEntry> left_;  // ascending
  std::string passed_;                     // the name up to which all are left; empty for none
  Clock::time_point nextWhole_;
};

}  // namespace tarns
