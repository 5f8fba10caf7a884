// Transactions that can only be ended: nothing that is called in their scope is kept.
#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <thread>

#include "goods/thread_attachment.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::MatchesRegex;

class DoomedTransactionTest : public session_test {
 protected:
  // Runs `work` on a thread of the same session.
  template <class Work>
  std::future<void> elsewhere(Work work) {
    return std::async(std::launch::async, [this, work] {
      const TarnAttachment attachment(manager());
      work();
    });
  }
  // Writes a, then waits for b, which another thread has locked and which then wants `wants`.
  void meet(const char* wants, milliseconds limit) {
    manager().setLockTimeout(limit);
    const auto haveLocked = std::make_shared<std::latch>(2);  // for whoever leaves it last
    other_ = elsewhere([this, wants, haveLocked] {
      TarnTransaction transaction(manager());
      manager().set("b", 2);
      haveLocked->arrive_and_wait();
      manager().set(wants, 2);
      if (*wants == 'c') std::move(timedOut_).get();
      transaction.commit();
    });
    manager().set("a", 1);
    haveLocked->arrive_and_wait();
  }

  std::promise<void> hasTimedOut_;
  std::future<void> timedOut_ = hasTimedOut_.get_future();
  std::future<void> other_;
};

// One that only sets a value waits for it without having locked it for reading.
TEST_F(DoomedTransactionTest, SettingOneValueMeetsInNoDeadlock) {
  for (const char* path : {"b", "n~value"}) {
    SCOPED_TRACE(path);
    manager().set(path, 1);
    std::latch isReady(2);
    TarnTransaction transaction(manager());
    EXPECT_EQ(manager().getSint32(path, 0), 1);
    auto other = elsewhere([this, path, &isReady] {
      TarnTransaction waiting(manager());
      isReady.arrive_and_wait();
      manager().set(path, 2);
      waiting.commit();
    });
    isReady.arrive_and_wait();
    EXPECT_EQ(other.wait_for(milliseconds(50)), std::future_status::timeout);
    manager().set(path, 3);
    transaction.commit();
    other.get();
    EXPECT_EQ(manager().getSint32(path, 0), 2);
  }
}

TEST_F(DoomedTransactionTest, NothingInItsScopeIsKeptAndEverythingSaysWhy) {
  struct Case {
    const char* name;
    std::function<void(TarnManager&)> doom;
    const char* message;
  };
  const Case cases[] = {
      {"inner rollback", [](auto& m) { TarnTransaction(m).rollback(); }, "within it was rolled"},
      {"inner exception",
       [](auto& m) {
         EXPECT_THROW(
             {
               const TarnTransaction inner(m);
               throw 5;
             },
             int);
       },
       "within it was rolled"},
      {"a call that fails when the branch has been taken out",
       [](auto& m) {
         EXPECT_THAT([&] { m.mergeBranch("v", "", true); }, ThrowsTarn(0, HasSubstr("the root")));
       },
       "half of its changes"},
      {"the same with a branch that is not stored yet",
       [](auto& m) {
         m.set("new", 3);
         EXPECT_THROW(m.mergeBranch("new", "", true), TarnException);
       },
       "half of its changes"},
      {"an exception of the application in transaction()",
       [](auto& m) { EXPECT_THROW(m.transaction([&] { m.set("a", 1), throw 5; }), int); },
       "half of its changes"},
      {"a write access that is left when it has changed the node",
       [](auto& m) {
         const TarnRef node = m.getObject("v");
         EXPECT_THROW(
             {
               const auto access = modify(node);
               access->setValue(nullptr, TarnData(7));
               throw 5;
             },
             int);
       },
       "half of its changes"},
      {"one that is left when an earlier one had",
       [](auto& m) {
         const TarnRef node = m.getObject("v");
         modify(node)->setValue(nullptr, TarnData(7));
         EXPECT_THROW(
             {
               const auto access = modify(node);
               throw 5;
             },
             int);
       },
       "half of its changes"},
      {"a call of a node that fails halfway",
       [](auto& m) {
         const TarnRef node = m.getObject("v");
         EXPECT_THROW(
             {
               const auto access = modify(node);
               m.set("a", 1);
               throw 5;
             },
             int);
       },
       "half of its changes"},
  };
  manager().set("v", 5);
  const std::string before = picture();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto isRefused = ThrowsTarn(111, HasSubstr(c.message));
    const auto check = [&](TarnTransaction& outer) {
      manager().set("a", 1);
      c.doom(manager());
      EXPECT_THAT([&] { manager().set("b", 2); }, isRefused);
      EXPECT_THAT([&] { manager().getSint32("v"); }, isRefused);
      EXPECT_THAT([&] { manager().deleteBranch("v"); }, isRefused);
      EXPECT_THAT([&] { modify(manager().getRoot()); }, isRefused);
      EXPECT_THAT([&] { const TarnTransaction inner; }, isRefused);
      EXPECT_THAT([&] { outer.commit(); }, isRefused);
    };
    {
      TarnTransaction outer(manager());
      check(outer);
    }
    {
      TarnTransaction outermost(manager());
      TarnTransaction outer;
      check(outer);
      EXPECT_THAT([&] { manager().set("b", 2); }, isRefused) << "the outermost is still open";
      outermost.rollback();
    }
    EXPECT_EQ(picture(), before);
    manager().set("v", 6);
    manager().set("v", 5);
    reopen();
    EXPECT_EQ(picture(), before);
  }
}

