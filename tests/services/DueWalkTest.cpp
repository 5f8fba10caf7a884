// Which entries of a list are looked at.
#include "services/DueWalk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace tarns;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Outcome = DueWalk::Outcome;

class DueWalkTest : public testing::Test {
 protected:
  static std::string NameOf(std::uint64_t number) {
    return TaskTable::DueNameOf({TarnTask::Time(std::chrono::microseconds(number)), number});
  }
  void add(std::uint64_t number, Outcome outcome) { list_[NameOf(number)] = outcome; }
  void addMany(std::uint64_t first, std::uint64_t count, Outcome outcome) {
    for (std::uint64_t i = 0; i < count; ++i) add(first + i, outcome);
  }

  // The numbers of what it looks at.
  std::vector<std::uint64_t> walk(DueWalk& walk, std::size_t most = 10'000) {
    std::vector<std::uint64_t> seen;
    numNames_ = 0;
    next_ = walk.walk({
        .names =
            [&](const std::string& after, std::size_t limit) {
              std::vector<std::string> names;
              for (auto i = list_.upper_bound(after); i != list_.end() && names.size() < limit; ++i)
                names.push_back(i->first);
              numNames_ += names.size();
              return names;
            },
        .mayGoOn = [&] { return seen.size() < most; },
        .look =
            [&](const std::string& name, const TaskTable::DueEntry& entry) {
              seen.push_back(entry.number);
              const Outcome outcome = list_.at(name);
              if (outcome == Outcome::kDone) list_.erase(name);
              return outcome;
            },
    });
    return seen;
  }

  std::map<std::string, Outcome> list_;
  std::size_t numNames_ = 0;
  std::optional<DueWalk::Time> next_;
};

TEST_F(DueWalkTest, WhatIsLeftIsLookedAtOnceAndPassedOver) {
  DueWalk walker(1h);
  addMany(1000, 1000, Outcome::kLeft);
  add(3000, Outcome::kPostponed);
  add(3001, Outcome::kLeft);
  EXPECT_EQ(walk(walker).size(), 1002u);
  EXPECT_TRUE(next_);  // for what is postponed
  add(4000, Outcome::kDone);
  EXPECT_THAT(walk(walker), ElementsAre(3000, 4000));
  EXPECT_LT(numNames_, 10u);  // behind those that lead
  EXPECT_EQ(list_.size(), 1002u);
  walker.forget();
  EXPECT_EQ(walk(walker).size(), 1002u);
}

TEST_F(DueWalkTest, WhatComesBeforeIsFoundWithTheNextWholeWalk) {
  for (const auto interval : {0ms, std::chrono::milliseconds(1h)}) {
    DueWalk walker(interval);
    list_.clear();
    addMany(1000, 1000, Outcome::kLeft);
    walk(walker);
    add(1, Outcome::kDone);
    if (interval == 0ms) {
      EXPECT_THAT(walk(walker), ElementsAre(1));
    } else {
      EXPECT_THAT(walk(walker), IsEmpty());
    }
  }
  // A few are not passed over.
  DueWalk walker(1h);
  list_.clear();
  addMany(1000, 3, Outcome::kLeft);
  walk(walker);
  add(1, Outcome::kDone);
  EXPECT_THAT(walk(walker), ElementsAre(1));
}

TEST_F(DueWalkTest, AWalkThatEndsEarlyForgetsNothing) {
  DueWalk walker(0ms);  // from the beginning each time
  addMany(1000, 100, Outcome::kLeft);
  addMany(2000, 100, Outcome::kDone);
  addMany(3000, 100, Outcome::kLeft);
  std::set<std::uint64_t> seen;
  std::size_t looks = 0;
  while (true) {
    const auto some = walk(walker, 30);
    if (some.empty()) break;
    looks += some.size();
    seen.insert(some.begin(), some.end());
  }
  EXPECT_EQ(seen.size(), 300u);
  EXPECT_EQ(looks, 300u);  // nothing twice
  EXPECT_FALSE(next_);
  // What is not due yet ends it.
  const auto later = TarnTasks::Now() + 1h;
  list_[TaskTable::DueNameOf({later, 7})] = Outcome::kDone;
  EXPECT_THAT(walk(walker), IsEmpty());
  EXPECT_EQ(next_, later);
}

}  // namespace
