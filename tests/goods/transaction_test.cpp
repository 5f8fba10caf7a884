#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include <goods/B_tree.h>
#include <goods/errors.h>

#include "goods/transaction.h"
#include "support/cell.h"
#include "support/test_database.h"

namespace goods {
namespace {

using testing::HasSubstr;

// The code of the error that `work` throws, and its text.
template <class Work>
std::pair<error_code, std::string> error_of(Work&& work) {
  try {
    work();
  } catch (const database_error& error) {
    return {error.code(), error.what()};
  }
  return {error_code{0xFFFF}, "nothing was thrown"};
}

std::int64_t value_seen_by_another_session(const test_store& store) {
  return std::async(std::launch::async,
                    [&] {
                      test_session other(store);
                      return other.root()->value;
                    })
      .get();
}

TEST(TransactionTest, StoresWhatACommittedObjectReachesAndNothingElse) {
  const test_store store;
  object_id reached = 0;
  {
    test_session session(store);
    const ref<cell> kept = new_cell(1, new_cell(2, new_cell(3)));
    const ref<cell> loose = new_cell(4, kept);
    modify(session.root())->next = kept;
    EXPECT_NE(kept.id(), 0u);
    EXPECT_EQ(loose.id(), 0u);
    EXPECT_EQ(loose->next->value, 1) << "a transient object may go on referring to a stored one";
    reached = kept->next->next.id();
  }
  test_session session(store);
  EXPECT_EQ(session.root()->next->next->next.id(), reached);
  EXPECT_EQ(session.root()->next->next->next->value, 3);
  EXPECT_TRUE(session.root()->next->next->next->next.is_null());
}

// However the new objects of a commit refer back to each other, and whichever is found first.
TEST(TransactionTest, StoresReferencesBackToObjectsThatAreFoundLater) {
  for (const bool is_later_one_found_first : {false, true}) {
    SCOPED_TRACE(is_later_one_found_first);
    const test_store store;
    {
      test_session session(store);
      modify(session.root())->next = new_cell(1);
      const ref<cell> second(session.root()->next);
      const ref<cell> from = new_cell(2), to = new_cell(3), unsaved = new_cell(4);
      modify(from)->next = new_cell(5);
      modify(from)->owner.set(to);
      modify(ref<cell>(from->next))->owner.set(unsaved);
      session.session().begin_transaction();
      modify(session.root())->next = second;  // writes the root first
      modify(second)->next = is_later_one_found_first ? from : to;
      const auto root = modify(session.root());
      root->next = is_later_one_found_first ? to : from;
      root->owner.set(second);
      session.session().end_transaction();
    }
    test_session session(store);
    const ref<cell> root = session.root();
    const ref<cell> at_root(root->next), at_second(ref<cell>(root->owner.get())->next);
    const ref<cell> from = is_later_one_found_first ? at_second : at_root;
    const ref<cell> to = is_later_one_found_first ? at_root : at_second;
    EXPECT_EQ(from->value, 2);
    EXPECT_EQ(to->value, 3);
    EXPECT_EQ(from->owner.get(), to);
    EXPECT_TRUE(ref<cell>(from->next)->owner.is_null()) << "it was not stored";
  }
}

TEST(TransactionTest, IsInvisibleUntilCommittedAndGoneWhenRolledBack) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  struct test_case {
    const char* how;
    bool commits;
  };
  for (const test_case& c : {test_case{"rolled back", false}, test_case{"committed", true}}) {
    SCOPED_TRACE(c.how);
    const std::int64_t before = root->value;
    session.session().begin_transaction();
    modify(root)->value = before + 1;
    const ref<cell> added = new_cell(before);
    modify(root)->next = added;
    EXPECT_EQ(root->value, before + 1);
    EXPECT_EQ(value_seen_by_another_session(store), before);
    c.commits ? static_cast<void>(session.session().end_transaction())
              : session.session().abort_transaction();
    EXPECT_EQ(root->value, before + (c.commits ? 1 : 0));
    EXPECT_EQ(value_seen_by_another_session(store), root->value);
    EXPECT_EQ(added.id() != 0, c.commits);
    EXPECT_EQ(added->value, before) << "the program's own object stays usable";
  }
}

TEST(TransactionTest, NestedBeginsJoinTheOuterOne) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  session.session().begin_transaction();
  session.session().begin_transaction();
  modify(root)->value = 7;
  session.session().end_transaction();
  EXPECT_TRUE(session.session().in_transaction());
  EXPECT_EQ(value_seen_by_another_session(store), 0);
  session.session().end_transaction();
  EXPECT_FALSE(session.session().in_transaction());
  EXPECT_EQ(value_seen_by_another_session(store), 7);
  EXPECT_EQ(error_of([&] { session.session().end_transaction(); }).first, error_code::usage);
}

