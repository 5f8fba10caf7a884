// The order in which transactions lock nodes: checked, and kept by TarnTransaction::Lock().
#include <gmock/gmock.h>
#include <goods/errors.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <latch>
#include <thread>

#include "support/captured_log.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TransactionChecksTest : public session_test {
 protected:
  TransactionChecksTest() {
    for (const char* path : {"a~x", "a~y", "b", "c", "L~x~y", "L~x~z", "L~w~y", "A"}) {
      manager().set(path, 0);
    }
    TarnCacheManager::EnableTransactionChecking(true);
  }
  ~TransactionChecksTest() override {
    TarnCacheManager::EnableTransactionChecking(false);
    TarnCacheManager::MhierarchicalLockers.clear();
  }

  std::vector<std::string> lockedPaths() {
    std::vector<std::string> paths;
    for (const XString& path : manager().db().getCacheManager().getLockedPaths()) {
      paths.emplace_back(path.view());
    }
    return paths;
  }
};
using TransactionChecksDeathTest = TransactionChecksTest;

// Also of what nothing is in memory of, whoever has switched it on.
TEST_F(TransactionChecksTest, TextsAreNodesToo) {
  manager().set("t~x", "text");
  reopen();
  TarnCacheManager::EnableTransactionChecking(false);
  TarnCacheManager::McheckTransactions = true;
  const TarnTransaction transaction(manager());
  manager().set("t~x", "other");
  EXPECT_THAT(lockedPaths(), ElementsAre("t~x"));
}

void Touch(TarnManager& m, std::initializer_list<const char*> paths) {
  for (const char* path : paths) m.set(path, 1);
}

TEST_F(TransactionChecksDeathTest, ABrokenOrderEndsTheProcessAndSaysWhatWasWrong) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct Case {
    const char* locker;
    std::function<void(TarnManager&)> work;
    const char* message;
  };
  const Case cases[] = {
      {"",
       [](auto& m) {
         Touch(m, {"b", "a~x"});
       },
       "Error: bad database transaction detected.  Trying to lock:\n  a~x\n"
       "  but it must be locked before object:\n  b\n"},
      {"",
       [](auto& m) {
         Touch(m, {"a~x", "c", "a~x", "b"});
       },
       "Trying to lock:\n  b\n  but it must be locked before object:\n  c\n"},
      {"", [](auto& m) { m.transaction([&] {
                           Touch(m, {"b", "a~y"});
                         }); }, "lock:\n  a~y\n  but"},
      {"L",
       [](auto& m) {
         Touch(m, {"A", "L~x~y"});
       },
       "Error: bad database transaction detected.  Trying to lock:\n  L~x~y\n"
       "  but you must first lock its hierarchical parent:\n  L~x\n"
       "  (hierarchical lock must be obtained because the transaction \n"
       "  involves more than one object\n  A\n"},
      {"L",
       [](auto& m) {
         Touch(m, {"L~x~y", "L~x~z"});
       },
       "hierarchical parent:\n  L~x\n"},
      {"",
       [](auto& m) {
         const TarnRef b = m.getObject("b");
         EXPECT_EQ(b->getNumChildren(), 0U);
         m.set("b", 1);
       },
       "Trying to write after reading:\n  \"b\"\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    if (*c.locker != '\0') TarnCacheManager::MhierarchicalLockers = {c.locker};
    EXPECT_EXIT(
        {
          const TarnTransaction transaction(manager());
          c.work(manager());
        },
        testing::KilledBySignal(SIGABRT), HasSubstr(c.message));
    TarnCacheManager::MhierarchicalLockers.clear();
  }
}

