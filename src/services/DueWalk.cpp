#include "services/DueWalk.h"

#include <algorithm>
#include <utility>

namespace tarns {

namespace {

constexpr auto kPostponement = std::chrono::seconds(1);  // before what is postponed is tried again
constexpr std::size_t kMostLeft = std::size_t{1} << 20;  // entries, of 16 bytes each

}  // namespace

void DueWalk::forget() {
  left_.clear();
  passed_.clear();
}

bool DueWalk::isLeft(const TaskTable::DueEntry& entry) const {
  return std::ranges::binary_search(left_, entry);
}

void DueWalk::leave(const TaskTable::DueEntry& entry) {
  if (left_.size() < kMostLeft) left_.insert(std::ranges::upper_bound(left_, entry), entry);
}

void DueWalk::Note(Whole& whole, bool isLeft, const std::string& name,
                   const TaskTable::DueEntry& entry) {
  whole.isLeading = whole.isLeading && isLeft;
  if (!isLeft) return;
  if (whole.left.size() < kMostLeft) whole.left.push_back(entry);
  if (!whole.isLeading) return;
  whole.leading = name;
  ++whole.numLeading;
}

std::optional<DueWalk::Time> DueWalk::walk(const Steps& steps) {
  const auto now = Clock::now();
  Whole whole;
  if (!passed_.empty() && now < nextWhole_) return walkFrom(passed_, steps, whole);
  passed_.clear();
  nextWhole_ = now + interval_;
  const auto next = walkFrom({}, steps, whole);
  // A few names are read quicker than they are worth the wait of what may come before them.
  if (whole.numLeading > kNamesAtOnce) passed_ = std::move(whole.leading);
  return next;
}

std::optional<DueWalk::Time> DueWalk::walkFrom(std::string last, const Steps& steps, Whole& whole) {
  const bool isWhole = last.empty();
  std::optional<Time> again;
  while (true) {
    const std::vector<std::string> names = steps.names(last, kNamesAtOnce);
    for (const std::string& name : names) {
      const auto entry = TaskTable::ParseDueName(name);
      if (!entry) continue;  // somebody else's
      if (entry->due > TarnTasks::Now()) {
        if (isWhole) left_ = std::move(whole.left);
        return again ? std::min(*again, entry->due) : entry->due;
      }
      bool isLeftNow = isLeft(*entry);
      if (!isLeftNow) {
        if (!steps.mayGoOn()) return TarnTasks::Now();
        const Outcome outcome = steps.look(name, *entry);
        if (outcome == Outcome::kPostponed) again = TarnTasks::Now() + kPostponement;
        isLeftNow = outcome == Outcome::kLeft;
        if (isLeftNow) leave(*entry);
      }
      Note(whole, isLeftNow, name, *entry);
    }
    if (names.size() < kNamesAtOnce) {
      if (isWhole) left_ = std::move(whole.left);  // without those that are gone
      return again;
    }
    last = names.back();
  }
}

}  // namespace tarns
