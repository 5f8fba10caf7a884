// Sessions that threads share one after the other.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnManagerPool.h>
#include <tarns/session/TarnMeister.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

class PoolTest : public session_test {
 protected:
  std::unique_ptr<TarnManagerPool> makePool(TarnPoolOptions options) {
    return std::make_unique<TarnManagerPool>(configuration().c_str(), std::move(options));
  }
  // Returns when so many threads wait for a session.
  static void AwaitWaiting(const TarnManagerPool& pool, std::size_t threads) {
    while (pool.getFigures().waiting < threads) std::this_thread::yield();
  }
};

TEST_F(PoolTest, HandsOutTheSessionThatWasReturnedLastAndMakesOthersWhenNeeded) {
  int prepared = 0;
  const auto pool = makePool({.smallest = 1, .largest = 3, .prepare = [&](TarnManager& session) {
                                session.setCacheLimit(16 << 20);
                                ++prepared;
                              }});
  EXPECT_EQ(pool->getFigures().idle, 1U);
  TarnManager& first = pool->checkOut();
  TarnManager& second = pool->checkOut();
  EXPECT_NE(&first, &second);
  EXPECT_EQ(pool->getFigures().inUse, 2U);
  pool->checkIn(first);
  pool->checkIn(second);
  EXPECT_EQ(&pool->checkOut(), &second);
  EXPECT_EQ(&pool->checkOut(), &first);
  EXPECT_EQ(pool->getFigures().made, 2U);
  EXPECT_EQ(prepared, 2);
  pool->checkIn(first);
  EXPECT_THAT([&] { pool->checkIn(first); }, ThrowsTarn(111, HasSubstr("not checked out")));
  EXPECT_THAT([&] { pool->markBroken(first); }, ThrowsTarn(111, HasSubstr("not checked out")));
  EXPECT_THAT([&] { pool->checkIn(manager()); }, ThrowsTarn(111, HasSubstr("not checked out")));
  pool->checkIn(second);
}

TEST_F(PoolTest, AMeisterIsASessionForItsScope) {
  const auto pool = makePool({.largest = 1});
  manager().set("a", 1);
  {
    TarnMeister session(*pool);
    EXPECT_EQ(session.getSint32("a"), 1);
    session.set("b~c", 2);
    EXPECT_STREQ(session.getDBconfigFilePath(), configuration().c_str());
    EXPECT_EQ(goods::cache_manager::current(), &session.db().getCacheManager());
    EXPECT_THAT([&] { TarnMeister another(*pool, milliseconds(0)); },
                ThrowsTarn(5, HasSubstr("became free")));
    session.checkIn();
    EXPECT_THAT([&] { session.getSint32("a"); }, ThrowsTarn(4, testing::_));
    EXPECT_EQ(pool->getFigures().idle, 1U);
  }
  EXPECT_EQ(goods::cache_manager::current(), &manager().db().getCacheManager())
      << "the thread is attached to what it was attached to";
  EXPECT_EQ(manager().getSint32("b~c"), 2);
  const TarnTransaction transaction(manager());
  EXPECT_THAT([&] { TarnMeister session(*pool); }, ThrowsTarn(111, testing::_));
  EXPECT_EQ(pool->getFigures().idle, 1U) << "given back";
}

TEST_F(PoolTest, WhatIsReturnedWithinATransactionIsRolledBack) {
  const auto pool = makePool({.largest = 1});
  manager().set("a", 1);
  for (const bool asMeister : {true, false}) {
    if (asMeister) {
      TarnMeister session(*pool);
      session.db().getCacheManager().begin_transaction();
      session.set("a", 2);
    } else {
      TarnManager& session = pool->checkOut();
      session.attach();
      session.db().getCacheManager().begin_transaction();
      session.set("a", 2);
      pool->checkIn(session);
      EXPECT_EQ(goods::cache_manager::current(), nullptr);
      manager().attach();
    }
    EXPECT_EQ(manager().getSint32("a"), 1);
    manager().set("a", 1);  // nothing is locked any more
    TarnMeister next(*pool);
    EXPECT_FALSE(next.db().getCacheManager().in_transaction());
    EXPECT_EQ(next.getSint32("a"), 1);
  }
}