TEST_F(TransactionChecksTest, AGoodOrderPassesAndEachPathIsRecordedOnce) {
  struct Case {
    const char* name;
    std::vector<const char*> lockers;
    std::function<void(TarnManager&)> work;
    std::vector<std::string> recorded;
  };
  const Case cases[] = {
      {"ascending",
       {},
       [](auto& m) {
         Touch(m, {"a~x", "b"});
       },
       {"a~x", "b"}},
      {"again",
       {},
       [](auto& m) {
         Touch(m, {"a~x", "b", "a~x", "b"});
       },
       {"a~x", "b"}},
      {"only read", {}, [](auto& m) { m.getSint32("c"), m.getSint32("b"); }, {}},
      {"a look-up, then a write", {}, [](auto& m) { m.set("b", m.getSint32("b") + 1); }, {"b"}},
      {"a parent that gets a child", {}, [](auto& m) { m.set("a~new", 1); }, {"a"}},
      {"what is made in it",
       {},
       [](auto& m) {
         Touch(m, {"d", "d~b", "d~a"});
       },
       {""}},
      {"delete", {}, [](auto& m) { m.deleteBranch("b"); }, {"", "b"}},
      {"the first below a locker", {"L"}, [](auto& m) { Touch(m, {"L~x~y"}); }, {"L~x~y"}},
      {"below the parent in any order",
       {"M", "L"},
       [](auto& m) {
         modify(m.getObject("L~x"))->touch();
         Touch(m, {"L~x~z", "L~x~y"});
       },
       {"L~x", "L~x~z", "L~x~y"}},
      {"beside the locker",
       {"L"},
       [](auto& m) {
         Touch(m, {"A", "b"});
       },
       {"A", "b"}},
      {"Lock() brings the parent",
       {"L"},
       [](auto& m) {
         XStringList paths{"L~x~y", "missing", "A", "L~x~y"};
         TarnTransaction::Lock(m, paths);
         EXPECT_EQ(paths.join(" "), "A L~x L~x~y L~x~y missing");
       },
       {"A", "L~x", "L~x~y"}},
      {"inner ones belong to it",
       {},
       [](auto& m) {
         const TarnTransaction inner;
         Touch(m, {"b"});
       },
       {"b"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const char* locker : c.lockers) TarnCacheManager::MhierarchicalLockers.addLast(locker);
    TarnTransaction transaction(manager());
    c.work(manager());
    EXPECT_EQ(lockedPaths(), c.recorded);
    transaction.rollback();
    EXPECT_THAT(lockedPaths(), IsEmpty());
    TarnCacheManager::MhierarchicalLockers.clear();
  }
}

TEST_F(TransactionChecksTest, TheRecordIsOfTheThreadsTransactionAndEndsWithIt) {
  const auto ends = {0, 1, 2, 3};
  for (const int end : ends) {
    SCOPED_TRACE(end);
    try {
      TarnTransaction transaction(manager());
      Touch(manager(), {"b"});
      std::thread([&] {
        const TarnAttachment attachment(manager());
        TarnTransaction own(manager());
        EXPECT_THAT(lockedPaths(), IsEmpty());
        Touch(manager(), {"a~x"});
        EXPECT_THAT(lockedPaths(), ElementsAre("a~x"));
      }).join();
      EXPECT_THAT(lockedPaths(), ElementsAre("b"));
      if (end == 0) transaction.commit();
      if (end == 1) transaction.rollback();
      if (end == 2) throw std::runtime_error("left");
      if (end == 3) manager().detach(), manager().attach(), transaction.rollback();
    } catch (const std::runtime_error&) {
    }
    TarnTransaction next(manager());
    EXPECT_THAT(lockedPaths(), IsEmpty());
    Touch(manager(), {"a~x"});
  }
}

TEST_F(TransactionChecksTest, CallsThatAreTransactionsOfTheirOwnAreNotChecked) {
  manager().moveBranch("c", "a~c");
  manager().mergeBranch("b", "A", true);
  manager().copyBranch("L", "a~L");
  manager().getNoFail("B~b");
  EXPECT_TRUE(manager().deleteBranch("B"));
  TarnCacheManager::EnableTransactionChecking(false);
  TarnTransaction transaction(manager());
  Touch(manager(), {"a~y", "a~x"});
  TarnPath path("A");
  manager().db().getCacheManager().addObjectToTransaction(path);
  EXPECT_THAT(lockedPaths(), IsEmpty());
}

TEST_F(TransactionChecksTest, WhatIsLockedAndNotChangedIsNotStored) {
  const auto written = [&](const std::function<void()>& work) {
    manager().clearNumBytesFromDatabase();
    {
      TarnTransaction transaction(manager(), false, "b", "a~x", nullptr, "a");
      EXPECT_THAT(lockedPaths(), ElementsAre("a", "a~x", "b"));
      work();
      transaction.commit();
    }
    return manager().getNumBytesToDatabase();
  };
  EXPECT_EQ(written([] {}), 0U);
  const std::uint64_t one = written([&] { manager().set("b", 1000); });
  EXPECT_GT(one, 0U);
  EXPECT_LT(one, written([&] { manager().set("a~x", 1000), manager().set("b", 1001); }));
  EXPECT_GT(written([&] { manager().set("a~new", 5); }), 0U);
  reopen();
  EXPECT_EQ(picture("a"), "new=5 x=1000 y=0");
  EXPECT_EQ(manager().getSint32("b"), 1001);
}

TEST_F(TransactionChecksTest, TransactionsThatLockFirstMeetInNoDeadlock) {
  // One node, a node and one below it, the root, and lists that name the same in another order.
  const std::vector<std::vector<const char*>> lists = {
      {"a", "a~x"}, {"a~x"}, {"a~x", ""}, {"b", "a~x"}, {"a~y", "b", "a"}, {"a~x", "b"}};
  std::atomic<int> failures = 0, done = 0;
  {
    std::vector<std::jthread> threads;
    for (unsigned number = 0; number < 4; ++number) {
      threads.emplace_back([&, number] {
        const TarnAttachment attachment(manager());
        for (unsigned i = 0; i < 60; ++i) {
          XStringList paths;
          for (const char* path : lists[(i + number) % lists.size()]) paths.addLast(path);
          try {
            TarnTransaction transaction(manager(), i % 2 == 0, paths);
            for (const XString& path : paths) {
              if (manager().valueAt(path)) manager().set(path, manager().getSint32(path) + 1);
            }
            transaction.commit();
            ++done;
          } catch (const TarnException& error) {
            ADD_FAILURE() << error.what();
            ++failures;
          }
        }
      });
    }
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(done, 240);
}

TEST_F(TransactionChecksTest, AConstructorThatThrowsLeavesNoTransaction) {
  std::latch locked(1), over(1);
  std::jthread other([&] {
    const TarnAttachment attachment(manager());
    const TarnTransaction transaction(manager(), false, "b");
    locked.count_down();
    over.wait();
  });
  locked.wait();
  goods::cache_manager& session = manager().db().getCacheManager();
  session.set_lock_timeout(std::chrono::milliseconds(10));
  XStringList paths{"c", "a~x", "b"};
  EXPECT_THAT([&] { TarnTransaction(manager(), false, "a~x", "b"); }, ThrowsTarn(101, testing::_));
  EXPECT_THAT([&] { TarnTransaction(manager(), true, paths); }, ThrowsTarn(101, testing::_));
  EXPECT_FALSE(session.in_transaction());
  over.count_down();
  manager().detach();
  EXPECT_THAT([&] { TarnTransaction(manager(), true, "b"); }, ThrowsTarn(110, testing::_));
  const TarnTransaction attaches(manager(), true, paths);
}

TEST_F(TransactionChecksTest, PathsAreMadePhysical) {
  TarnCacheManager::EnableTransactionChecking(false);
  const TarnRef lost = manager().getNoFail("gone~n");
  modify(manager().getObject("A"))->addChild("alias", manager().getObject("L~x"));
  modify(manager().getObject("A"))->addChild("lost", lost);
  modify(manager().getObject("gone"))->becomeParentOf("n");
  modify(manager().getObject("L"))->becomeParentOf("x");
  manager().deleteBranch("gone");
  for (const bool inTransaction : {false, true}) {
    SCOPED_TRACE(inTransaction);
    const captured_log log;
    XStringList paths{"A~alias~y", "nothing", "A~lost", "L~x", ""};
    if (inTransaction) {
      TarnCacheManager::EnableTransactionChecking(true);
      const TarnTransaction transaction(manager(), true, paths);
      EXPECT_THAT(lockedPaths(), ElementsAre("", "L~x", "L~x~y"));
      EXPECT_EQ(paths.join(" "), " A~lost L~x L~x~y");
    } else {
      EXPECT_EQ(TarnTransaction::ToPhysical(manager(), paths), 1U);
      EXPECT_EQ(paths.join(" "), "L~x~y A~lost L~x ");
    }
    EXPECT_THAT(log.lines(),
                ElementsAre("WARNING: object \"A~lost\" has no physical path; deadlock "
                            "may occur."));
  }
}

TEST_F(TransactionChecksTest, RunRepeatsAfterADeadlockAndReturnsTheResult) {
  manager().detach();
  int attempts = 0;
  const auto work = [&] {
    manager().set("b", 100 + attempts);
    if (++attempts < 3) goods::throw_error(goods::error_code::deadlock, "as if");
    return attempts * 2;
  };
  EXPECT_EQ(TarnTransaction::Run(manager(), work), 6);
  EXPECT_EQ(manager().getSint32("b"), 102);
  EXPECT_THROW(TarnTransaction::Run(manager(), [&] { manager().set("b", 7), throw 5; }), int);
  EXPECT_EQ(manager().getSint32("b"), 102);
  TarnTransaction outer(manager());
  EXPECT_THAT([&] { TarnTransaction::Run(manager(), [&] { attempts = 0, work(); }); },
              ThrowsTarn(100, testing::_))
      << "the outermost one repeats";
  EXPECT_EQ(attempts, 1);
  outer.rollback();
}

}  // namespace
}  // namespace tarns
