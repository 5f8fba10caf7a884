// Bundles and collections that several threads and sessions use at a time.
#include <gmock/gmock.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "containers/bundle_check.h"
#include "support/damage.h"
#include "support/run_in_sessions.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

class ContainerConcurrencyTest : public session_test {
 protected:
  ContainerConcurrencyTest() : session_test(1, {}, scratch_directory::place::in_memory) {}
};

TEST_F(ContainerConcurrencyTest, ThreadsHandOutAndFreeSlotsOfOneBundle) {
  constexpr int kThreads = 4, kRounds = 120;
  manager().set("b", TarnBundle::Create("TarnSint32Value"));
  std::set<std::string> expected[kThreads];
  run_in_sessions(manager(), kThreads, [&](int i, TarnManager& session) {
    std::minstd_rand random(static_cast<unsigned>(i) + 1);
    const xcptref<TarnBundle> bundle(session.getObject("b"));
    for (int round = 0; round < kRounds; ++round) {
      std::set<std::string> names;
      const bool rollsBack = random() % 8 == 0;
      const auto seed = static_cast<unsigned>(random());
      try {
        session.transaction([&] {
          names = expected[i];
          std::minstd_rand inner(seed);
          for (int n = 0; n < 10; ++n) {
            if (inner() % 3 == 0 && !names.empty()) {
              const std::string gone = *names.begin();
              EXPECT_TRUE(modify(bundle)->deleteBundledChild(gone.c_str())) << gone;
              names.erase(gone);
            } else {
              const std::string name =
                  std::to_string(i) + "-" + std::to_string(round) + "-" + std::to_string(n);
              modify(modify(bundle)->newChild(name.c_str()))->setValue(nullptr, TarnData(n));
              names.insert(name);
            }
          }
          if (rollsBack) throw std::runtime_error("rolled back");
        });
        expected[i] = names;
      } catch (const std::runtime_error&) {
        EXPECT_TRUE(rollsBack);
      }
    }
  });
  std::set<std::string> all;
  for (const auto& names : expected) all.insert(names.begin(), names.end());
  EXPECT_EQ(VerifyBundle(xcptref<TarnBundle>(manager().getObject("b"))), all);
}

TEST_F(ContainerConcurrencyTest, ManyBundlesAreFilledSideBySide) {
  constexpr int kThreads = 4, kBundles = 60, kObjects = 7;
  run_in_sessions(manager(), kThreads, [&](int i, TarnManager& session) {
    for (int b = i; b < kBundles; b += kThreads) {
      const std::string path = "bundles~" + std::to_string(b);
      session.transaction([&] {
        session.set(path, TarnBundle::Create("TarnObject"));
        const xcptref<TarnBundle> bundle(session.getObject(path));
        for (int n = 0; n < kObjects; ++n) modify(bundle)->newChild(std::to_string(n).c_str());
      });
    }
  });
  for (const auto& [name, bundle] : manager().children("bundles")) {
    EXPECT_EQ(VerifyBundle(xcptref<TarnBundle>(bundle)).size(), static_cast<std::size_t>(kObjects));
  }
  EXPECT_EQ(manager().getNumChildren("bundles"), static_cast<unsigned long>(kBundles));
}

// With checking on, a bundle whose parent is a hierarchical locker may be changed in any way.
TEST_F(ContainerConcurrencyTest, TransactionCheckingAllowsBundlesBelowALocker) {
  manager().set("bundles~b", TarnBundle::Create("TarnObject"));
  const xcptref<TarnBundle> bundle(manager().getObject("bundles~b"));
  TarnCacheManager::MhierarchicalLockers.addLast("bundles");
  TarnCacheManager::EnableTransactionChecking(true);
  for (int round = 0; round < 3; ++round) {
    TarnTransaction transaction(manager());
    for (int n = 0; n < 1100; ++n) {
      modify(bundle)->newChild((std::to_string(round) + "-" + std::to_string(n)).c_str());
      if (n % 5 == 0) modify(bundle)->deleteBundledChild(std::to_string(n).c_str());
    }
    transaction.commit();
  }
  TarnCacheManager::EnableTransactionChecking(false);
  TarnCacheManager::MhierarchicalLockers.clear();
  EXPECT_EQ(VerifyBundle(bundle).size(), 3300U);
}

// What the threads around a balance do, each with names of its own.
class BalanceTest : public ContainerConcurrencyTest {
 protected:
  static constexpr int kChildren = 3000;

  BalanceTest() {
    manager().transaction([&] {
      for (int i = 0; i < kChildren; ++i) manager().set("c~" + NameOf(i), i);
    });
  }
  static std::string NameOf(int i) { return "n" + std::to_string(100'000 + i); }

  void read(TarnManager& session) {
    std::minstd_rand random(1);
    for (int n = 0; !isDone_ || n < 100; ++n) {
      const int i = static_cast<int>(random() % kChildren);
      if (n % 50 == 0) {
        session.transaction([&] { ASSERT_EQ(session.getSint32("c~" + NameOf(i), -1), i); });
      } else {
        ASSERT_EQ(session.getSint32("c~" + NameOf(i), -1), i);
      }
    }
  }
  // Adds, finds, deletes.
  void change(TarnManager& session, int thread) {
    for (int n = 0; !isDone_ || n < 50; ++n) {
      const std::string path = "c~own" + std::to_string(thread) + "-" + std::to_string(n % 40);
      session.set(path, n);
      ASSERT_EQ(session.getSint32(path, -1), n);
      if (n % 3 != 0) {
        ASSERT_TRUE(session.deleteBranch(path)) << path;
        ASSERT_FALSE(session.valueAt(path).has_value()) << path;
      }
    }
  }
  // All names in one state, also across the moment when the collection comes.
  std::vector<std::string> list(TarnManager& session) {
    const TarnRef node = session.getObject("c");
    if (!node.isA<TarnCollection>()) return node->getChildNames({}, 100'000);
    return xcptref<TarnCollection>(node)->getAllChildNames({}, 100'000);
  }
  void listAll(TarnManager& session) {
    for (int n = 0; !isDone_ || n < 5; ++n) {
      std::vector<std::string> names;
      session.transaction([&] { names = list(session); });
      int known = 0;
      for (const std::string& name : names) known += name.starts_with('n') ? 1 : 0;
      ASSERT_EQ(known, kChildren);
      ASSERT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
    }
  }

  std::atomic<bool> isDone_{false};
};

TEST_F(BalanceTest, EveryChildIsInOnePlaceWhileOthersReadAddDeleteAndList) {
  run_in_sessions(manager(), 6, [&](int i, TarnManager& session) {
    switch (i) {
      case 0:
      case 1:
        TarnCollection::Balance(session, session.getRoot(), "c", nullptr);
        isDone_ = true;
        break;
      case 2:
        read(session);
        break;
      case 3:
        listAll(session);
        break;
      default:
        change(session, i);
    }
  });
  const xcptref<TarnCollection> collection(manager().getObject("c"));
  EXPECT_FALSE(collection->isBalancing());
  std::size_t own = 0;
  for (const auto& [name, child] : collection->children()) {
    EXPECT_EQ(child->getParent(), TarnRef(collection));
    own += name.starts_with("own") ? 1 : 0;
  }
  EXPECT_EQ(collection->getNumChildren(), kChildren + own);
  EXPECT_EQ(damage_of(manager()), "");
}

}  // namespace
}  // namespace tarns
