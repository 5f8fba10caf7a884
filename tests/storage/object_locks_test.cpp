#include "storage/object_locks.h"

#include <atomic>
#include <future>
#include <random>
#include <thread>

#include "storage/storage_fixture.h"

namespace goods {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using enum lock_mode;

constexpr object_number a = 0x10001, b = 0x10002, c = 0x10003;
constexpr auto deadline = 60s;  // for what must happen

class ObjectLocksTest : public storage_test {
 protected:
  // Waits until so many requests for an object do.
  static void await_waiting(lock_table& table, object_number number, std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (static_cast<object_lock_table&>(table).waiting(number) != count) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "nobody waits for " << number;
      std::this_thread::yield();
    }
  }

  static bool can_lock(lock_table& table, lock_owner& owner, object_number number, lock_mode mode) {
    try {
      table.lock(owner, number, mode, 0ms);
      return true;
    } catch (const database_error& error) {
      EXPECT_EQ(error.code(), error_code::lock_timeout);
      return false;
    }
  }

  std::shared_ptr<dbs_storage> storage_ = open();
  std::shared_ptr<dbs_storage> other_ = open("other");
  lock_table& locks_ = storage_->locks();
  lock_table& other_locks_ = other_->locks();
};

// Locks in a thread of its own; the result is what it threw.
class locking_thread {
 public:
  locking_thread(
      lock_table& table, lock_owner& owner, object_number number, lock_mode mode,
      const std::function<void()>& then = [] {})
      : result_(std::async(std::launch::async, [&table, &owner, number, mode, then] {
          std::string failure;
          try {
            table.lock(owner, number, mode, deadline);
          } catch (const database_error& error) {
            failure = std::to_string(static_cast<unsigned>(error.code())) + " " + error.what();
          }
          then();
          return failure;
        })) {}

  std::string failure() { return result_.get(); }

 private:
  std::future<std::string> result_;
};

TEST_F(ObjectLocksTest, GrantsWhatGoesTogether) {
  struct row {
    lock_mode held, wanted;
    bool granted;
  };
  const row rows[] = {{shared, shared, true},
                      {shared, exclusive, false},
                      {exclusive, shared, false},
                      {exclusive, exclusive, false}};
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(r.held) << static_cast<int>(r.wanted));
    lock_owner first, second;
    locks_.lock(first, a, r.held, 0ms);
    EXPECT_EQ(can_lock(locks_, second, a, r.wanted), r.granted);
    EXPECT_EQ(second.holds(locks_, a, r.wanted), r.granted);
    EXPECT_TRUE(can_lock(locks_, second, b, exclusive)) << "another object";
    EXPECT_TRUE(can_lock(other_locks_, second, a, exclusive)) << "another storage";
    EXPECT_FALSE(second.holds(locks_, c, shared));
    locks_.unlock_all(first);
    EXPECT_EQ(first.held(), 0U);
    EXPECT_TRUE(can_lock(locks_, second, a, r.wanted));
  }
}

TEST_F(ObjectLocksTest, SaysWhoHoldsWhatWasNotGranted) {
  lock_owner holder("the first"), second("the second");
  locks_.lock(holder, a, exclusive, 0ms);
  EXPECT_THAT([&] { locks_.lock(second, a, shared, 1ms); },
              fails_with(error_code::lock_timeout,
                         AllOf(HasSubstr("65537"), HasSubstr(storage_->name()),
                               HasSubstr("the first has held it exclusively for "))));
  EXPECT_EQ(second.held(), 0U);
}

TEST_F(ObjectLocksTest, AnswersTheNewestVersion) {
  lock_owner owner;
  const commit_version before = locks_.lock(owner, a, shared, 0ms);
  const commit_version version = commit_text(*storage_, b, "new");
  EXPECT_GT(version, before);
  EXPECT_EQ(locks_.lock(owner, c, shared, 0ms), version);
}