TEST(TransactionTest, OneBegunAndEndedDuringAnAccessEndsWithTheAccess) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  {
    const auto outer = root.modify();
    outer->value = 1;
    session.session().begin_transaction();
    outer->value = 2;
    session.session().end_transaction();
    outer->value = 3;
    EXPECT_EQ(value_seen_by_another_session(store), 0);
  }
  EXPECT_FALSE(session.session().in_transaction());
  EXPECT_EQ(value_seen_by_another_session(store), 3);
  {  // the access ends first
    auto outer = std::make_unique<write_access<cell>>(root);
    (*outer)->value = 4;
    session.session().begin_transaction();
    outer.reset();
    EXPECT_EQ(value_seen_by_another_session(store), 3);
    session.session().end_transaction();
  }
  EXPECT_FALSE(session.session().in_transaction());
  EXPECT_EQ(value_seen_by_another_session(store), 4);
}

TEST(TransactionTest, OneAccessIsOneTransactionAndAnExceptionUndoesIt) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  const ref<cell> second = new_cell(0);
  modify(root)->next = second;
  {
    const auto outer = root.modify();
    outer->value = 1;
    modify(second)->value = 1;
    EXPECT_EQ(value_seen_by_another_session(store), 0);
  }
  EXPECT_EQ(value_seen_by_another_session(store), 1);
  EXPECT_THROW(
      {
        const auto outer = root.modify();
        outer->value = 2;
        modify(second)->value = 2;
        throw std::runtime_error("halfway");
      },
      std::runtime_error);
  EXPECT_EQ(root->value, 1);
  EXPECT_EQ(second->value, 1);
  EXPECT_FALSE(session.session().in_transaction());
}

// What an attempt has written goes, with what it has read of that; all else is committed.
TEST(TransactionTest, TakesBackAFailedAttemptAlone) {
  const test_store store;
  test_session session(store);
  cache_manager& cache = session.session();
  const ref<cell> root = session.root();
  const ref<cell> second = new_cell(0), third = new_cell(0);
  modify(root)->next = second;
  modify(second)->next = third;
  cache.begin_transaction();
  modify(root)->value = 1;
  transaction& open = transaction::running();
  const auto half = [&] {
    modify(second)->value = 2;
    const auto body = modify(third);
    body->value = 3;
    body->next = new_cell(4);
    EXPECT_EQ(cache.read([&](reader& in) { return in.get(second)->value; }), 2);
    throw_error(error_code::corrupt_data, "as if");
  };
  EXPECT_EQ(error_of([&] { open.attempt(half); }).first, error_code::corrupt_data);
  EXPECT_FALSE(open.is_doomed());
  EXPECT_EQ(cache.read([&](reader& in) { return in.get(second)->value; }), 0);
  EXPECT_EQ(third->value, 0);
  EXPECT_TRUE(third->next.is_null());
  modify(third)->value = 5;
  cache.end_transaction();
  EXPECT_EQ(value_seen_by_another_session(store), 1);
  EXPECT_EQ(second->value, 0);
  EXPECT_EQ(third->value, 5);
  EXPECT_TRUE(third->next.is_null());

  cache.begin_transaction();
  transaction& next = transaction::running();
  next.attempt([&] { modify(second)->value = 6; });
  EXPECT_THROW(next.attempt([&] { modify(third)->value = 7, throw std::runtime_error("no"); }),
               std::runtime_error);
  cache.end_transaction();
  EXPECT_EQ(second->value, 6);
  EXPECT_EQ(third->value, 5);
}

TEST(TransactionTest, AnObjectTakesThePlaceOfAnother) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  const ref<cell> old_next = new_cell(1);
  modify(root)->next = old_next;
  const object_id id = old_next.id();
  ref<cell> successor = new_cell(2);
  modify(successor)->become(old_next);
  EXPECT_EQ(old_next.id(), id);
  EXPECT_EQ(old_next->value, 2);
  EXPECT_EQ(error_of([&] { return successor->value; }).first, error_code::object_deleted);
  session.session().begin_transaction();
  modify(new_cell(3))->become(old_next);
  EXPECT_EQ(old_next->value, 3);
  session.session().abort_transaction();
  EXPECT_EQ(old_next->value, 2);
}

