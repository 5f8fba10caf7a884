#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include <goods/errors.h>
#include <goods/obj_storage.h>

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

}  // namespace
}  // namespace goods