TEST_F(ObjectLocksTest, AReaderMayBecomeAWriter) {
  lock_owner first, second;
  locks_.lock(first, a, shared, 0ms);
  locks_.lock(first, a, exclusive, 0ms);
  EXPECT_FALSE(can_lock(locks_, second, a, shared));
  locks_.unlock_all(first);

  locks_.lock(first, a, shared, 0ms);
  locks_.lock(second, a, shared, 0ms);
  locking_thread upgrade(locks_, first, a, exclusive);
  await_waiting(locks_, a, 1);
  // Both would wait for each other.
  EXPECT_THAT([&] { locks_.lock(second, a, exclusive, deadline); },
              fails_with(error_code::deadlock, HasSubstr("65537")));
  EXPECT_TRUE(second.holds(locks_, a, shared));
  locks_.unlock_all(second);
  EXPECT_EQ(upgrade.failure(), "");
  EXPECT_TRUE(first.holds(locks_, a, exclusive));
}

TEST_F(ObjectLocksTest, SeveralNeighboursAreLockedAsIfOneByOne) {
  constexpr object_number beside = a + 9, other_group = a + 64;
  const neighbours wanted = {neighbours::group_of(a), neighbours::member_of(a) |
                                                          neighbours::member_of(b) |
                                                          neighbours::member_of(c)};
  struct row {
    const char* what;
    std::function<void(lock_owner& mine, lock_owner& other)> before;
    bool granted;
  };
  const row rows[] = {
      {"free", [](auto&, auto&) {}, true},
      {"one held already", [&](auto& mine, auto&) { locks_.lock(mine, b, shared, 0ms); }, true},
      {"one held exclusively", [&](auto& mine, auto&) { locks_.lock(mine, b, exclusive, 0ms); },
       true},
      {"all held", [&](auto& mine, auto&) { locks_.lock_shared(mine, wanted, 0ms); }, true},
      {"another reader", [&](auto&, auto& other) { locks_.lock_shared(other, wanted, 0ms); }, true},
      {"a writer beside", [&](auto&, auto& other) { locks_.lock(other, beside, exclusive, 0ms); },
       true},
      {"a writer of one", [&](auto&, auto& other) { locks_.lock(other, b, exclusive, 0ms); },
       false},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.what);
    lock_owner mine, other, late;
    r.before(mine, other);
    const bool had_b = mine.holds(locks_, b, exclusive);
    if (r.granted) {
      EXPECT_EQ(locks_.lock_shared(mine, wanted, 0ms), storage_->newest_version());
    } else {
      EXPECT_THAT([&] { locks_.lock_shared(mine, wanted, 0ms); },
                  fails_with(error_code::lock_timeout, HasSubstr(std::to_string(b))));
    }
    EXPECT_TRUE(mine.holds(locks_, a, shared));
    EXPECT_EQ(mine.holds(locks_, b, shared), r.granted);
    EXPECT_EQ(mine.holds(locks_, b, exclusive), had_b);
    EXPECT_EQ(mine.holds_exclusively(locks_, wanted), had_b);
    EXPECT_EQ(mine.holds(locks_, c, shared), r.granted);
    EXPECT_EQ(mine.held(), r.granted ? 3U : 1U);
    EXPECT_FALSE(mine.holds(locks_, beside, shared));
    EXPECT_FALSE(can_lock(locks_, late, a, exclusive));
    EXPECT_EQ(can_lock(locks_, late, c, exclusive), !r.granted);
    EXPECT_TRUE(can_lock(locks_, late, other_group, exclusive));
    for (lock_owner* owner : {&mine, &other, &late}) locks_.unlock_all(*owner);
    EXPECT_TRUE(can_lock(locks_, late, a, exclusive));
  }
}