// It would end with the locks of the transaction that is open.
TEST(TransactionTest, NothingIsWrittenBesideTheTransactionThatIsOpen) {
  const test_store store;
  test_session session(store);
  cache_manager& cache = session.session();
  const ref<cell> root = session.root();
  const auto code_beside = [&](const auto& work) {
    return error_of([&] { cache.outside_transaction(work); }).first;
  };
  cache.begin_transaction();
  modify(root)->value = 1;
  EXPECT_EQ(code_beside([&] { modify(root)->value = 2; }), error_code::usage);
  EXPECT_EQ(code_beside([&] { cache.begin_transaction(); }), error_code::usage);
  EXPECT_EQ(code_beside([&] { cache.atomically([] {}); }), error_code::usage);
  EXPECT_EQ(cache.outside_transaction([&] { return root->value; }), 0);
  std::thread([&] {
    test_session other(store);
    other.session().set_lock_timeout(std::chrono::milliseconds(0));
    const ref<cell> locked = other.root();
    EXPECT_EQ(error_of([&] { modify(locked)->value = 3; }).first, error_code::lock_timeout);
  }).join();
  cache.end_transaction();
  EXPECT_EQ(root->value, 1);
  modify(root)->value = 4;
  EXPECT_EQ(root->value, 4);
}

// As the index of a node's children does, which the node's successor brings along.
TEST(TransactionTest, WhatBelongsToAnObjectGoesWithItToAnothersPlace) {
  const test_store store;
  test_session session(store);
  const ref<cell> stored = new_cell(1);
  modify(session.root())->next = stored;
  const auto make_heir = [](std::int64_t value) {
    ref<cell> heir = new_cell(value, new_cell(value + 1));
    modify(ref<cell>(heir->next))->owner.set(heir);
    return heir;
  };
  const ref<cell> heir = make_heir(10);
  const ref<cell> belonging(heir->next);
  session.session().begin_transaction();
  modify(heir)->become(stored);
  EXPECT_EQ(belonging->owner.get(), stored);
  session.session().abort_transaction();
  EXPECT_EQ(belonging->owner.get(), heir) << "rolled back";
  modify(heir)->become(stored);
  EXPECT_EQ(belonging->owner.get(), stored);
  {
    test_session other(store);
    const ref<cell> seen(other.root()->next);
    EXPECT_EQ(ref<cell>(seen->next)->owner.get(), seen) << "as it is stored";
  }
  session.db().attach();

  // Both new: what belonged to the other one, and is held, belongs to nothing.
  const ref<cell> one = make_heir(20), other = make_heir(30);
  const ref<cell> of_one(one->next), of_other(other->next);
  modify(one)->become(other);
  EXPECT_EQ(of_one->owner.get(), other);
  EXPECT_TRUE(of_other->owner.is_null());
}

TEST(TransactionTest, WhatTookThePlaceOfAnotherIsAsBeforeWhenThatIsRolledBack) {
  const test_store store;
  test_session session(store);
  const ref<cell> stored = new_cell(1);
  modify(session.root())->next = stored;
  const ref<cell> first = new_cell(2, new_cell(20)), second = new_cell(3);
  session.session().begin_transaction();
  modify(first)->become(stored);
  modify(second)->become(stored);
  EXPECT_EQ(stored->value, 3);
  session.session().abort_transaction();
  EXPECT_EQ(stored->value, 1);
  EXPECT_EQ(first->value, 2);
  EXPECT_EQ(first->next->value, 20);
  modify(second)->value = 4;
  EXPECT_EQ(second->value, 4);
  // The same with a commit.
  session.session().begin_transaction();
  modify(first)->become(stored);
  modify(second)->become(stored);
  session.session().end_transaction();
  EXPECT_EQ(stored->value, 4);
  EXPECT_EQ(error_of([&] { return first->value; }).first, error_code::object_deleted);
}

