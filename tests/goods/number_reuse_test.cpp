// Numbers of removed objects are used again, and never lead to a stranger.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include <goods/errors.h>
#include <goods/kept_numbers.h>
#include <goods/obj_storage.h>

#include "support/cell.h"
#include "support/test_database.h"

namespace goods {
namespace {

struct stored_numbers {
  std::size_t count = 0;
  object_number highest = 0;
};

stored_numbers numbers_in(database& db, storage_number storage = 0) {
  stored_numbers found;
  db.storage(storage).dbs().for_each([&](const object_state& state) {
    ++found.count;
    found.highest = std::max(found.highest, state.number);
    return true;
  });
  return found;
}

ref<cell> new_chain(int length, std::int64_t first = 0) {
  ref<cell> chain;
  for (int i = length; i-- > 0;) chain = new_cell(first + i, chain);
  return chain;
}

std::vector<std::int64_t> values_of(const ref<cell>& chain) {
  std::vector<std::int64_t> values;
  for (ref<cell> at(chain); at; at = ref<cell>(at->next)) values.push_back(at->value);
  return values;
}

// The numbers of the objects of a chain.
std::vector<object_number> numbers_of(const ref<cell>& chain) {
  std::vector<object_number> numbers;
  for (ref<cell> at(chain); at; at = ref<cell>(at->next)) numbers.push_back(number_of(at.id()));
  return numbers;
}

// Whether one of `some` is a neighbour of one of `others`.
bool share_groups(const std::vector<object_number>& some,
                  const std::vector<object_number>& others) {
  return std::ranges::any_of(some, [&](object_number one) {
    return std::ranges::any_of(others, [&](object_number other) {
      return neighbours::group_of(one) == neighbours::group_of(other);
    });
  });
}

object_ref found_by_number(database& db, object_number number) {
  object_ref found;
  db.get_object(found, number, 0);
  return found;
}

// The message with which `work` is refused because an object does not exist.
template <class Work>
std::string refusal_of(const Work& work) {
  try {
    work();
  } catch (const database_error& error) {
    if (error.code() == error_code::object_deleted) return error.what();
    throw;
  }
  return {};
}

// The last group of numbers is reached in part: it must not be handed out as a whole while
// somebody goes on through it.
TEST(NumberReuseTest, TheLastGroupIsNotHandedOutTwice) {
  for (const int length : {1, 30, 62, 63, 64, 100, 200}) {
    SCOPED_TRACE(length);
    const test_store store(1, "");
    {
      test_session session(store);
      modify(session.root())->next = new_chain(length);
    }
    test_session one(store), other(store);
    one.db().attach();
    modify(one.root())->next = nullptr;
    EXPECT_EQ(one.db().start_gc(), 1U);
    EXPECT_EQ(numbers_in(one.db()).count, 1U);
    std::vector<std::int64_t> expected;
    for (int round = 0; round < 6; ++round) {
      test_session& session = round % 2 == 0 ? one : other;
      session.db().attach();
      const ref<cell> root = session.root();
      for (int i = 0; i < 90; ++i) {
        const std::int64_t value = round * 100 + i;
        modify(root)->next = new_cell(value, ref<cell>(root->next));
        expected.insert(expected.begin(), value);
      }
    }
    EXPECT_EQ(values_of(ref<cell>(other.root()->next)), expected);
    EXPECT_EQ(numbers_in(other.db()).count, 1 + expected.size());
  }
}

TEST(NumberReuseTest, NumbersAndTheFileStopGrowing) {
  constexpr int length = 3000;
  constexpr int rounds = 12;
  const test_store store(1, "?log=256K");
  std::optional<test_session> session(std::in_place, store);
  object_number highest = 0;
  std::uintmax_t bytes = 0;
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    // Half of the rounds find the free numbers when they open the storage.
    if (round % 2 == 0) {
      session.reset();
      const auto size = std::filesystem::file_size(store.directory().path() / "data0" / "store.db");
      if (round == 4) bytes = size;
      if (round > 4) {
        EXPECT_LE(size, bytes);
      }
      session.emplace(store);
    }
    const ref<cell> root = session->root();
    modify(root)->next = new_chain(length, round);
    const stored_numbers there = numbers_in(session->db());
    EXPECT_EQ(there.count, 1U + length);
    modify(root)->next = nullptr;
    EXPECT_EQ(session->db().start_gc(), 1U);
    EXPECT_EQ(numbers_in(session->db()).count, 1U);
    if (round == 3) highest = there.highest;
    if (round > 3) {
      EXPECT_LE(there.highest, highest);
    }
  }
  EXPECT_LT(highest, root_object_number + 3U * length);
}

TEST(NumberReuseTest, AReferenceKeepsTheNumbersAround) {
  const test_store store;
  test_session session(store);
  test_session other(store);
  session.db().attach();
  const ref<cell> root = session.root();
  modify(root)->next = new_chain(200);
  const std::vector<object_number> old = numbers_of(ref<cell>(root->next));
  modify(root)->next = nullptr;
  // Another session finds one of the objects again while it is removed: by its number, since
  // nothing leads there.
  std::optional<object_ref> held;
  gc_options options;
  options.removes = [&](object_id id, std::string_view) {
    if (number_of(id) != old[100]) return;
    other.db().attach();
    held = found_by_number(other.db(), old[100]);
    session.db().attach();
  };
  ASSERT_EQ(session.db().start_gc(options), 1U);
  ASSERT_TRUE(held);
  modify(root)->next = new_chain(1000, 1000);
  EXPECT_TRUE(share_groups(numbers_of(ref<cell>(root->next)), old)) << "of the others";
  EXPECT_FALSE(share_groups(numbers_of(ref<cell>(root->next)), {old[100]}));
  other.db().attach();
  EXPECT_NE(refusal_of([&] { class_of(*held); }), "");

  held.reset();
  session.db().attach();
  modify(root)->next = nullptr;
  ASSERT_EQ(session.db().start_gc(), 1U);
  modify(root)->next = new_chain(3000, 3000);
  EXPECT_TRUE(share_groups(numbers_of(ref<cell>(root->next)), {old[100]}));
}

// A session that has begun a group goes on with it when all that it put there is gone.
TEST(NumberReuseTest, ASessionsStockIsItsOwn) {
  const test_store store;
  test_session one(store);
  test_session other(store);
  one.db().attach();
  const ref<cell> root = one.root();
  modify(root)->next = new_chain(130);  // its last group is begun
  modify(root)->next = nullptr;
  ASSERT_EQ(one.db().start_gc(), 1U);
  other.db().attach();
  const ref<cell> seen = other.root();
  modify(seen)->next = new_chain(500, 1000);
  one.db().attach();
  modify(root)->owner.set(root);
  ref<cell> last(root->next);
  while (last->next) last = ref<cell>(last->next);
  for (int i = 0; i < 100; ++i) {
    modify(last)->next = new_cell(1500 + i);
    last = ref<cell>(last->next);
  }
  std::vector<std::int64_t> expected(600);
  std::iota(expected.begin(), expected.end(), 1000);
  EXPECT_EQ(values_of(ref<cell>(root->next)), expected);
  EXPECT_EQ(numbers_in(one.db()).count, 601U);
}

TEST(NumberReuseTest, WhatIsRolledBackTakesNoNumbers) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  const ref<cell> nothing =
      ref<cell>::trusted(found_by_number(session.db(), root_object_number + 100'000));
  for (int i = 0; i < 50; ++i) {
    ref<cell> chain = new_chain(1000);
    modify(chain)->owner.set(nothing);  // which makes the commit fail
    EXPECT_NE(refusal_of([&] { modify(root)->next = chain; }), "");
    EXPECT_EQ(chain.id(), 0U);
  }
  modify(root)->next = new_chain(1000);
  EXPECT_LT(numbers_in(session.db()).highest, root_object_number + 3000U);
}

// Sessions that come and go beside one that stays.
TEST(NumberReuseTest, ASessionGivesBackWhatItDidNotUse) {
  const test_store store;
  test_session stays(store);
  stays.root();
  for (int i = 0; i < 100; ++i) {
    test_session session(store);
    const ref<cell> root = session.root();
    modify(root)->next = new_cell(i);
  }
  stays.db().attach();
  EXPECT_LT(numbers_in(stays.db()).highest, root_object_number + 64U * 110);
}

TEST(NumberReuseTest, WhoRemembersIdentifiersCanKeepThemFromBeingUsedAgain) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  modify(root)->next = new_chain(300);
  const std::vector<object_number> old = numbers_of(ref<cell>(root->next));
  std::optional<kept_numbers> kept(std::in_place);
  modify(root)->next = nullptr;
  ASSERT_EQ(session.db().start_gc(), 1U);
  modify(root)->next = new_chain(300);
  EXPECT_FALSE(share_groups(numbers_of(ref<cell>(root->next)), {old.begin(), old.end() - 64}));
  kept.reset();
  modify(root)->next = new_chain(5000);
  EXPECT_TRUE(share_groups(numbers_of(ref<cell>(root->next)), old));
}

// What is found again by its identifier while it is being removed.
TEST(NumberReuseTest, NothingThatIsBeingRemovedIsStoredAgain) {
  const test_store store(2);
  test_session session(store);
  const ref<cell> root = session.root();
  ref<cell> far = new_cell(2);
  modify(far)->attach_to_storage(&session.db(), 1);
  modify(root)->next = new_cell(1, far);
  const object_id near_id = root->next.id(), far_id = far.id();
  far.clear();
  modify(root)->next = nullptr;
  const auto try_all = [&] {
    for (const object_id id : {near_id, far_id}) {
      const std::string name = std::to_string(number_of(id));
      object_ref object;
      session.db().get_object(object, number_of(id), storage_of(id));
      const ref<cell> found = ref<cell>::trusted(object);
      const auto is_named = testing::HasSubstr(name);
      EXPECT_THAT(refusal_of([&] { modify(root)->next = found; }), is_named) << "in a copy";
      EXPECT_THAT(refusal_of([&] { modify(root)->next = new_cell(3, found); }), is_named)
          << "in a new object";
      EXPECT_THAT(refusal_of([&] { modify(found)->value = 4; }), is_named) << "written";
      EXPECT_THAT(refusal_of([&] { modify(root)->owner.set(found); }), is_named)
          << "referred back to";
      const ref<cell> heir = new_cell(6);
      modify(heir)->owner.set(found);
      EXPECT_THAT(refusal_of([&] { modify(heir)->become(root); }), is_named)
          << "referred back to by what takes another one's place";
      EXPECT_TRUE(root->next.is_null());
    }
  };
  int shown = 0;
  gc_options options;
  options.removes = [&](object_id, std::string_view) {
    ++shown;
    try_all();
  };
  ASSERT_EQ(session.db().start_gc(options), 1U);
  EXPECT_EQ(shown, 2);
  try_all();
  modify(root)->next = new_cell(5);
  EXPECT_EQ(values_of(root), (std::vector<std::int64_t>{0, 5}));
}

TEST(NumberReuseTest, WhatATransactionRefersBackToStaysToItsEnd) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  ref<cell> target = new_cell(1);
  modify(root)->next = target;
  modify(root)->next = nullptr;
  session.session().begin_transaction();
  modify(root)->owner.set(target);
  target.clear();
  std::thread([&] {
    test_session other(store);
    EXPECT_EQ(other.db().start_gc(), 1U);
  }).join();
  session.session().end_transaction();
  EXPECT_EQ(root->owner.get()->value, 1);
}