TEST_F(DoomedTransactionTest, ACallThatFailsBeforeItChangesAnythingLeavesTheTransactionAsItWas) {
  manager().set("n~v", 5);
  {
    TarnTransaction transaction(manager());
    manager().set("a", 1);
    EXPECT_THAT([&] { manager().moveBranch("x", "y"); }, ThrowsTarn(7, testing::_));
    EXPECT_THAT([&] { manager().set("n", 1); }, ThrowsTarn(11, testing::_));
    EXPECT_THAT([&] { manager().moveBranch("n", "n~v"); }, ThrowsTarn(0, testing::_));
    EXPECT_THAT([&] { modify(manager().getRoot())->addChild("", manager().getObject("n")); },
                ThrowsTarn(0, testing::_));
    EXPECT_THAT([&] { manager().getSint32("x"); }, ThrowsTarn(7, testing::_));
    for (const int value : {5, 5, 6, 5}) {
      const TarnRef node = manager().getObject("n~v");
      try {
        const auto access = modify(node);
        access->setValue(nullptr, TarnData(value));
        access->setValue(nullptr, TarnData(5));
        throw 5;
      } catch (int) {
        SCOPED_TRACE("the node is what it was");
      }
    }
    manager().set("b", 2);
    transaction.commit();
  }
  EXPECT_EQ(picture(), "a=1 b=2 n{v=5}");
}