TEST(TransactionTest, AnAccessCannotWriteBeyondItsTransaction) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  for (const bool commits : {true, false}) {
    SCOPED_TRACE(commits);
    modify(root)->value = 1;
    session.session().begin_transaction();
    const ref<cell> made = new_cell(5);
    const auto of_stored = modify(root);
    const auto of_new = modify(made);
    of_stored->value = 2;
    of_stored->next = made;
    commits ? (void)session.session().end_transaction() : session.session().abort_transaction();
    EXPECT_EQ(error_of([&] { of_stored->value = 3; }).first, error_code::usage);
    EXPECT_EQ(root->value, commits ? 2 : 1);
    if (commits) {
      EXPECT_EQ(error_of([&] { of_new->value = 6; }).first, error_code::usage);
    } else {
      of_new->value = 6;
      EXPECT_EQ(made->value, 6);
    }
  }
  modify(root)->value = 7;
  EXPECT_EQ(value_seen_by_another_session(store), 7);
}

// A commit changes two numbers together; who reads them one after the other must not be told of a
// mixture, not even by an exception of its own.
TEST(TransactionTest, WhatAReaderThrowsBelongsToOneState) {
  const test_store store;
  test_session session(store);
  const ref<cell> left = session.root();
  modify(left)->next = new_cell(0);
  const ref<cell> right(left->next);
  std::atomic<bool> is_done = false;
  int mixed = 0;
  std::jthread reader([&] {
    session.session().attach();
    while (!is_done) {
      try {
        session.session().read([&](goods::reader& in) {
          if (in.get(left)->value != in.get(right)->value) throw std::runtime_error("mixed");
        });
      } catch (const std::runtime_error&) {
        ++mixed;
      }
    }
    cache_manager::detach();
  });
  for (int i = 1; i <= 500; ++i) {
    session.session().begin_transaction();
    modify(left)->value = i;
    modify(right)->value = i;
    session.session().end_transaction();
  }
  is_done = true;
  reader.join();
  EXPECT_EQ(mixed, 0);
}

TEST(TransactionTest, AnObjectOfAnotherClassIsRefusedWhereverAReferenceLeadsToIt) {
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  const ref<B_tree> index = B_tree::create(root, 2);
  for (const bool stored : {false, true}) {
    SCOPED_TRACE(stored);
    if (stored) modify(root)->next = ref<cell>::trusted(index);
    const ref<cell> wrong = stored ? ref<cell>(root->next) : ref<cell>::trusted(index);
    EXPECT_EQ(error_of([&] { return wrong->value; }).first, error_code::corrupt_data);
    EXPECT_EQ(error_of([&] { modify(wrong)->value = 1; }).first, error_code::corrupt_data);
    EXPECT_EQ(error_of([&] { modify(new_cell(1))->become(index); }).first, error_code::usage);
    EXPECT_FALSE(session.session().in_transaction());
  }
}

TEST(TransactionTest, ALongChainIsStoredReadAndDroppedWithoutDeepRecursion) {
  constexpr int length = 300'000;
  const test_store store;
  const auto build = [] {
    ref<cell> first;
    for (int i = 0; i < length; ++i) first = new_cell(i, first);
    return first;
  };
  build();  // drops it
  test_session session(store);
  modify(session.root())->next = build();
  int seen = 0;
  session.session().read([&](reader& r) {
    seen = 0;
    for (const cell* at = r.get(session.root())->next.is_null() ? nullptr : r.get(session.root());
         (at = r.get(at->next)) != nullptr;) {
      ++seen;
    }
  });
  EXPECT_EQ(seen, length);
}

// More objects than a transaction keeps at hand, in one read and in many.
TEST(TransactionTest, SeesItsOwnWritesAmongManyObjectsThatItHasRead) {
  constexpr int length = 3000;
  const test_store store;
  test_session session(store);
  const ref<cell> root = session.root();
  std::vector<ref<cell>> cells;
  session.session().atomically([&] {
    for (int i = 0; i < length; ++i) {
      cells.push_back(new_cell(i, i == 0 ? ref<cell>() : cells.back()));
    }
    modify(root)->next = cells.back();
  });
  session.session().set_cache_limit(1);
  const auto read_all = [&] {
    return session.session().read([&](reader& in) {
      std::vector<const cell*> seen;
      for (const ref<cell>& each : cells) seen.push_back(in.get(each));
      std::int64_t sum = 0;
      for (const cell* each : seen) sum += each->value;  // all are still there
      return sum;
    });
  };
  constexpr std::int64_t sum = std::int64_t{length} * (length - 1) / 2;
  session.session().begin_transaction();
  EXPECT_EQ(read_all(), sum);
  modify(cells[7])->value += 100;
  EXPECT_EQ(read_all(), sum + 100);
  modify(cells[7])->value += 100;
  modify(new_cell(8 + 1000, cells[7]))->become(cells[8]);
  EXPECT_EQ(read_all(), sum + 1200);
  session.session().abort_transaction();
  EXPECT_EQ(read_all(), sum);
  session.session().begin_transaction();
  EXPECT_EQ(read_all(), sum);
  session.session().end_transaction();
}

