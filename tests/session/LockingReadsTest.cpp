// Reads by path inside of transactions: remembered as those outside, and locking what a walk locks.
#include <gmock/gmock.h>
#include <goods/errors.h>
#include <tarns/core/TarnValues.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "goods/thread_attachment.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using std::chrono::milliseconds;
using testing::_;
using testing::HasSubstr;

constexpr unsigned long kDeadlock = 100, kTimeout = 101;

class LockingReadsTest : public session_test {
 protected:
  static constexpr int kWide = 300;  // names under "wide": on several pages

  LockingReadsTest() : session_test(2) {
    other_.connect(configuration().c_str());
    other_.setLockTimeout(milliseconds(1));
    manager().setLockTimeout(milliseconds(1));
  }

  static std::string Wide(int i) { return "wide~k" + std::to_string(1000 + i); }

  void fill() {
    TarnManager& m = manager();
    m.transaction([&] {
      for (const char* branch : {"a", "b", "c", "wide", "far"}) m.deleteBranch(branch);
      m.set("a~deep~v", "text");
      m.set("a~deep~n", 1);
      m.set("c~deep~v", "merged");
      for (int i = 0; i < kWide; ++i) m.set(Wide(i).c_str(), i);
      const TarnRef far = TarnObject::Create();
      m.attachToStorage(far, 1);
      m.set("far", far);
      m.set("far~v", "elsewhere");
    });
  }

  static XString Text(TarnManager& m, const std::string& path) {
    return m.getXString(path.c_str(), "none");
  }

  static goods::thread_attachment& Thread() {
    return *goods::cache_manager::require().attachment();
  }

  // In a transaction that reads nothing else. `isRemembered`: whether no object was looked at; one
  // of two could be forgotten again by then.
  XString readIn(TarnManager& m, const std::string& path, bool& isRemembered) {
    XString text = Text(m, path);
    const TarnRef node =
        m.db().getCacheManager().outside_transaction([&] { return m.getObject(path.c_str()); });
    const goods::object_id ids[] = {goods::make_object_id(0, goods::root_object_number),
                                    node.is_null() ? 0 : node.id()};
    isRemembered = std::ranges::none_of(
        ids, [](goods::object_id id) { return Thread().known().find(id) != nullptr; });
    return text;
  }
  // What is not there is not remembered.
  void remember(const std::string& path, const std::string& expected) {
    for (int i = 0; i < 2; ++i) {
      bool isRemembered = false;
      TarnTransaction transaction(manager());
      EXPECT_EQ(readIn(manager(), path, isRemembered), expected.c_str());
      transaction.commit();
      EXPECT_EQ(isRemembered, i > 0 && expected != "none");
    }
  }
  std::size_t locksOfWalk(const std::string& path) {
    TarnCacheManager& session = manager().db().getCacheManager();
    session.rememberValues(false);
    std::size_t held = 0;
    {
      const TarnTransaction transaction(manager());
      Text(manager(), path);
      held = Thread().locks().held();
    }
    session.rememberValues(true);
    return held;
  }

  TarnManager other_;
};