TEST_F(PoolTest, BrokenSessionsAreReplaced) {
  const auto pool = makePool({.largest = 1});
  const auto generation = [&] { return pool->getFigures().made; };
  struct Case {
    const char* what;
    std::function<void()> work;
    bool isReplaced;
  };
  const Case cases[] = {
      {"used", [&] { TarnMeister(*pool).set("a", 1); }, false},
      {"closed", [&] { TarnMeister(*pool).db().close(); }, true},
      {"said to be broken", [&] { TarnMeister(*pool).markBroken(); }, true},
      {"closed within a transaction",
       [&] {
         TarnMeister session(*pool);
         session.db().getCacheManager().begin_transaction();
         session.set("a", 3);
         session.db().close();
       },
       true},
      {"renewed while idle", [&] { pool->renew(); }, true},
      {"renewed while in use",
       [&] {
         const TarnMeister session(*pool);
         pool->renew();
       },
       true},
  };
  TarnMeister(*pool).checkIn();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto before = pool->getFigures();
    c.work();
    EXPECT_EQ(goods::cache_manager::current(), &manager().db().getCacheManager());
    TarnMeister session(*pool);
    EXPECT_EQ(session.getSint32("a", 1), 1);
    EXPECT_EQ(generation() - before.made, c.isReplaced ? 1U : 0U);
    EXPECT_EQ(pool->getFigures().replaced - before.replaced, c.isReplaced ? 1U : 0U);
  }
}

TEST_F(PoolTest, ThreadsGetSessionsInTheOrderInWhichTheyCame) {
  const auto pool = makePool({.largest = 1});
  TarnManager& session = pool->checkOut();
  std::mutex lock;
  std::vector<int> order;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      const TarnMeister mine(*pool);
      const std::lock_guard hold(lock);
      order.push_back(i);
    });
    AwaitWaiting(*pool, static_cast<std::size_t>(i) + 1);
  }
  EXPECT_THAT([&] { pool->checkOut(milliseconds(1)); }, ThrowsTarn(5, HasSubstr("1 ms")));
  pool->checkIn(session);
  threads.clear();
  EXPECT_THAT(order, testing::ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
  const TarnPoolFigures figures = pool->getFigures();
  EXPECT_EQ(figures.made, 1U);
  EXPECT_EQ(figures.checkOuts, 10U);
  EXPECT_EQ(figures.waits, 9U);
  EXPECT_EQ(figures.timeOuts, 1U);
  EXPECT_GE(figures.longestWait, milliseconds(1));
}

TEST_F(PoolTest, ASessionThatCannotBeMadeLeavesRoomForTheNextTry) {
  bool fails = true;
  const auto pool = makePool({.largest = 1, .prepare = [&](TarnManager&) {
                                if (fails) throw std::runtime_error("not now");
                              }});
  EXPECT_THROW(pool->checkOut(), std::runtime_error);
  EXPECT_THROW(pool->checkOut(), std::runtime_error);
  fails = false;
  pool->checkIn(pool->checkOut());
  EXPECT_EQ(pool->getFigures().made, 1U);
  EXPECT_THAT([&] { makePool({.smallest = 2, .largest = 1}); }, ThrowsTarn(111, HasSubstr("2")));
  EXPECT_THAT([&] { makePool({.largest = 0}); }, ThrowsTarn(111, HasSubstr("0")));
}

TEST_F(PoolTest, ClosesSessionsThatNobodyNeeds) {
  const auto pool = makePool({.smallest = 1, .largest = 3, .idle = milliseconds(0)});
  TarnManager *const a = &pool->checkOut(), *const b = &pool->checkOut(),
                     *const c = &pool->checkOut();
  for (TarnManager* session : {a, b, c}) {
    std::this_thread::sleep_for(milliseconds(1));  // so that the clock goes on
    pool->checkIn(*session);
  }
  EXPECT_LE(pool->getFigures().idle, 2U);
  EXPECT_GE(pool->getFigures().idle, 1U);
  EXPECT_EQ(pool->getFigures().replaced, 0U);
}

