// Events of objects that commits change, and feeds of commits.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <goods/event.h>

#include "goods/errors_matcher.h"
#include "support/test_database.h"

namespace goods {
namespace {

using namespace std::chrono_literals;

constexpr auto long_time = 20s;

// Counts how often it is signalled, and on how many threads.
class counting_event : public event {
 public:
  void signal() override {
    {
      const std::lock_guard guard(lock_);
      threads_.insert(std::this_thread::get_id());
    }
    ++count_;
    event::signal();
  }
  int count() const { return count_; }
  std::set<std::thread::id> threads() const {
    const std::lock_guard guard(lock_);
    return threads_;
  }

 private:
  std::atomic<int> count_{0};
  mutable std::mutex lock_;
  std::set<std::thread::id> threads_;
};

// Whoever watches has seen everything that is committed by now: an event of another object, which
// is changed now, comes later.
void settle(test_session& session) {
  counting_event last;
  const ref<cell> marker = session.root()->next;
  session.session().signal_on_modification(marker.id(), &last);
  modify(marker)->value = marker->value + 1;
  ASSERT_TRUE(last.wait(long_time));
}

// A root with a marker behind it, and a cell under test behind that.
class modification_test : public ::testing::Test {
 protected:
  modification_test() {
    const ref<cell> root = mine_.root();
    modify(root)->next = new_cell(0, new_cell(1));
  }
  ref<cell> watched(test_session& in) { return in.root()->next->next; }