TEST_F(ObjectLocksTest, WhoWaitsForNeighboursWaitsForEachByItself) {
  lock_owner first, second, reader, writer, late;
  locks_.lock(first, a, exclusive, 0ms);
  locks_.lock(second, b, shared, 0ms);
  locking_thread for_a(locks_, reader, a, shared, [&] { locks_.unlock_all(reader); });
  await_waiting(locks_, a, 1);
  locking_thread for_b(locks_, writer, b, exclusive, [&] { locks_.unlock_all(writer); });
  await_waiting(locks_, b, 1);
  EXPECT_THAT(
      [&] {
        locks_.lock_shared(late, {neighbours::group_of(b), neighbours::member_of(b)}, 0ms);
      },
      fails_with(error_code::lock_timeout, HasSubstr("waits for it longer")))
      << "it came after the writer";
  locks_.lock(late, c, exclusive, 0ms);
  locks_.unlock_all(second);
  EXPECT_EQ(for_b.failure(), "");
  EXPECT_EQ(static_cast<object_lock_table&>(locks_).waiting(a), 1U);
  EXPECT_FALSE(can_lock(locks_, second, a, shared));
  locks_.unlock_all(first);
  EXPECT_EQ(for_a.failure(), "");
  EXPECT_FALSE(can_lock(locks_, second, c, shared)) << "held to the end";
}

TEST_F(ObjectLocksTest, AnUpgradeGoesBeforeThoseThatWait) {
  lock_owner first, second, writer;
  locks_.lock(first, a, shared, 0ms);
  locks_.lock(second, a, shared, 0ms);
  std::vector<int> order;
  locking_thread waiting(locks_, writer, a, exclusive, [&] {
    order.push_back(2);
    locks_.unlock_all(writer);
  });
  await_waiting(locks_, a, 1);
  locking_thread upgrade(locks_, first, a, exclusive, [&] {
    order.push_back(1);
    locks_.unlock_all(first);
  });
  await_waiting(locks_, a, 2);
  locks_.unlock_all(second);
  EXPECT_EQ(upgrade.failure(), "");
  EXPECT_EQ(waiting.failure(), "");
  EXPECT_THAT(order, testing::ElementsAre(1, 2));
}

TEST_F(ObjectLocksTest, ReadersDoNotStarveAWriter) {
  lock_owner first, second, writer;
  locks_.lock(first, a, shared, 0ms);
  locking_thread waiting(locks_, writer, a, exclusive);
  await_waiting(locks_, a, 1);
  EXPECT_FALSE(can_lock(locks_, second, a, shared)) << "it came after the writer";
  locks_.unlock_all(first);
  EXPECT_EQ(waiting.failure(), "");
  EXPECT_FALSE(can_lock(locks_, second, a, shared));
  locks_.unlock_all(writer);
  EXPECT_TRUE(can_lock(locks_, second, a, shared));
}

TEST_F(ObjectLocksTest, AWriterThatGivesUpLetsReadersIn) {
  lock_owner first, second, writer;
  locks_.lock(first, a, shared, 0ms);
  std::thread impatient([&] {
    EXPECT_THAT([&] { locks_.lock(writer, a, exclusive, 300ms); },
                fails_with(error_code::lock_timeout, HasSubstr("300 ms")));
  });
  await_waiting(locks_, a, 1);
  locking_thread reader(locks_, second, a, shared);
  EXPECT_EQ(reader.failure(), "");
  impatient.join();
}

// first holds a and waits for b; the reader holds b and wants a, where it need not wait for the
// writer that is in front of it.
TEST_F(ObjectLocksTest, AReaderPassesAWriterRatherThanDeadlock) {
  lock_owner first, reader, writer;
  locks_.lock(first, a, shared, 0ms);
  other_locks_.lock(reader, b, exclusive, 0ms);
  locking_thread queued(locks_, writer, a, exclusive);
  await_waiting(locks_, a, 1);
  locking_thread blocked(other_locks_, first, b, shared);
  await_waiting(other_locks_, b, 1);
  locks_.lock(reader, a, shared, deadline);
  locks_.unlock_all(reader);
  other_locks_.unlock_all(reader);
  EXPECT_EQ(blocked.failure(), "");
  locks_.unlock_all(first);
  EXPECT_EQ(queued.failure(), "");
}