TEST_F(LockingReadsTest, ARememberedPathKeepsOthersFromEverythingThatLeadsThere) {
  struct Case {
    const char* what;
    std::string path;
    std::string value, changed;
    std::function<void(TarnManager&)> change;
  };
  const std::string deep = "a~deep~v";
  const Case cases[] = {
      {"set", deep, "text", "new", [](auto& m) { m.set("a~deep~v", "new"); }},
      {"the text itself", deep, "text", "text!",
       [](auto& m) {
         const xcptref<TarnStringValue> node(m.getObject("a~deep~v"));
         modify(goods::checked_cast<goods::String>(node->getTarnString().getReference()))
             ->append("!");
       }},
      {"a number", "a~deep~n", "1", "2", [](auto& m) { m.set("a~deep~n", 2); }},
      {"renamed", deep, "text", "none",
       [](auto& m) { modify(m.getObject("a~deep~v"))->setName("w"); }},
      {"deleted", deep, "text", "none", [](auto& m) { m.deleteBranch("a~deep~v"); }},
      {"another class", deep, "text", "0",
       [](auto& m) { m.set("a~deep~v", TarnSint32Value::Create()); }},
      {"a sibling", deep, "text", "text", [](auto& m) { m.set("a~deep~z", 1); }},
      {"a parent renamed", deep, "text", "none",
       [](auto& m) { modify(m.getObject("a~deep"))->setName("deeper"); }},
      {"a parent in place of it", deep, "text", "none",
       [](auto& m) { m.set("a", TarnObject::Create()); }},
      {"a branch deleted", deep, "text", "none", [](auto& m) { m.deleteBranch("a"); }},
      {"a branch moved", deep, "text", "none", [](auto& m) { m.moveBranch("a", "b"); }},
      {"a branch moved and another one there", deep, "text", "merged",
       [](auto& m) {
         m.transaction([&] {
           m.moveBranch("a", "b");
           m.moveBranch("c", "a");
         });
       }},
      {"merged", deep, "text", "merged", [](auto& m) { m.mergeBranch("c", "a", true); }},
      {"on a page", Wide(150), "150", "7", [](auto& m) { m.set(Wide(150).c_str(), 7); }},
      {"the page split", Wide(150), "150", "150",
       [](auto& m) {
         m.transaction([&] {
           for (int i = 0; i < 300; ++i) m.set((Wide(150) + std::to_string(1000 + i)).c_str(), i);
         });
       }},
      {"a name on another page", Wide(150), "150", "150",
       [](auto& m) { m.set((Wide(280) + "x").c_str(), 1); }},
      {"in another storage", "far~v", "elsewhere", "new", [](auto& m) { m.set("far~v", "new"); }},
      {"deleted in another storage", "far~v", "elsewhere", "none",
       [](auto& m) { m.deleteBranch("far~v"); }},
  };
  for (const Case& c : cases) {
    for (TarnManager* const changer : {&other_, &manager()}) {
      SCOPED_TRACE(testing::Message() << c.what << (changer == &other_ ? ", other session" : ""));
      const auto change = [&](const auto& expectation) {
        std::jthread([&] {
          const TarnAttachment attachment(*changer);
          expectation([&] { c.change(*changer); });
        }).join();
      };
      fill();
      const std::size_t walked = locksOfWalk(c.path);
      remember(c.path, c.value);
      {
        const TarnTransaction transaction(manager());
        bool isRemembered = false;
        EXPECT_EQ(readIn(manager(), c.path, isRemembered), c.value.c_str());
        EXPECT_TRUE(isRemembered);
        EXPECT_EQ(Thread().locks().held(), walked);
        change([](const auto& make) { EXPECT_THAT(make, ThrowsTarn(kTimeout, _)); });
        EXPECT_EQ(Text(manager(), c.path), c.value.c_str());
      }
      change([](const auto& make) { make(); });
      remember(c.path, c.changed);
    }
  }
}