  test_store store_;
  test_session mine_{store_};
};

TEST_F(modification_test, SignalsOnceWhateverSessionCommits) {
  test_session other(store_);
  for (test_session* writer : {&mine_, &other}) {
    mine_.db().attach();
    counting_event changed;
    watched(mine_)->signal_on_modification(&changed);
    writer->db().attach();
    for (int i = 0; i < 3; ++i) modify(watched(*writer))->value = i + 10;
    ASSERT_TRUE(changed.wait(long_time));
    mine_.db().attach();
    settle(mine_);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_FALSE(changed.threads().contains(std::this_thread::get_id()));
    EXPECT_FALSE(mine_.session().withdraw_signal(&changed));
  }
}

TEST_F(modification_test, SignalsAfterTheSessionSeesTheChange) {
  class reading_event : public event {
   public:
    reading_event(test_session& in, ref<cell> object) : in_(in), object_(std::move(object)) {}
    void signal() override {
      in_.session().attach();
      seen = object_->value;
      cache_manager::detach();
      event::signal();
    }
    std::int64_t seen = 0;

   private:
    test_session& in_;
    const ref<cell> object_;
  };
  test_session other(store_);
  const ref<cell> here = watched(other);
  mine_.db().attach();
  for (int i = 1; i <= 200; ++i) {
    other.db().attach();
    reading_event changed(other, here);
    other.session().signal_on_modification(here.id(), &changed);
    mine_.db().attach();
    modify(watched(mine_))->value = 1000 + i;
    ASSERT_TRUE(changed.wait(long_time));
    EXPECT_EQ(changed.seen, 1000 + i);
  }
}

TEST_F(modification_test, RolledBackAndUncommittedChangesDoNotCount) {
  counting_event changed;
  mine_.session().begin_transaction();
  modify(watched(mine_))->value = 5;
  watched(mine_)->signal_on_modification(&changed);
  mine_.session().abort_transaction();
  settle(mine_);
  EXPECT_EQ(changed.count(), 0);
  mine_.session().begin_transaction();
  modify(watched(mine_))->value = 6;
  mine_.session().end_transaction();
  EXPECT_TRUE(changed.wait(long_time));
}

TEST_F(modification_test, RemovalByACollectionIsAChange) {
  const object_id id = watched(mine_).id();
  counting_event changed;
  mine_.session().signal_on_modification(id, &changed);
  modify(ref<cell>(mine_.root()->next))->next = nullptr;
  settle(mine_);
  EXPECT_EQ(changed.count(), 0);  // nothing leads there any more, but it is as it was
  ASSERT_EQ(mine_.db().start_gc(), 1u);
  EXPECT_TRUE(changed.wait(long_time));
  EXPECT_EQ(code_of([&] { mine_.session().signal_on_modification(id, &changed); }),
            error_code::object_deleted);
}

TEST_F(modification_test, TellsWhatHasChangedSinceAVersion) {
  const object_id id = watched(mine_).id();
  cache_manager& session = mine_.session();
  EXPECT_TRUE(session.may_have_changed(id, 0));  // nothing is known of then
  const commit_version before = session.version();
  EXPECT_FALSE(session.may_have_changed(id, before));
  modify(mine_.root())->value = 5;
  EXPECT_FALSE(session.may_have_changed(id, before));
  modify(watched(mine_))->value = 5;
  EXPECT_TRUE(session.may_have_changed(id, before));
  EXPECT_FALSE(session.may_have_changed(id, session.version()));
  EXPECT_TRUE(session.may_have_changed(make_object_id(0, 0x7FFFFFF0), before));  // is not there
}

TEST_F(modification_test, WhatIsForgottenMayHaveChanged) {
  const object_id id = watched(mine_).id();
  cache_manager& session = mine_.session();
  EXPECT_TRUE(session.may_have_changed(id, 0));
  const commit_version before = session.version();
  // One object after the other, more than are remembered.
  ref<cell> many;
  constexpr int count = 2000;
  for (int i = 0; i < count; ++i) many = new_cell(i, many);
  modify(mine_.root())->next = new_cell(0, new_cell(1, many));
  for (int i = 0; i * count < 40'000; ++i) {
    session.begin_transaction();
    for (ref<cell> one = many; !one.is_null(); one = ref<cell>(one->next)) modify(one)->value = i;
    session.end_transaction();
  }
  EXPECT_TRUE(session.may_have_changed(id, before));
  EXPECT_FALSE(session.may_have_changed(id, session.version()));
}

TEST_F(modification_test, WithdrawnEventsAreNotSignalledAnyMore) {
  class slow_event : public event {
   public:
    void signal() override {
      started.signal();
      go_on.wait();
      is_done = true;
      event::signal();
    }
    event started, go_on;
    std::atomic<bool> is_done{false};
  };
  counting_event never;
  slow_event slow;
  watched(mine_)->signal_on_modification(&slow);
  modify(watched(mine_))->value = 7;
  ASSERT_TRUE(slow.started.wait(long_time));
  watched(mine_)->signal_on_modification(&never);
  modify(watched(mine_))->value = 8;
  EXPECT_TRUE(mine_.session().withdraw_signal(&never));  // ready, behind the slow one
  std::thread releases([&] { slow.go_on.signal(); });
  EXPECT_FALSE(mine_.session().withdraw_signal(&slow));  // waits until it is done
  EXPECT_TRUE(slow.is_done);
  releases.join();
  settle(mine_);
  EXPECT_EQ(never.count(), 0);
}

// Every change is followed by a signal of an event that was registered before it.
TEST_F(modification_test, NoChangeIsLostBetweenSignalAndRegistration) {
  test_session other(store_);
  mine_.db().attach();
  constexpr int changes = 2000;
  std::atomic<bool> is_done{false};
  std::thread writer([&] {
    test_session third(store_);
    for (int i = 1; i <= changes; ++i) modify(watched(third))->value = i;
    is_done = true;
  });
  other.db().attach();
  const ref<cell> here = watched(other);
  std::int64_t seen = 0;
  while (seen != changes) {
    event changed;
    here->signal_on_modification(&changed);
    seen = here->value;
    if (seen == changes) {
      other.session().withdraw_signal(&changed);
    } else {
      ASSERT_TRUE(changed.wait(long_time)) << "after " << seen << (is_done ? ", at the end" : "");
    }
  }
  writer.join();
  mine_.db().attach();
}

TEST_F(modification_test, FeedsShowEveryCommitInOrder) {
  class noting_feed : public commit_feed {
   public:
    void committed(storage_number, commit_version version,
                   std::span<const object_number> changed) noexcept override {
      const std::lock_guard guard(lock);
      versions.push_back(version);
      for (const object_number number : changed) ++times[number];
    }
    std::mutex lock;
    std::vector<commit_version> versions;
    std::map<object_number, int> times;
  };
  noting_feed feed;
  mine_.session().add_feed(feed);
  const object_number number = number_of(watched(mine_).id());
  std::thread writer([&] {
    test_session other(store_);
    for (int i = 0; i < 300; ++i) modify(watched(other))->value = i;
  });
  for (int i = 0; i < 300; ++i) modify(watched(mine_))->value = i;
  writer.join();
  settle(mine_);
  mine_.session().remove_feed(feed);
  modify(watched(mine_))->value = -1;
  EXPECT_EQ(feed.times[number], 600);
  EXPECT_TRUE(std::ranges::is_sorted(feed.versions));
}

TEST(modification_of_several_storages_test, CommitsOverBothSignalBoth) {
  const test_store store(2);
  test_session mine(store);
  const ref<cell> root = mine.root();
  ref<cell> apart = new_cell(1);
  modify(apart)->attach_to_storage(&mine.db(), 1);
  modify(root)->next = apart;
  for (int i = 0; i < 50; ++i) {
    counting_event here, there;
    root->signal_on_modification(&here);
    apart->signal_on_modification(&there);
    mine.session().begin_transaction();
    modify(root)->value = i + 1;
    modify(apart)->value = i + 2;
    mine.session().end_transaction();
    ASSERT_TRUE(here.wait(long_time));
    ASSERT_TRUE(there.wait(long_time));
    EXPECT_EQ(here.count() + there.count(), 2);
  }
}

// Closing forgets events that wait, and waits for one that is being signalled.
TEST_F(modification_test, ASessionMayBeClosedWhileOthersCommit) {
  std::atomic<bool> stops{false};
  std::thread writer([&] {
    test_session other(store_);
    for (int i = 0; !stops; ++i) modify(watched(other))->value = i;
  });
  for (int i = 0; i < 30; ++i) {
    counting_event changed;
    {
      test_session brief(store_);
      watched(brief)->signal_on_modification(&changed);
      if (i % 2 == 0) {
        EXPECT_TRUE(changed.wait(long_time));
      }
    }
    EXPECT_LE(changed.count(), 1);
  }
  stops = true;
  writer.join();
  mine_.db().attach();
}

}  // namespace
}  // namespace goods