TEST_F(DoomedTransactionTest, TheVictimOfADeadlockLetsTheOthersGoOnAtOnce) {
  manager().set("a", 0);
  manager().set("b", 0);
  TarnTransaction outer(manager());
  meet("a", milliseconds(60'000));
  // Whichever of the two closes the circle is the victim; the other one goes on.
  try {
    manager().set("b", 1);
    EXPECT_THAT([&] { other_.get(); }, ThrowsTarn(100, testing::_));
    outer.commit();
    EXPECT_EQ(picture(), "a=1 b=1");
    return;
  } catch (const TarnException& error) {
    EXPECT_EQ(error.getErrorID(), 100UL);
    EXPECT_THAT(
        error.what(),
        MatchesRegex("\"b\" cannot be locked for writing without a deadlock: "
                     "thread [0-9]+ waits, and thread [0-9]+ has held \"b\" exclusively for "
                     "[0-9]+ ms; thread [0-9]+ waits, and thread [0-9]+ has held \"a\" "
                     "exclusively for [0-9]+ ms\\."));
  }
  other_.get();  // while this scope is still open
  EXPECT_THAT([&] { manager().set("b", 1); }, ThrowsTarn(100, HasSubstr("deadlock")));
  EXPECT_THAT([&] { outer.commit(); }, ThrowsTarn(100, HasSubstr("can only be ended")));
  EXPECT_EQ(picture(), "a=2 b=2");
}

TEST_F(DoomedTransactionTest, ATimeOutKeepsItsCodeAndIsNotRepeated) {
  for (const char* name : {"a", "b", "c"}) manager().set(name, 0);
  int attempts = 0;
  const auto work = [&] {
    ++attempts;
    meet("c", milliseconds(20));
    EXPECT_THAT([&] { manager().set("b", 1); },
                ThrowsTarn(101, MatchesRegex("\"b\" could not be locked for writing within 20 ms: "
                                             "thread [0-9]+ has held it exclusively for [0-9]+ "
                                             "ms\\.")));
    elsewhere([&] { manager().set("a", 7); }).get();  // its lock is free by now
    EXPECT_THAT([&] { manager().getSint32("a"); }, ThrowsTarn(101, HasSubstr("20 ms")));
  };
  EXPECT_THAT([&] { manager().transaction(work); }, ThrowsTarn(101, HasSubstr("20 ms")));
  EXPECT_EQ(attempts, 1);
  hasTimedOut_.set_value();
  other_.get();
  EXPECT_EQ(picture(), "a=7 b=2 c=2");
}

TEST_F(DoomedTransactionTest, SaysWhatOfANodeIsLocked) {
  manager().set("n~v", 1);
  manager().set("n~w", 2);
  const TarnRef lost = manager().getNoFail("lost~n");
  manager().deleteBranch("lost");
  struct Case {
    std::function<void()> holds, wants;
    const char* message;
  };
  const Case cases[] = {
      {[&] { manager().set("n~v", 3); }, [&] { manager().getSint32("n~v"); },
       "\"n~v\" could not be locked for reading"},
      {[&] { manager().set("n~x", 3); }, [&] { manager().getSint32("n~v"); },
       "\"n\" could not be locked for reading"},
      {[&] { modify(manager().getObject("n~v"))->setName("u"); },
       [&] { manager().getSint32("n~w"); }, "the children of \"n\" could not be locked"},
      {[&] { manager().getSint32("n~v"); }, [&] { manager().set("new", 3); },
       "the root could not be locked for writing"},
      {[&] { modify(lost)->touch(); }, [&] { modify(lost)->touch(); }, "object 0:"},
  };
  manager().setLockTimeout(milliseconds(1));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    std::latch hasLocked(1), over(1);
    const auto other = elsewhere([&] {
      TarnTransaction transaction(manager());
      c.holds();
      hasLocked.count_down();
      over.wait();
      transaction.rollback();
    });
    hasLocked.wait();
    EXPECT_THAT([&] { manager().transaction(c.wants); },
                ThrowsTarn(101, testing::StartsWith(c.message)));
    over.count_down();
  }
}

TEST_F(DoomedTransactionTest, EveryObjectHasAName) {
  for (int i = 0; i < 200; ++i) manager().set("wide~" + std::to_string(i), i);
  manager().set("text", "abc");
  std::map<std::string, int> names;
  TarnCacheManager& session = manager().db().getCacheManager();
  const TarnTransaction locksNothing(manager());
  for (goods::object_id id = 65'536; id < 66'200; ++id) ++names[session.name_of(id)];
  EXPECT_EQ(names["the root"], 1);
  EXPECT_EQ(names["\"wide~17\""], 1);
  EXPECT_EQ(names["the entry \"17\" of \"wide\""], 1);
  EXPECT_EQ(names["the children of the root"], 1);
  EXPECT_GT(names["the children of \"wide\""], 2) << "the index and its pages";
  EXPECT_EQ(names["object 0:66199"], 1) << "nothing";
  EXPECT_EQ(session.attachment()->locks().held(), 0U);
}

TEST_F(DoomedTransactionTest, ALeftTransactionEndsNoOtherOne) {
  auto old = std::make_unique<TarnTransaction>(manager());
  manager().set("a", 1);
  manager().detach();
  {
    TarnTransaction next(manager());
    manager().set("b", 2);
    EXPECT_THAT([&] { old->commit(); }, ThrowsTarn(111, HasSubstr("ended before")));
    old = std::make_unique<TarnTransaction>(manager());
    manager().detach();
    manager().attach();
    EXPECT_THROW(next.commit(), TarnException);
  }
  EXPECT_EQ(picture(), "");
  close();  // the session that `old` was begun in
  EXPECT_THROW(old->commit(), TarnException);
  old.reset();
  open();
  TarnTransaction last(manager());
  close();
  last.rollback();
}

}  // namespace
}  // namespace tarns
