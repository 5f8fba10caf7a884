#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <random>
#include <semaphore>
#include <thread>
#include <vector>

#include <goods/byte_writer.h>
#include <goods/errors.h>
#include <goods/obj_storage.h>

#include "goods/epoch.h"
#include "goods/layout_catalog.h"
#include "support/cell.h"
#include "support/test_database.h"

namespace goods {
namespace {

std::size_t stored_objects(database& db, storage_number storage = 0) {
  std::size_t count = 0;
  db.storage(storage).dbs().for_each([&](const object_state&) {
    ++count;
    return true;
  });
  return count;
}

int chain_length(const ref<cell>& first) {
  int length = 0;
  for (ref<cell> at(first); at; at = ref<cell>(at->next)) ++length;
  return length;
}

TEST(CollectorTest, RemovesWhatNothingLeadsToAndKeepsWhatIsHeld) {
  const test_store store(2);
  test_session session(store);
  const ref<cell> root = session.root();
  const ref<cell> kept = new_cell(1, new_cell(2));
  modify(root)->next = new_cell(10, new_cell(11, new_cell(12, kept)));
  ref<cell> far = new_cell(13, new_cell(14));
  modify(far)->attach_to_storage(&session.db(), 1);
  modify(ref<cell>(root->next->next))->next = far;
  ASSERT_EQ(stored_objects(session.db()), 5u + 1u);
  modify(root)->next = nullptr;
  const object_id gone = far.id();
  far.clear();

  EXPECT_EQ(session.db().start_gc(), 1u);
  EXPECT_EQ(session.db().get_num_collected_objects(), 5u);
  EXPECT_EQ(stored_objects(session.db()), 3u) << "root and what `kept` holds";
  EXPECT_EQ(stored_objects(session.db(), 1), 0u);
  EXPECT_EQ(chain_length(kept), 2);
  modify(root)->next = kept;
  session.db().start_gc();
  EXPECT_EQ(chain_length(root), 3);

  object_ref missing;
  session.db().get_object(missing, number_of(gone), storage_of(gone));
  try {
    class_of(missing);
    ADD_FAILURE() << "a removed object was found";
  } catch (const database_error& error) {
    EXPECT_EQ(error.code(), error_code::object_deleted);
  }
}

TEST(CollectorTest, WhatWasRemovedHasGivenItsRoomBackWhenItEnds) {
  const test_store store;
  const auto used = [](test_session& session) {
    return session.db().storage(0).dbs().statistics().used_bytes;
  };
  {
    test_session session(store);
    ref<cell> chain;
    for (int i = 0; i < 20'000; ++i) chain = new_cell(i, chain);
    modify(session.root())->next = chain;
  }
  test_session session(store);
  const std::uint64_t before = used(session);
  modify(session.root())->next = nullptr;
  ASSERT_EQ(session.db().start_gc(), 1U);
  EXPECT_LT(used(session), before / 2);
}

// Chains move between two sessions' hands and the root while collections run without a pause.
TEST(CollectorTest, LosesNothingThatThreadsMoveAround) {
  constexpr int chain = 20;
  constexpr int rounds = 150;
  const test_store store;
  test_session main_session(store);
  main_session.root();
  std::atomic<int> working{2};
  const auto work = [&](unsigned seed) {
    test_session session(store);
    std::minstd_rand random(seed);
    const ref<cell> mine = new_cell(seed);
    session.session().atomically([&] {
      const ref<cell> root = session.root();
      modify(mine)->next = ref<cell>(root->next);
      modify(root)->next = mine;
    });
    ref<cell> in_hand;
    for (int i = 0; i < rounds; ++i) {
      if (in_hand.is_null()) {
        for (int n = 0; n < chain; ++n) in_hand = new_cell(n, in_hand);
      }
      // Put it below a new link, cut that off again, and hold on to the chain or let it go.
      const ref<cell> link = new_cell(100, in_hand);
      const ref<cell> rest(mine->next);
      modify(mine)->next = link;
      ASSERT_EQ(chain_length(ref<cell>(link->next)), chain);
      modify(mine)->next = rest;
      if (random() % 4 == 0) in_hand.clear();
      ASSERT_EQ(chain_length(in_hand), in_hand.is_null() ? 0 : chain);
    }
    modify(mine)->next = nullptr;
    --working;
  };
  std::thread one(work, 1);
  std::thread other(work, 2);
  std::uint64_t collections = 0;
  while (working > 0) collections += main_session.db().start_gc();
  one.join();
  other.join();
  EXPECT_GT(collections, 0u);
  main_session.db().start_gc();
  EXPECT_EQ(stored_objects(main_session.db()),
            static_cast<std::size_t>(chain_length(main_session.root())));
}

// A chain of stored cells, each of them held.
std::vector<ref<cell>> hold_chain(const ref<cell>& root, int length) {
  std::vector<ref<cell>> held{new_cell(0)};
  for (int n = 1; n < length; ++n) held.push_back(new_cell(n, held.back()));
  modify(root)->next = held.back();
  return held;
}

TEST(CollectorTest, ShowsWhatGoesAndEndsWhenItIsTold) {
  const test_store store(2);
  test_session session(store);
  const ref<cell> root = session.root();
  ref<cell> far = new_cell(1);
  modify(far)->attach_to_storage(&session.db(), 1);
  modify(root)->next = new_cell(2, new_cell(3, far));
  const std::vector<object_id> garbage{root->next.id(), ref<cell>(root->next)->next.id(), far.id()};
  far.clear();
  modify(root)->next = nullptr;
  std::vector<object_id> shown;
  gc_progress last;
  gc_options options;
  options.removes = [&](object_id id, std::string_view class_name) {
    EXPECT_EQ(class_name, "cell");
    shown.push_back(id);
  };
  options.progress = [&](const gc_progress& reached) {
    last = reached;
    return true;
  };
  const auto objects = [&] {
    return stored_objects(session.db()) + stored_objects(session.db(), 1);
  };

  options.dry_run = true;
  EXPECT_EQ(session.db().start_gc(options), 1u);
  EXPECT_THAT(shown, testing::UnorderedElementsAreArray(garbage));
  EXPECT_EQ(last.stored, 4u);
  EXPECT_EQ(last.removed, 3u);
  EXPECT_EQ(objects(), 4u) << "a dry run";

  options.dry_run = false;
  for (const bool while_removing : {false, true}) {
    options.progress = [&](const gc_progress& reached) {
      return reached.is_removing != while_removing;
    };
    EXPECT_EQ(session.db().start_gc(options), 0u);
    EXPECT_EQ(objects(), 4u) << "ended before it removed anything";
  }

  shown.clear();
  options.progress = nullptr;
  EXPECT_EQ(session.db().start_gc(options), 1u);
  EXPECT_THAT(shown, testing::UnorderedElementsAreArray(garbage));
  EXPECT_EQ(session.db().get_num_collected_objects(), 3u);
  EXPECT_EQ(objects(), 1u);
}

// One reference goes around a ring that nothing else leads to. A scan of the handles, which looks
// at one after the other, may find it nowhere.
TEST(CollectorTest, KeepsWhatAThreadIsWalkingAlong) {
  constexpr int length = 4000;
  constexpr int collections = 10;
  const test_store store;
  test_session session(store);
  ref<cell> last = new_cell(0);
  ref<cell> at = last;
  for (int n = 1; n < length; ++n) at = new_cell(n, at);
  const ref<cell> root = session.root();
  session.session().atomically([&] {
    modify(last)->next = at;
    modify(root)->next = at;
  });
  last.clear();
  const std::vector<ref<cell>> held = hold_chain(root, 50000);  // a scan takes its time
  std::atomic<bool> collecting{true};
  std::thread collector([&] {
    for (int n = 0; n < collections; ++n) session.db().start_gc();
    collecting = false;
  });
  try {
    while (collecting) at = ref<cell>(at->next);
    for (int n = 0; n < length; ++n) at = ref<cell>(at->next);
  } catch (const database_error& error) {
    ADD_FAILURE() << error.what();
  }
  collector.join();
  at.clear();
  session.db().start_gc();
  EXPECT_EQ(stored_objects(session.db()), 1u + held.size());
}

// Whoever reads an object goes on reading the version that was current at the beginning.
TEST(CollectorTest, KeepsWhatAnOldVersionLeadsTo) {
  const test_store store;
  test_session writer(store);
  const ref<cell> root = writer.root();
  enum class reading { in_the_same_session, in_another_session };
  for (const reading where : {reading::in_the_same_session, reading::in_another_session}) {
    SCOPED_TRACE(static_cast<int>(where));
    modify(root)->next = new_cell(1, new_cell(2));
    std::binary_semaphore is_reading(0);
    std::binary_semaphore is_collected(0);
    auto reader = std::async(std::launch::async, [&] {
      std::optional<test_session> own;
      if (where == reading::in_another_session) {
        own.emplace(store);
      } else {
        writer.db().attach();
      }
      const ref<cell> seen = own ? own->root() : root;
      const read_access<cell> old = *seen;
      is_reading.release();
      is_collected.acquire();
      return chain_length(ref<cell>(old->next));
    });
    is_reading.acquire();
    modify(root)->next = nullptr;
    // The body that the reader has is out of the cache already, or still in it.
    collect_retired();
    EXPECT_EQ(writer.db().start_gc(), 1u);
    is_collected.release();
    try {
      EXPECT_EQ(reader.get(), 2);
    } catch (const database_error& error) {
      ADD_FAILURE() << error.what();
    }
    writer.db().start_gc();
    EXPECT_EQ(stored_objects(writer.db()), 1u) << "nobody reads it any more";
  }
}

TEST(CollectorTest, EndsWhileThreadsCommitWithoutAPause) {
  using namespace std::chrono_literals;
  const test_store store(1, "?durability=relaxed");
  test_session session(store);
  const ref<cell> root = session.root();
  for (int i = 0; i < 200; ++i) modify(root)->next = new_cell(i, ref<cell>(root->next));
  modify(root)->next = nullptr;
  // Looking at all that is held takes longer than the time between two commits.
  const std::vector<ref<cell>> held = hold_chain(root, 50000);
  std::atomic<bool> committing{true};
  std::counting_semaphore<> has_begun(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      const bool in_session = t % 2 == 0;
      std::optional<test_session> own;
      if (in_session) {
        session.db().attach();
      } else {
        own.emplace(store);
      }
      const ref<cell> mine = new_cell(t);
      cache_manager& here = in_session ? session.session() : own->session();
      here.atomically([&] {
        const ref<cell> top = in_session ? root : own->root();
        modify(mine)->next = ref<cell>(top->next);
        modify(top)->next = mine;
      });
      has_begun.release();
      while (committing) modify(mine)->value = mine->value + 1;
    });
  }
  for (std::size_t t = 0; t < threads.size(); ++t) has_begun.acquire();
  auto collection = std::async(std::launch::async, [&] { return session.db().start_gc(); });
  EXPECT_EQ(collection.wait_for(20s), std::future_status::ready);
  committing = false;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(collection.get(), 1u);
  EXPECT_EQ(session.db().get_num_collected_objects(), 200u);
  EXPECT_EQ(chain_length(root), 50007);
}

// Only a damaged object refers to a number far above all that there are; it must not cost more than
// others.
TEST(CollectorTest, AWildNumberTakesNoMemory) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  modify(root)->next = new_cell(1);
  const object_id id = root->next.id();
  object_ref nowhere;
  session.db().get_object(nowhere, ~object_number{0}, 0);
  const ref<cell> wild = new_cell(2);
  modify(wild)->owner.set(ref<cell>::trusted(nowhere));
  byte_writer state;
  {
    const read_access<cell> body = *wild;
    cell::self_class.pack(*body.operator->(), state, id);
  }
  obj_storage& storage = session.db().storage(0);
  const object_change damaged{.number = number_of(id),
                              .layout = storage.catalog().number_for(cell::self_class),
                              .body = state.bytes()};
  storage.dbs().commit({.changes = {&damaged, 1}, .origin = nullptr, .attachment = nullptr});
  const auto memory = [] {
    const auto used = ::mallinfo2();
    return used.uordblks + used.hblkhd;
  };
  const std::size_t before = memory();
  std::size_t most = 0;
  gc_options options;
  options.progress = [&](const gc_progress&) {
    most = std::max(most, memory());
    return true;
  };
  EXPECT_EQ(session.db().start_gc(options), 1u);
  EXPECT_LT(most, before + (std::size_t{8} << 20));
}

