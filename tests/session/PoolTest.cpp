// Sessions that threads share one after the other.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnManagerPool.h>
#include <tarns/session/TarnMeister.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/captured_log.h"
#include "support/faulty_vfs.h"
#include "support/killed_process.h"
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
  goods::cache_manager* own() { return &manager().db().getCacheManager(); }
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
    TarnManager& base = session;
    const auto refused = ThrowsTarn(111, HasSubstr("cannot be connected"));
    EXPECT_THAT([&] { base.connect(configuration().c_str()); }, refused);
    EXPECT_THAT([&] { base.connect(configuration().c_str(), milliseconds(0)); }, refused);
    EXPECT_EQ(session.getSint32("b~c"), 2);
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

TEST_F(PoolTest, AThreadComesBackOnlyToWhatIsStillItsOwn) {
  const auto pool = makePool({.largest = 2});
  struct Case {
    const char* what;
    std::function<void(TarnMeister& outer)> work;
    bool comesBack;
  };
  const Case cases[] = {
      {"the outer one is returned first", [](TarnMeister& outer) { outer.checkIn(); }, true},
      {"and closed",
       [](TarnMeister& outer) {
         outer.markBroken();
         outer.checkIn();
       },
       true},
      {"and given to another thread",
       [&](TarnMeister& outer) {
         outer.checkIn();
         std::thread([&] { TarnMeister(*pool).set("a", 1); }).join();
       },
       true},
      {"the database of the outer one is closed", [](TarnMeister& outer) { outer.db().close(); },
       true},
      {"what was before is connected anew",
       [&](TarnMeister& outer) {
         outer.checkIn();
         manager().connect(configuration().c_str());
       },
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::optional<TarnMeister> outer(std::in_place, *pool), inner(std::in_place, *pool);
    c.work(*outer);
    EXPECT_EQ(goods::cache_manager::current(), &inner->db().getCacheManager());
    inner->set("b", 2);
    inner.reset();
    EXPECT_EQ(goods::cache_manager::current(), c.comesBack ? own() : nullptr);
    outer.reset();
    manager().attach();
  }
  // One overlaps the next, and what was in between is gone.
  std::optional<TarnMeister> sessions[2];
  for (int i = 0; i < 5; ++i) {
    TarnManager other;
    other.connect(configuration().c_str());
    if (i == 3) other.attach();
    sessions[i % 2].emplace(*pool);
    sessions[1 - i % 2].reset();
    EXPECT_EQ(goods::cache_manager::current(), &sessions[i % 2]->db().getCacheManager());
  }
  sessions[0].reset();
  EXPECT_EQ(goods::cache_manager::current(), own());
}

TEST_F(PoolTest, PreparingASessionLeavesTheThreadWhereItWas) {
  bool closes = false;
  const auto pool = makePool({.smallest = 1, .largest = 3, .prepare = [&](TarnManager& session) {
                                session.attach();
                                session.getRoot();
                                if (closes) session.db().close();
                              }});
  EXPECT_EQ(goods::cache_manager::current(), own());
  {
    TarnMeister first(*pool), second(*pool);
    second.markBroken();
  }
  EXPECT_EQ(goods::cache_manager::current(), own());
  TarnManager& idle = pool->checkOut();
  {
    TarnTransaction transaction(manager());
    manager().set("a", 1);
    EXPECT_THAT([&] { pool->checkOut(); }, ThrowsTarn(111, HasSubstr("transaction open")));
    transaction.commit();
  }
  EXPECT_EQ(manager().getSint32("a"), 1);
  closes = true;
  EXPECT_THAT([&] { pool->checkOut(); }, ThrowsTarn(111, HasSubstr("prepares it")));
  EXPECT_EQ(goods::cache_manager::current(), own());
  pool->checkIn(idle);
}

TEST_F(PoolTest, WhatAUserSetsIsSetBack) {
  const auto pool = makePool({.largest = 1, .prepare = [](TarnManager& session) {
                                session.setCacheLimit(16 << 20);
                                session.setLockTimeout(milliseconds(123));
                              }});
  std::size_t transactionLimit = 0;
  {
    TarnMeister session(*pool);
    transactionLimit = session.db().getCacheManager().transaction_limit();
    session.setCacheLimit(8 << 20);
    session.setLockTimeout(milliseconds(0));
    session.setTransactionLimit(1 << 20);
    session.db().getCacheManager().rememberValues(false);
  }
  const TarnMeister session(*pool);
  const TarnCacheManager& cache = session.db().getCacheManager();
  EXPECT_EQ(cache.cache_limit(), 16U << 20);
  EXPECT_EQ(cache.lock_timeout(), milliseconds(123));
  EXPECT_EQ(cache.transaction_limit(), transactionLimit);
  EXPECT_TRUE(cache.remembersValues());
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
  const std::string other = directory().file("other.conf");
  std::ofstream(other) << "1\n0: file:./other\n";
  const auto connect = [&](const std::string& to) {
    TarnManager& session = pool->checkOut();
    session.connect(to.c_str());
    pool->checkIn(session);
  };
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
      {"connected elsewhere", [&] { connect(other); }, true},
      {"connected anew", [&] { connect(configuration()); }, true},
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
  EXPECT_THAT([&] { makePool({.largest = 1'000'000}); }, ThrowsTarn(111, HasSubstr("1000000")));
}

TEST_F(PoolTest, ClosesSessionsThatNobodyNeeds) {
  for (const auto idle : {milliseconds(0), milliseconds::max()}) {
    const auto pool = makePool({.smallest = 1, .largest = 3, .idle = idle});
    TarnManager *const a = &pool->checkOut(), *const b = &pool->checkOut(),
                       *const c = &pool->checkOut();
    for (TarnManager* session : {a, b, c}) {
      std::this_thread::sleep_for(milliseconds(1));  // so that the clock goes on
      pool->checkIn(*session);
    }
    EXPECT_LE(pool->getFigures().idle, idle.count() == 0 ? 2U : 3U);
    EXPECT_GE(pool->getFigures().idle, idle.count() == 0 ? 1U : 3U);
    EXPECT_EQ(pool->getFigures().replaced, 0U);
  }
}

TEST_F(PoolTest, LimitsHoldWhileTheDatabaseIsInUseElsewhere) {
  close();
  killed_process holder({PROGRAM_SESSION_WRITER, configuration(), "work"});
  ASSERT_FALSE(holder.next_line(std::chrono::seconds(20)).empty());
  auto pool = makePool({.wait = milliseconds::max()});
  EXPECT_THAT([&] { pool->checkOut(milliseconds(0)); }, ThrowsTarn(105, testing::_));
  EXPECT_THAT([&] { pool->checkOut(milliseconds(120)); }, ThrowsTarn(105, testing::_));
  std::jthread waits(
      [&] { EXPECT_THAT([&] { pool->checkOut(); }, ThrowsTarn(4, HasSubstr("shut down"))); });
  while (pool->getFigures().checkOuts < 3) std::this_thread::yield();
  pool.reset();
  waits.join();
  auto other = makePool({});
  auto given =
      std::async(std::launch::async, [&] { return &other->checkOut(milliseconds::max()); });
  while (other->getFigures().checkOuts < 1) std::this_thread::yield();
  holder.kill_after(std::chrono::microseconds(0));
  other->checkIn(*given.get());
}

TEST_F(PoolTest, TheDestructorTellsWhomItWaitsFor) {
  const captured_log log;
  auto pool = makePool({.largest = 1});
  TarnManager& session = pool->checkOut();
  TarnManagerPool& stays = *pool;
  std::jthread destroys([&] { pool.reset(); });
  while (log.lines().empty()) std::this_thread::yield();
  EXPECT_THAT(log.lines()[0],
              HasSubstr("the threads that have taken them are " + std::to_string(::gettid())));
  stays.checkIn(session);
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
  std::jthread destroys([&] {
    EXPECT_TRUE(pool->shutDown(milliseconds::max()));
    pool.reset();
  });
  first->set("b", 2);
  first.reset();
  destroys.join();
  EXPECT_EQ(manager().getSint32("a") + manager().getSint32("b"), 3);
}

// A store that takes no commits any more is shared by all sessions of the process. Nobody but the
// pool knows when none is in use.
TEST(PoolDiskTest, AFailedStoreIsOpenedAgainUnderLoad) {
  faulty_vfs disk;
  const scratch_directory directory;
  const std::string configuration = directory.file("tarns.conf");
  std::ofstream(configuration) << "1\n0: file:./data\n";
  TarnManager::Initialize();
  TarnManagerPool pool(configuration.c_str(), {.largest = 2});
  constexpr int kEnough = 100;
  std::atomic<int> failed{0}, committed{0};
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  const auto use = [&](int thread) {
    while (committed < kEnough && std::chrono::steady_clock::now() < end) {
      try {
        TarnMeister(pool).set("t~" + std::to_string(thread), committed.load());
        if (failed > 0) ++committed;
      } catch (const TarnException& error) {
        EXPECT_THAT(error.getErrorID(), testing::AnyOf(102, 106)) << error.what();
        if (error.getErrorID() != 106) continue;
        ++failed;
        disk.disarm();
      }
    }
  };
  TarnMeister(pool).set("t", 0);
  std::optional<TarnManager> outside;
  const auto failUnderLoad = [&] {
    failed = committed = 0;
    disk.arm(
        {faulty_vfs::bit(faulty_vfs::operation::sync), 20, faulty_vfs::fault::lost_sync, true});
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(use, i);
  };
  failUnderLoad();
  EXPECT_GT(failed, 0);
  EXPECT_GE(committed, kEnough);
  // Where somebody else has it open, it can be read.
  outside.emplace();
  outside->connect(configuration.c_str());
  disk.arm({faulty_vfs::bit(faulty_vfs::operation::sync), 0, faulty_vfs::fault::lost_sync, true});
  const auto set = [&] { TarnMeister(pool).set("t", 1); };
  EXPECT_THAT(set, ThrowsTarn(106, testing::_));
  disk.disarm();
  EXPECT_THAT(set, ThrowsTarn(106, HasSubstr("opened again")));
  EXPECT_EQ(TarnMeister(pool).getSint32("t"), 0);
  outside.reset();
  pool.renew();
  set();
  EXPECT_EQ(TarnMeister(pool).getSint32("t"), 1);
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
