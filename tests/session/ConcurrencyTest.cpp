// Sessions and threads on the same branches. Worth running under the thread sanitizer.
#include <gtest/gtest.h>
#include <tarns/core/TarnBranchWalk.h>

#include <atomic>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "support/session_fixture.h"

namespace tarns {
namespace {

class ConcurrencyTest : public session_test {
 protected:
  ConcurrencyTest() { other_.connect(configuration().c_str()); }

  // Runs work(manager, number) on two threads in each of two sessions.
  template <class Work>
  void onFourThreads(Work&& work) {
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
      threads.emplace_back([this, number, &work] {
        TarnManager& m = number % 2 == 0 ? manager() : other_;
        const TarnAttachment attachment(m);
        work(m, number);
      });
    }
  }

  TarnManager other_;
};

TEST_F(ConcurrencyTest, IncrementsInTransactionsAreNotLost) {
  constexpr int kTimes = 50;
  manager().set("count", 0);
  onFourThreads([](TarnManager& m, int) {
    for (int i = 0; i < kTimes; ++i) {
      m.transaction([&] { m.set("count", m.getSint32("count") + 1); });
    }
  });
  EXPECT_EQ(manager().getSint32("count"), 4 * kTimes);
}

// A merge copies values and children to where it leads them and drops the nodes that they had. What
// is acknowledged comes before it, and is copied, or after it, and is at the old path.
TEST_F(ConcurrencyTest, AWriteIsNotLostInABranchThatIsMergedAway) {
  constexpr int kWrites = 20;
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    for (const char* path : {"t~v", "t~n~v", "s~v", "s~n~v"}) manager().set(path, -1);
    std::atomic<int> begun = 0;
    const auto begin = [&] {
      ++begun;
      while (begun < 3) std::this_thread::yield();
    };
    {
      std::vector<std::jthread> threads;
      for (const bool inSameSession : {true, false}) {
        threads.emplace_back([&, inSameSession] {
          TarnManager& m = inSameSession ? manager() : other_;
          const TarnAttachment attachment(m);
          begin();
          for (int i = 0; i < kWrites; ++i) {
            if (inSameSession) m.set("s~v", i);
            if (!inSameSession) m.set("s~n~new" + std::to_string(i), i);
          }
        });
      }
      threads.emplace_back([&] {
        const TarnAttachment attachment(manager());
        begin();
        manager().mergeBranch("s", "t", true);
      });
    }
    const auto last = manager().valueAt("s~v");
    EXPECT_EQ(last ? last->getSint32() : manager().getSint32("t~v"), kWrites - 1);
    for (int i = 0; i < kWrites; ++i) {
      const std::string name = "n~new" + std::to_string(i);
      EXPECT_TRUE(manager().valueAt("s~" + name) || manager().valueAt("t~" + name)) << name;
    }
    manager().deleteBranch("s");
    manager().deleteBranch("t");
  }
}

// Who makes a branch and who removes one lock the same objects in different orders. A call that is
// a transaction of its own is repeated; it never ends in a deadlock.
TEST_F(ConcurrencyTest, CallsBelowTheSameParentsDoNotFail) {
  constexpr int kTimes = 100;
  const auto place = [](int number, int i) {
    return "tree~" + std::to_string(i % 4) + "~of" + std::to_string(number) + "~n" +
           std::to_string(i);
  };
  onFourThreads([&](TarnManager& m, int number) {
    for (int i = 0; i < kTimes; ++i) {
      EXPECT_NO_THROW({
        m.set(place(number, i) + "~leaf", i);
        m.set(place(number, i) + "~node~inner", TarnObject::Create());
        m.deleteBranch(place(number, i - 2));
        if (i % 4 == 3) m.deleteBranch(TarnBranches::ParentOf(place(number, i - 3)));
      });
    }
  });
  for (int number = 0; number < 4; ++number) {
    for (int i = kTimes - 2; i < kTimes; ++i) {
      EXPECT_EQ(manager().getSint32(place(number, i) + "~leaf"), i);
    }
  }
}