// Also when they are started from different sessions. A read keeps the first one from ending.
TEST(CollectorTest, RunsOnceAtATimeForAStorage) {
  const test_store store;
  test_session one(store);
  test_session other(store);
  one.db().attach();
  const ref<cell> root = one.root();
  std::binary_semaphore is_reading(0);
  std::binary_semaphore is_read(0);
  std::thread reader([&] {
    one.db().attach();
    one.session().read([&](class reader&) {
      is_reading.release();
      is_read.acquire();
      is_read.release();
    });
  });
  is_reading.acquire();
  std::counting_semaphore<> has_ended(0);
  std::atomic<unsigned> ran{0};
  const auto collect = [&](database& db) {
    ran += db.start_gc();
    has_ended.release();
  };
  std::thread first(collect, std::ref(one.db()));
  std::thread second(collect, std::ref(other.db()));
  has_ended.acquire();
  EXPECT_EQ(ran, 0u) << "one of them gives up at once";
  is_read.release();
  first.join();
  second.join();
  reader.join();
  EXPECT_EQ(ran, 1u);
  EXPECT_EQ(other.db().start_gc(), 1u);
  one.session().read([&](class reader&) {
    EXPECT_THROW(one.db().start_gc(), database_error) << "it would wait for its own caller";
  });
}

}  // namespace
}  // namespace goods