TEST_F(ObjectLocksTest, TellsAllThatAreInTheWay) {
  lock_owner first("first"), second("second"), writer("writer"), late("late");
  locks_.lock(first, a, shared, 0ms);
  locks_.lock(second, a, shared, 0ms);
  locking_thread queued(locks_, writer, a, exclusive, [&] { locks_.unlock_all(writer); });
  await_waiting(locks_, a, 1);
  EXPECT_FALSE(can_lock(locks_, late, a, exclusive));
  std::vector<std::string> said;
  for (const lock_wait& wait : late.conflict().waits) {
    EXPECT_EQ(wait.wanted, exclusive);
    said.push_back(describe_in_the_way(wait, "a").substr(0, 24));
  }
  EXPECT_THAT(said,
              testing::UnorderedElementsAre("first has held a shared ", "second has held a shared",
                                            "writer waits for a longe"));
  locks_.unlock_all(first);
  locks_.unlock_all(second);
  EXPECT_EQ(queued.failure(), "");
}

TEST_F(ObjectLocksTest, WaitsWithoutALimit) {
  lock_owner first, second;
  locks_.lock(first, a, shared, 0ms);
  std::thread patient([&] {
    locks_.lock(second, a, exclusive, std::chrono::milliseconds::max());
    locks_.unlock_all(second);
  });
  await_waiting(locks_, a, 1);
  locks_.unlock_all(first);
  patient.join();
}

// Each of n owners holds one object and waits for the next one's; the one that would close the
// circle is refused, keeps what it has, and when it lets go the others get on.
TEST_F(ObjectLocksTest, FindsCyclesThroughSeveralStoragesAtOnce) {
  for (unsigned n : {2U, 3U, 7U}) {
    SCOPED_TRACE(n);
    std::vector<std::unique_ptr<lock_owner>> owners;
    const auto table = [&](unsigned i) -> lock_table& {
      return i % 2 == 0 ? locks_ : other_locks_;
    };
    const auto number = [](unsigned i) { return a + i; };
    for (unsigned i = 0; i < n; ++i) {
      owners.push_back(std::make_unique<lock_owner>("owner " + std::to_string(i)));
      table(i).lock(*owners[i], number(i), exclusive, 0ms);
    }
    const auto release = [&](unsigned i) {
      locks_.unlock_all(*owners[i]);
      other_locks_.unlock_all(*owners[i]);
    };
    std::vector<std::unique_ptr<locking_thread>> threads;
    for (unsigned i = 0; i + 1 < n; ++i) {
      threads.push_back(std::make_unique<locking_thread>(table(i + 1), *owners[i], number(i + 1),
                                                         i % 3 == 0 ? exclusive : shared,
                                                         [&release, i] { release(i); }));
      await_waiting(table(i + 1), number(i + 1), 1);
    }
    EXPECT_THAT(
        [&] { locks_.lock(*owners[n - 1], number(0), shared, deadline); },
        fails_with(error_code::deadlock,
                   AllOf(HasSubstr("65537"), HasSubstr("owner 0 has held it exclusively"))));
    EXPECT_TRUE(owners[n - 1]->holds(table(n - 1), number(n - 1), exclusive));
    // The circle as its victim is told: it waits for the first one, that one for the second one ...
    const auto& waits = owners[n - 1]->conflict().waits;
    ASSERT_EQ(waits.size(), n);
    for (unsigned i = 0; i < n; ++i) {
      EXPECT_EQ(waits[i].table, &table(i));
      EXPECT_EQ(waits[i].number, number(i));
      EXPECT_EQ(waits[i].waiting, "owner " + std::to_string((i + n - 1) % n));
      EXPECT_EQ(waits[i].in_the_way, "owner " + std::to_string(i));
      EXPECT_TRUE(waits[i].is_held);
      EXPECT_EQ(waits[i].held, exclusive);
      EXPECT_GE(waits[i].milliseconds, 0);
    }
    release(n - 1);
    for (auto& thread : threads) EXPECT_EQ(thread->failure(), "");
  }
}