TEST_F(PoolTest, ShuttingDownEndsWaitsAndAwaitsWhatIsInUse) {
  auto pool = makePool({.smallest = 1, .largest = 2});
  std::optional<TarnMeister> first(std::in_place, *pool), second(std::in_place, *pool);
  std::atomic<int> refused{0};
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      EXPECT_THAT([&] { pool->checkOut(std::chrono::hours(1)); },
                  ThrowsTarn(4, HasSubstr("shut down")));
      ++refused;
    });
  }
  AwaitWaiting(*pool, 4);
  EXPECT_FALSE(pool->shutDown());
  threads.clear();
  EXPECT_EQ(refused, 4);
  EXPECT_THAT([&] { pool->checkOut(); }, ThrowsTarn(4, HasSubstr("shut down")));
  second->set("a", 1);  // goes on
  second.reset();
  EXPECT_FALSE(pool->shutDown(milliseconds(1)));
  std::jthread destroys([&] { pool.reset(); });
  first->set("b", 2);
  first.reset();
  destroys.join();
  EXPECT_EQ(manager().getSint32("a") + manager().getSint32("b"), 3);
}

// 64 threads and 8 sessions. Each transaction writes one number to two places; a tenth of the
// sessions are broken, and others are returned in the middle of a transaction. A minute with
// TARNS_POOL_SECONDS=60.
TEST_F(PoolTest, NoThreadIsStuckAndNoTransactionsMix) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
  const char* const wanted = std::getenv("TARNS_POOL_SECONDS");
  const auto duration = std::chrono::seconds(wanted != nullptr ? std::stoi(wanted) : 4);
  constexpr int kThreads = 64, kPlaces = 16;
  const auto pool =
      makePool({.largest = 8, .wait = std::chrono::minutes(5), .prepare = [](auto& s) {
                  s.setCacheLimit(4 << 20);
                }});
  manager().transaction([&] {
    for (int place = 0; place < kPlaces; ++place) {
      for (const char* half : {"~left", "~right"}) manager().set(std::to_string(place) + half, 0);
    }
  });
  std::atomic<int> committed{0}, broken{0}, mixed{0}, abandoned{0};
  std::atomic<std::int64_t> numbers{0};
  const auto end = std::chrono::steady_clock::now() + duration;
  const auto use = [&](std::mt19937& random) {
    const std::string place = std::to_string(random() % kPlaces);
    const auto chance = random() % 20;
    const std::int64_t number = ++numbers;
    TarnMeister session(*pool);
    if (session.db().getCacheManager().in_transaction()) ++mixed;
    if (chance < 4) {  // left in the middle; half of these are broken as well
      session.db().getCacheManager().begin_transaction();
      session.set(place + "~left", -number);
      ++abandoned;
    } else {
      session.transaction([&] {
        if (session.getSint64(place + "~left") != session.getSint64(place + "~right")) ++mixed;
        session.set(place + "~left", number);
        session.set(place + "~right", number);
      });
      ++committed;
    }
    if (chance == 0) session.markBroken();
    if (chance == 1) session.db().close();
    if (chance < 2) ++broken;
  };
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        std::mt19937 random(static_cast<unsigned>(i));
        while (std::chrono::steady_clock::now() < end) {
          EXPECT_NO_THROW(use(random));
        }
      });
    }
  }
  EXPECT_EQ(mixed, 0);
  EXPECT_GT(committed, 0);
  for (int place = 0; place < kPlaces; ++place) {
    const std::string name = std::to_string(place);
    EXPECT_EQ(manager().getSint64(name + "~left"), manager().getSint64(name + "~right"));
    EXPECT_GE(manager().getSint64(name + "~left"), 0) << "an abandoned number was committed";
  }
  const TarnPoolFigures figures = pool->getFigures();
  EXPECT_EQ(figures.inUse, 0U);
  EXPECT_EQ(figures.waiting, 0U);
  EXPECT_EQ(figures.timeOuts, 0U);
  EXPECT_EQ(figures.replaced, static_cast<std::uint64_t>(broken));
  EXPECT_LE(figures.made - figures.replaced, 8U);
  std::printf("%d committed, %d abandoned, %d sessions broken, longest wait %lld ms\n",
              committed.load(), abandoned.load(), broken.load(),
              static_cast<long long>(figures.longestWait.count() / 1000));
}

}  // namespace
}  // namespace tarns