// What the transaction has changed itself it sees, and others do not.
TEST_F(LockingReadsTest, ATransactionSeesItsOwnChanges) {
  struct Case {
    const char* what;
    std::function<void(TarnManager&)> change;
    const char* own;  // the value then
  };
  const Case cases[] = {
      {"set", [](auto& m) { m.set("a~deep~v", "own"); }, "own"},
      {"another one set", [](auto& m) { m.set("a~deep~n", 5); }, "text"},
      {"elsewhere", [](auto& m) { m.set("b~x", 5); }, "text"},  // a name under the root
      {"a sibling", [](auto& m) { m.set("a~deep~z", 5); }, "text"},
      {"deleted", [](auto& m) { m.deleteBranch("a~deep~v"); }, "none"},
      {"renamed", [](auto& m) { modify(m.getObject("a~deep"))->setName("d"); }, "none"},
      {"moved there", [](auto& m) { m.deleteBranch("a"), m.moveBranch("c", "a"); }, "merged"},
      {"a new node there", [](auto& m) { m.deleteBranch("a"), m.set("a~deep~v", "new"); }, "new"},
      {"locked and not changed", [](auto& m) { modify(m.getObject("a~deep~v"))->touch(); }, "text"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    fill();
    remember("a~deep~v", "text");
    {
      TarnTransaction transaction(manager());
      c.change(manager());
      EXPECT_EQ(Text(manager(), "a~deep~v"), c.own);
      EXPECT_EQ(Text(manager(), "a~deep~v"), c.own);
      std::jthread([&] {
        const TarnAttachment attachment(manager());
        EXPECT_EQ(Text(manager(), "a~deep~v"), "text") << "outside of it";
      }).join();
      transaction.rollback();
    }
    for (int i = 0; i < 2; ++i) {
      const TarnTransaction transaction(manager());
      EXPECT_EQ(Text(manager(), "a~deep~v"), "text") << "rolled back";
    }
    EXPECT_EQ(Text(manager(), "a~deep~v"), "text");
  }
}

TEST_F(LockingReadsTest, NothingIsReadInATransactionThatCanOnlyBeEnded) {
  fill();
  remember("a~deep~v", "text");
  TarnTransaction transaction(manager());
  EXPECT_EQ(Text(manager(), "a~deep~v"), "text");
  TarnTransaction(manager()).rollback();
  EXPECT_THAT([&] { Text(manager(), "a~deep~v"); }, ThrowsTarn(111, HasSubstr("rolled back")));
  transaction.rollback();
  remember("c~deep~v", "merged");
}

// More than what is kept of one read; still it is read right, and locked.
TEST_F(LockingReadsTest, APathOfManyObjectsIsWalked) {
  std::string path = "long";
  for (int i = 0; i < 25; ++i) {
    path += "~" + std::to_string(i);
    manager().transaction([&] {
      for (int k = 0; k < 40; ++k) manager().set((path + "~v" + std::to_string(k)).c_str(), k);
    });
  }
  path += "~v7";
  for (int i = 0; i < 3; ++i) {
    const TarnTransaction transaction(manager());
    bool isRemembered = false;
    EXPECT_EQ(readIn(manager(), path, isRemembered), "7");
    EXPECT_FALSE(isRemembered);
    EXPECT_GT(Thread().locks().held(), 50U);
    std::jthread([&] {
      const TarnAttachment attachment(other_);
      EXPECT_THAT([&] { other_.set(path.c_str(), "changed"); }, ThrowsTarn(kTimeout, _));
    }).join();
  }
}

// Whoever reads all accounts in a transaction finds the same sum, while others move money.
TEST_F(LockingReadsTest, TransactionsThatReadAllSeeOneState) {
  constexpr int kAccounts = 8, kTransfers = 150, kEach = 1000;
  const auto account = [](int i) { return "accounts~" + std::to_string(i) + "~balance"; };
  for (int i = 0; i < kAccounts; ++i) manager().set(account(i).c_str(), kEach);
  other_.setLockTimeout(std::chrono::seconds(60));
  manager().setLockTimeout(std::chrono::seconds(60));
  std::atomic<int> wrong = 0, audits = 0, writers = 2;
  const auto repeat = [](TarnManager& m, const auto& work) {
    while (true) {
      try {
        return m.transaction(work);
      } catch (const TarnException& error) {  // so many meet here that trying 100 times may not do
        if (error.getErrorID() != kDeadlock) throw;
      }
    }
  };
  {
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
      threads.emplace_back([&, seed] {
        TarnManager& m = seed % 2 == 0 ? manager() : other_;
        const TarnAttachment attachment(m);
        std::minstd_rand random(seed + 1);
        const auto audit = [&] {
          int sum = 0;
          for (int i = 0; i < kAccounts; ++i) sum += m.getSint32(account(i).c_str());
          return sum;
        };
        if (seed >= 2) {
          while (writers > 0 || audits == 0) {
            repeat(m, [&] { wrong += audit() != kAccounts * kEach ? 1 : 0; });
            ++audits;
          }
          return;
        }
        for (int i = 0; i < kTransfers; ++i) {
          const int from = static_cast<int>(random() % kAccounts);
          const int to = static_cast<int>(random() % kAccounts);
          repeat(m, [&] {
            m.set(account(from).c_str(), m.getSint32(account(from).c_str()) - 1);
            m.set(account(to).c_str(), m.getSint32(account(to).c_str()) + 1);
            if (i % 10 == 0 && audit() != kAccounts * kEach) ++wrong;
          });
        }
        --writers;
      });
    }
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace tarns