TEST(TransactionTest, WritersOfOneObjectTakeTurnsAndADeadlockIsRepeated) {
  constexpr int rounds = 200;
  const test_store store;
  test_session session(store);
  const ref<cell> a = session.root();
  modify(a)->next = new_cell(0);
  const ref<cell> b(a->next);
  const auto add = [&](const ref<cell>& first, const ref<cell>& second) {
    session.db().attach();
    for (int i = 0; i < rounds; ++i) {
      session.session().atomically([&] {
        modify(first)->value += 1;
        modify(second)->value += 1;
      });
    }
    session.db().detach();
  };
  std::thread one(add, a, b);
  std::thread other(add, b, a);
  one.join();
  other.join();
  EXPECT_EQ(a->value, 2 * rounds);
  EXPECT_EQ(b->value, 2 * rounds);
}

TEST(TransactionTest, AnEndingOrDetachingThreadRollsBackAndFreesItsLocks) {
  const test_store store;
  test_session session(store);
  session.session().set_lock_timeout(std::chrono::milliseconds(5000));
  const ref<cell> root = session.root();
  for (const bool detaches : {true, false}) {
    std::thread([&] {
      session.db().attach();
      session.session().begin_transaction();
      modify(root)->value = 99;
      if (detaches) session.db().detach();
    }).join();
    EXPECT_EQ(root->value, 0);
    session.session().atomically([&] { modify(root)->value = 0; });
  }
}

TEST(TransactionTest, AForeignThreadAndAClosedSessionAreTold) {
  const test_store store;
  ref<cell> root;
  {
    test_session session(store);
    root = session.root();
    std::thread([&] {
      EXPECT_EQ(error_of([&] { return root->value; }).first, error_code::thread_not_attached);
      EXPECT_EQ(error_of([&] { modify(root)->value = 1; }).first, error_code::thread_not_attached);
    }).join();
  }
  EXPECT_EQ(error_of([&] { return root->value; }).first, error_code::object_deleted);
}

TEST(TransactionTest, SpansSeveralStorages) {
  const test_store store(2);
  {
    test_session session(store);
    const ref<cell> far = new_cell(5);
    modify(far)->attach_to_storage(&session.db(), 1);
    modify(session.root())->next = far;
    EXPECT_EQ(storage_of(far.id()), 1);
    session.session().atomically([&] {
      modify(session.root())->value = 6;
      modify(far)->value = 6;
    });
  }
  test_session session(store);
  EXPECT_EQ(session.root()->value, 6);
  EXPECT_EQ(session.root()->next->value, 6);
}

TEST(DatabaseTest, RefusesWhatItCannotOpenByName) {
  struct test_case {
    const char* content;
    const char* message;
  };
  const std::string endless = "1\n0: file:./" + std::string(70'000, 'a');
  const test_case cases[] = {
      {endless.c_str(), "line 2 is longer than 65536 bytes"},
      {"", "first line must be the number"},
      {"x\n", "first line must be the number"},
      {"0\n", "first line must be the number"},
      {"2\n0: file:./a\n", "doesn't match the number of listed storages"},
      {"1\n0 file\n", "no colon"},
      {"1\n1: file:./a\n", "not below the number of storages"},
      {"2\n0: file:./a\n0: file:./b\n", "repeats"},
      {"1\n0:  \n", "no address"},
      {"1\n0: carrier:pigeon\n", "carrier:pigeon"},
      {"1\n0: file:/proc/nowhere/x\n", "/proc/nowhere/x"},
  };
  const scratch_directory directory;
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.message);
    const std::string path = directory.file("bad.cfg");
    std::ofstream(path) << c.content;
    database db;
    EXPECT_THAT(error_of([&] { db.open(path.c_str()); }).second, HasSubstr(c.message));
    EXPECT_FALSE(db.is_open());
  }
  database db;
  EXPECT_THAT(error_of([&] { db.open("missing.cfg"); }).second, HasSubstr("\"missing.cfg\""));
}

}  // namespace
}  // namespace goods