// Each thread has lists of its own below the root, in two sessions of two storages, and knows what
// must be in them; numbers go around between all.
TEST(NumberReuseTest, NobodyMeetsAStrangerUnderLoad) {
  constexpr int threads = 4;
  constexpr int rounds = 250;
  constexpr std::size_t lists = 4;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  const test_store store(2, "?durability=relaxed&log=256K");
  test_session main_session(store);
  main_session.root();
  constexpr int wanted = 500;  // numbers that were used again
  std::atomic<int> working{threads}, used_again{0};
  std::mutex made_lock;
  std::unordered_set<object_id> made;  // under made_lock
  const auto work = [&](int thread) {
    std::optional<test_session> own;
    if (thread % 2 == 0) {
      own.emplace(store);
    } else {
      main_session.db().attach();
    }
    test_session& session = own ? *own : main_session;
    std::minstd_rand random(seed + static_cast<unsigned>(thread));
    // Nothing but the references leads to them.
    std::vector<ref<cell>> heads;
    std::vector<std::vector<std::int64_t>> model(lists);
    for (std::size_t i = 0; i < lists; ++i) {
      heads.push_back(new_cell(-1));
      modify(session.root())->next = heads.back();
    }
    const auto goes_on = [&](int round) {
      return round < rounds || (used_again < wanted && round < 40 * rounds);
    };
    for (int round = 0; goes_on(round); ++round) {
      const std::size_t list = random() % lists;
      std::vector<std::int64_t>& expected = model[list];
      const unsigned what = random() % 4;
      if (what < 2) {  // insert
        const int length = 1 + static_cast<int>(random() % 90);
        const std::int64_t first = thread * 1'000'000 + round * 1000;
        session.session().atomically([&] {
          ref<cell> chain(heads[list]->next);
          for (int i = length; i-- > 0;) {
            chain = new_cell(first + i, chain);
            if (random() % 30 == 0) modify(chain)->attach_to_storage(&session.db(), random() % 2);
          }
          modify(heads[list])->next = chain;
        });
        for (int i = length; i-- > 0;) expected.insert(expected.begin(), first + i);
        ref<cell> at(heads[list]->next);
        const std::lock_guard guard(made_lock);
        for (int i = 0; i < length; ++i, at = ref<cell>(at->next))
          used_again += made.insert(at.id()).second ? 0 : 1;
      } else if (what == 2) {  // delete
        const std::size_t count = random() % (expected.size() + 1);
        ref<cell> rest(heads[list]->next);
        for (std::size_t i = 0; i < count; ++i) rest = ref<cell>(rest->next);
        modify(heads[list])->next = rest;
        expected.erase(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(count));
      } else {  // move
        const std::size_t other = random() % lists;
        session.session().atomically([&] {
          const ref<cell> here(heads[list]->next), there(heads[other]->next);
          modify(heads[list])->next = there;
          modify(heads[other])->next = here;
        });
        model[list].swap(model[other]);
      }
      const std::size_t checked = random() % lists;
      ASSERT_EQ(values_of(ref<cell>(heads[checked]->next)), model[checked]) << round;
    }
    --working;
  };
  std::vector<std::thread> all;
  for (int thread = 0; thread < threads; ++thread) {
    all.emplace_back([&, thread] {
      try {
        work(thread);
      } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
        --working;
      }
    });
  }
  while (working > 0) main_session.db().start_gc();
  for (std::thread& thread : all) thread.join();
  EXPECT_GE(used_again, wanted);
}

}  // namespace
}  // namespace goods