// The second waits for the first no longer when that has released everything, so the first may wait
// for the second in its next transaction.
TEST_F(ObjectLocksTest, AnOwnersPastClosesNoCycle) {
  lock_owner first, second, third;
  locks_.lock(second, c, exclusive, 0ms);
  locks_.lock(first, a, shared, 0ms);
  locks_.lock(third, a, shared, 0ms);
  locking_thread waiting(locks_, second, a, exclusive);
  await_waiting(locks_, a, 1);
  locks_.unlock_all(first);
  locking_thread next(locks_, first, c, shared);
  await_waiting(locks_, c, 1);
  locks_.unlock_all(third);
  EXPECT_EQ(waiting.failure(), "");
  locks_.unlock_all(second);
  EXPECT_EQ(next.failure(), "");
}

TEST_F(ObjectLocksTest, HoldsManyAtOnceAndTakesPartOfThemBack) {
  constexpr object_number count = 100'000;
  lock_owner owner, other;
  for (int round = 0; round < 2; ++round) {
    for (object_number i = 0; i < count; ++i)
      (i % 2 == 0 ? locks_ : other_locks_).lock(owner, a + i, i % 3 == 0 ? exclusive : shared, 0ms);
    EXPECT_EQ(owner.held(), count);
    locks_.unlock_all(owner);
    EXPECT_EQ(owner.held(), count / 2);
    for (object_number i = 0; i < count; ++i) {
      const bool still = i % 2 != 0;
      ASSERT_EQ(owner.holds(other_locks_, a + i, shared), still);
      ASSERT_EQ(owner.holds(other_locks_, a + i, exclusive), still && i % 3 == 0);
      ASSERT_FALSE(owner.holds(locks_, a + i, shared));
    }
    EXPECT_TRUE(can_lock(locks_, other, a + 6, exclusive));
    EXPECT_FALSE(can_lock(other_locks_, other, a + 3, shared));
    other_locks_.unlock_all(owner);
    locks_.unlock_all(other);
  }
  EXPECT_EQ(owner.held(), 0U);
}

// Threads move amounts between objects under locks taken in any order; deadlocks are repeated.
TEST_F(ObjectLocksTest, KeepsThreadsApart) {
  constexpr int accounts = 6, threads = 4, moves = 400;
  struct account {
    std::int64_t amount = 100;  // guarded by the object's lock alone
  };
  std::array<account, accounts> table;
  std::vector<std::thread> workers;
  for (unsigned seed = 0; seed < threads; ++seed)
    workers.emplace_back([&, seed] {
      std::minstd_rand random(seed + 1);
      lock_owner owner;
      for (int done = 0; done < moves;) {
        const auto from = random() % accounts, to = random() % accounts;
        try {
          locks_.lock(owner, a + static_cast<object_number>(from), shared, deadline);
          const std::int64_t had = table[from].amount;
          std::this_thread::yield();
          other_locks_.lock(owner, a + static_cast<object_number>(to), exclusive, deadline);
          locks_.lock(owner, a + static_cast<object_number>(to), exclusive, deadline);
          locks_.lock(owner, a + static_cast<object_number>(from), exclusive, deadline);
          EXPECT_EQ(table[from].amount, had);
          --table[from].amount;
          ++table[to].amount;
          ++done;
        } catch (const database_error& error) {
          EXPECT_EQ(error.code(), error_code::deadlock) << error.what();
        }
        locks_.unlock_all(owner);
        other_locks_.unlock_all(owner);
      }
    });
  for (std::thread& worker : workers) worker.join();
  std::int64_t sum = 0;
  for (const account& each : table) sum += each.amount;
  EXPECT_EQ(sum, accounts * 100);
}

}  // namespace
}  // namespace goods