TEST_F(ConcurrencyTest, AReaderSeesAllOfACallOrNothing) {
  // Each call makes a branch of three nodes and a value, or removes it.
  std::atomic<int> writers = 2, wrong = 0;
  onFourThreads([&](TarnManager& m, int number) {
    if (number < 2) {
      for (int i = 0; i < 60; ++i) {
        m.set("top~middle~leaf", i);
        m.deleteBranch("top");
      }
      --writers;
      return;
    }
    while (writers > 0) {
      // The parents without the value would be half of a call.
      const TarnRef middle = m.getObject("top~middle");
      if (!middle.is_null() && middle->getNumChildren() != 1) ++wrong;
      const int value = m.getSint32("top~middle~leaf", 0);
      if (value < 0 || value >= 60) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
}

// Two texts that every commit leaves equal, among nodes that come and go and others that stay.
TEST_F(ConcurrencyTest, AWalkSeesEachBatchInOneStateAndMeetsWhatStays) {
  constexpr int kStaying = 40;
  manager().transaction([&] {
    for (int i = 0; i < kStaying; ++i) manager().set("m~stay" + std::to_string(i) + "~n", i);
    manager().set("a~left", "0");
    manager().set("a~right", "0");
  });
  std::atomic<int> writers = 2, wrong = 0;
  onFourThreads([&](TarnManager& m, int number) {
    if (number < 2) {
      for (int i = 1; i <= 60; ++i) {
        m.transaction([&] {
          const std::string text = m.getXString("a~left").getText() + std::to_string(number);
          m.set("a~left", text);
          m.set("a~right", text);
        });
        m.set("m~go" + std::to_string(number) + "~deep~text", std::to_string(i));
        m.deleteBranch("m~go" + std::to_string(number));
      }
      --writers;
      return;
    }
    while (writers > 0) {
      std::set<std::string> met;
      std::string left;
      TarnBranchWalk walk(m.getRoot());
      while (const TarnBranchWalk::Step* step = walk.next()) {
        // One that is removed and made again is another child of the same name.
        const std::string path = walk.path();
        if (!path.starts_with("m~go") && !met.insert(path).second) ++wrong;
        if (step->name == "left") left = step->value.getText();
        if (step->name == "right" && left != step->value.getText()) ++wrong;
      }
      for (int i = 0; i < kStaying; ++i) {
        if (!met.contains("m~stay" + std::to_string(i) + "~n")) ++wrong;
      }
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(ConcurrencyTest, TransfersKeepTheSumThatTransactionsSee) {
  constexpr int kAccounts = 5, kEach = 100;
  const auto account = [](unsigned i) { return "accounts~" + std::to_string(i % kAccounts); };
  for (unsigned i = 0; i < kAccounts; ++i) manager().set(account(i), kEach);
  std::atomic<int> wrong = 0;
  onFourThreads([&](TarnManager& m, int number) {
    std::minstd_rand random(static_cast<unsigned>(number));
    for (int i = 0; i < 30; ++i) {
      const std::string from = account(random()), to = account(random());
      m.transaction([&] {
        m.set(from, m.getSint32(from) - 1);
        m.set(to, m.getSint32(to) + 1);
      });
      const int sum = m.transaction([&] {
        int all = 0;
        for (unsigned k = 0; k < kAccounts; ++k) all += m.getSint32(account(k));
        return all;
      });
      if (sum != kAccounts * kEach) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(ConcurrencyTest, SessionsSeeWhatAnotherHasCommitted) {
  const TarnAttachment here(manager());
  manager().set("a", 1);
  std::thread([&] {
    const TarnAttachment there(other_);
    EXPECT_EQ(other_.getSint32("a"), 1);
    other_.set("a", 2);
    other_.set("b~c", 3);
  }).join();
  EXPECT_EQ(manager().getSint32("a"), 2);
  EXPECT_EQ(manager().getSint32("b~c"), 3);
}

}  // namespace
}  // namespace tarns
