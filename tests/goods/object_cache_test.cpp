#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <goods/String.h>

#include "goods/handle_table.h"
#include "support/cell.h"
#include "support/test_database.h"

namespace goods {
namespace {

// A chain of cells behind the root, values 1 to `length`.
void store_chain(test_session& session, int length) {
  ref<cell> first;
  for (int i = length; i > 0; --i) first = new_cell(i, first);
  modify(session.root())->next = first;
}

std::int64_t sum_of_chain(test_session& session) {
  std::int64_t sum = 0;
  for (ref<cell> at(session.root()->next); at; at = ref<cell>(at->next)) sum += at->value;
  return sum;
}

TEST(ObjectCacheTest, KeepsToItsLimitAndLosesNothing) {
  constexpr int length = 100'000;
  const test_store store;
  test_session session(store);
  session.session().set_cache_limit(std::size_t{2} << 20);
  store_chain(session, length);
  const ref<cell> held(session.root()->next);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(sum_of_chain(session), std::int64_t{length} * (length + 1) / 2);
    EXPECT_LT(session.session().cached_bytes(), std::size_t{3} << 20);
  }
  EXPECT_EQ(held->value, 1);
  modify(held)->value = 2;
  EXPECT_EQ(session.root()->next->value, 2) << "a held reference keeps its identity";
}

TEST(ObjectCacheTest, DropsUncommittedPrivateCopiesNeither) {
  const test_store store;
  test_session session(store);
  session.session().set_cache_limit(std::size_t{1} << 20);
  store_chain(session, 20'000);
  session.session().begin_transaction();
  for (ref<cell> at(session.root()->next); at; at = ref<cell>(at->next)) modify(at)->value = 1;
  EXPECT_EQ(sum_of_chain(session), 20'000);
  session.session().end_transaction();
  EXPECT_EQ(sum_of_chain(session), 20'000);
}

// Stored by a commit that is too large to be kept in memory: what the application refers to stays
// the same object, the rest is found in the storages.
TEST(ObjectCacheTest, KeepsOfALargeCommitWhatIsReferredTo) {
  constexpr int length = 10'000;
  for (const int storages : {1, 2}) {
    SCOPED_TRACE(testing::Message() << storages << " storages");
    const test_store store(storages);
    test_session session(store);
    test_session other(store);
    session.db().attach();
    session.session().set_cache_limit(std::size_t{8} << 20);
    const ref<cell> root = session.root();
    std::vector<ref<cell>> held;
    session.session().begin_transaction();
    ref<cell> first;
    for (int i = length; i > 0; --i) {
      const ref<cell> after = first;
      first = new_cell(i, after);
      if (after) modify(after)->owner.set(first);
      if (i > 1) modify(first)->attach_to_storage(&session.db(), i % storages);
      if (i % 100 == 0) held.push_back(first);
    }
    modify(root)->next = first;
    const std::size_t before = session.session().cached_bytes();
    session.session().end_transaction();

    EXPECT_LT(session.session().cached_bytes() - before, std::size_t{length} * 20);
    const ref<cell> mine(held.back()->next);
    EXPECT_EQ(mine->owner.get(), held.back());
    for (const ref<cell>& at : held) modify(at)->value += 1;
    const std::int64_t sum = std::int64_t{length} * (length + 1) / 2 + length / 100;
    EXPECT_EQ(sum_of_chain(session), sum);
    first = nullptr;
    held.clear();
    EXPECT_EQ(sum_of_chain(session), sum);
    other.db().attach();
    EXPECT_EQ(sum_of_chain(other), sum);
  }
}

// A cell that is made with what it refers to: while `new` evaluates its argument.
class parent_cell : public cell {
 public:
  explicit parent_cell(const ref<cell>& child) : cell(child->value + 1) { next = child; }
};

// A new object and its handle share memory. Meant for the address sanitizer, too.
TEST(ObjectMemoryTest, IsSharedByAnObjectAndItsHandleUntilBothHaveGone) {
  const test_store store;
  test_session session(store);
  const ref<cell> nested(new parent_cell(new_cell(1)));
  EXPECT_EQ(nested->value, 2);
  EXPECT_EQ(ref<cell>(nested->next)->value, 1);
  EXPECT_ANY_THROW(new parent_cell(ref<cell>())) << "fails before there is an object";
  for (const std::size_t length : {0, 1, 900, 930, 940, 1000, 100'000}) {
    const ref<String> text = String::create(std::string(length, 'x'));
    EXPECT_EQ(text->text(), std::string(length, 'x'));
    modify(text)->append("y");
    EXPECT_EQ(text->length(), length + 1);
  }
  const ref<cell> root = session.root();
  modify(root)->next = new_cell(1);
  const ref<cell> stored(root->next);
  {
    const ref<cell> heir = new_cell(2);
    modify(heir)->become(stored);  // the object leaves the handle that it was made with
  }
  EXPECT_EQ(stored->value, 2);
  modify(stored)->value = 3;  // and goes first
  const ref<cell> kept = new_cell(4);
  modify(stored)->next = kept;
  session.session().set_cache_limit(1);
  store_chain(session, 20'000);
  modify(root)->next = kept;
  EXPECT_EQ(kept->value, 4) << "a handle outlives the object that it was made with";
}

// Two cells whose values are always equal in every committed state.
struct twins {
  ref<cell> a, b;
  explicit twins(test_session& session) : a(session.root()) {
    if (a->next.is_null()) modify(a)->next = new_cell(0);
    b = ref<cell>(a->next);
  }
};

// Writers change both of two objects in one transaction, from two sessions; readers of both
// sessions, with caches that hold next to nothing, must never see them differ.
TEST(CoherenceTest, ReadersSeeWhatOneCommitLeft) {
  constexpr int commits = 300;
  const test_store store;
  test_session first(store);
  {
    const twins made(first);
    store_chain(first, 0);
    modify(made.a)->next = made.b;
  }
  std::atomic<int> writing{2};
  std::atomic<int> torn{0};
  std::atomic<std::int64_t> reads{0};

  const auto in_session = [&](auto&& work) {
    test_session session(store);
    session.session().set_cache_limit(1);
    const twins mine(session);
    work(session, mine);
  };
  const auto write = [&] {
    in_session([&](test_session& session, const twins& mine) {
      for (int i = 0; i < commits; ++i) {
        session.session().atomically([&] {
          modify(mine.a)->value += 1;
          modify(mine.b)->value += 1;
        });
      }
      --writing;
    });
  };
  const auto read = [&](bool in_transaction) {
    in_session([&](test_session& session, const twins& mine) {
      const auto look = [&] {
        return session.session().read(
            [&](reader& r) { return r.get(mine.a)->value == r.get(mine.b)->value; });
      };
      do {
        const bool equal = in_transaction ? session.session().atomically(look) : look();
        if (!equal) ++torn;
        ++reads;
      } while (writing > 0);
    });
  };
  std::vector<std::thread> threads;
  threads.emplace_back(write);
  threads.emplace_back(write);
  threads.emplace_back(read, false);
  threads.emplace_back(read, true);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
  EXPECT_GT(reads, 0);
  const twins end(first);
  EXPECT_EQ(end.a->value, 2 * commits);
  EXPECT_EQ(end.b->value, 2 * commits);
}

// Between two calls of sweep() insertions may replace a shard by a smaller one.
TEST(HandleTableTest, SweepsOnInAShardThatHasShrunkMeanwhile) {
  constexpr object_id first = 100'000, count = 20'000, kept = 100;
  const test_store store;
  test_session session(store);
  handle_table table;
  const auto insert = [&](object_id id) {
    auto* handle = new object_handle(session.db(), id);  // the table frees it
    table.insert(handle);
    return handle;
  };
  const auto erase = [&](object_handle* handle) {
    table.erase(handle);
    delete handle;
  };
  std::vector<object_handle*> handles;
  for (object_id id = first; id < first + count; ++id) handles.push_back(insert(id));
  for (object_id i = kept; i < count; ++i) erase(handles[i]);
  const std::set<object_handle*> left(handles.begin(), handles.begin() + kept);
  // Erased slots fill the shards up until each is built anew, for the few handles that are left.
  for (object_id id = first + count; id < first + 3 * count; ++id) erase(insert(id));

  std::size_t visited = 0;
  for (std::size_t shard = 0; shard < handle_table::shard_count; ++shard) {
    const auto visit = [&](object_handle& handle) { visited += left.count(&handle); };
    EXPECT_EQ(table.sweep(shard, 500, 128, visit), 0u) << "behind the last slot";
    EXPECT_EQ(visited, 0u);
  }
  for (std::size_t shard = 0; shard < handle_table::shard_count; ++shard) {
    table.sweep(shard, 0, count, [&](object_handle& handle) { visited += left.count(&handle); });
  }
  EXPECT_EQ(visited, kept);
}

// Big commits of several threads of one session, which another thread of it takes in: whoever gets
// a lock must see all of the commit before it, however long publishing that takes.
TEST(CoherenceTest, NoUpdateIsLostWhileACommitIsBeingTakenIn) {
  constexpr int writers = 3, rounds = 60, block = 400;
  const test_store store(1, "?durability=relaxed");
  test_session session(store);
  const ref<cell> hot = session.root();
  std::vector<std::vector<ref<cell>>> blocks(writers);
  for (auto& cells : blocks) {
    for (int i = 0; i < block; ++i) {
      cells.push_back(new_cell(0, i == 0 ? ref<cell>(hot->next) : cells.back()));
    }
    modify(hot)->next = cells.back();
  }
  std::atomic<int> writing{writers};
  std::vector<std::thread> threads;
  for (int w = 0; w < writers; ++w) {
    threads.emplace_back([&, w] {
      session.db().attach();
      for (int i = 0; i < rounds; ++i) {
        session.session().atomically([&] {
          for (const ref<cell>& c : blocks[w]) modify(c)->value += 1;
          modify(hot)->value += 1;
        });
      }
      --writing;
    });
  }
  threads.emplace_back([&] {
    session.db().attach();
    while (writing > 0) session.session().read([&](reader& r) { return r.get(hot)->value; });
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(hot->value, writers * rounds);
}

// One thread makes and drops references while another fills the cache again and again.
TEST(ObjectCacheTest, AReferenceMadeWhileTheCacheIsFullStaysOne) {
  const test_store store;
  test_session session(store);
  session.session().set_cache_limit(std::size_t{1} << 20);
  store_chain(session, 30'000);
  const object_id id = session.root()->next.id();
  std::atomic<bool> filling{true};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      session.db().attach();
      while (filling) {
        const object_ref found =
            t == 0 ? session.session().find(id) : session.session().read([&](reader& r) {
              // Through the body, which names its handle without counting it.
              const object* body = r.look(ref_word::of(id), cell::self_class);
              return object_ref(body->handle());
            });
        const ref<cell> checked = checked_cast<cell>(found);
        EXPECT_EQ(checked->value, 1);
      }
    });
  }
  for (int round = 0; round < 6; ++round) sum_of_chain(session);
  filling = false;
  for (std::thread& thread : threads) thread.join();
}

// A body that says that it takes much.
class heavy : public object {
 public:
  heavy() : object(self_class) { ++living; }
  heavy(object_handle* handle, class_descriptor& cls) : object(handle, cls) { ++living; }
  ~heavy() override { --living; }
  std::size_t varying_bytes() const override { return std::size_t{8} << 20; }
  static class_descriptor self_class;
  static int living;
};
int heavy::living = 0;
class_descriptor heavy::self_class("heavy", sizeof(heavy), &pessimistic_scheme,
                                   construct_object<heavy>, nullptr, &object::self_class);

TEST(ObjectCacheTest, LargeBodiesThatWereReplacedAreFreedSoon) {
  const test_store store(1, "?durability=relaxed");
  test_session session(store);
  const ref<heavy> large(new heavy);
  modify(session.root())->next = ref<cell>::trusted(large);
  for (int i = 0; i < 50; ++i) {
    session.session().atomically([&] { (void)modify(large); });
    EXPECT_LE(heavy::living, 4);
  }
}

}  // namespace
}  // namespace goods
