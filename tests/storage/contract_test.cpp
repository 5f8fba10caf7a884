// What every backend promises: goods/dbs_storage.h. A backend joins by a row in `backends`.

#include <rapidcheck.h>

#include <atomic>
#include <functional>
#include <numeric>
#include <thread>

#include "storage/storage_fixture.h"
#include "support/faulty_vfs.h"

namespace goods {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Eq;
using testing::Field;
using testing::HasSubstr;
using testing::Optional;
using testing::Pair;

struct backend {
  const char* name;
  // Opens the storage that belongs to the directory, again with what it holds.
  std::function<std::shared_ptr<dbs_storage>(const std::string& directory)> open;
};

void PrintTo(const backend& b, std::ostream* out) { *out << b.name; }

const backend backends[] = {
    {"local", [](const std::string& directory) { return open_storage("file:store", directory); }},
    {"local_unmapped",
     [](const std::string& directory) { return open_storage("file:store?mmap=off", directory); }},
    // Keeps hardly anything in memory.
    {"local_uncached",
     [](const std::string& directory) { return open_storage("file:store?cache=0", directory); }},
    // Merges all the time.
    {"local_short_log",
     [](const std::string& directory) { return open_storage("file:store?log=64K", directory); }},
    {"local_relaxed",
     [](const std::string& directory) {
       return open_storage("file:store?durability=relaxed", directory);
     }},
};

class ContractTest : public testing::TestWithParam<backend> {
 protected:
  ContractTest() { open(); }

  void open() { storage_ = GetParam().open(scratch_.path().string()); }
  void reopen() {
    storage_.reset();
    open();
  }

  faulty_vfs disk_;  // never fails: processes end here, machines do not, so nothing need be synced
  scratch_directory scratch_;
  std::shared_ptr<dbs_storage> storage_;
};

INSTANTIATE_TEST_SUITE_P(Backends, ContractTest, testing::ValuesIn(backends),
                         [](const auto& row) { return std::string(row.param.name); });

std::string patterned(std::size_t size, unsigned seed) {
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>((seed = seed * 1664525 + 1013904223) >> 24);
  return text;
}

TEST_P(ContractTest, KeepsStatesOfEverySizeAcrossReopening) {
  const std::size_t sizes[] = {0,      1,       127,     128,           1023,       1024,    1025,
                               65'536, 1 << 20, 8 << 20, (8 << 20) + 1, 20'000'000, 64 << 20};
  std::map<object_number, std::string> expected;
  const class_number layout = some_layout(*storage_);
  for (std::size_t size : sizes) {
    const object_number number = storage_->allocate(3);
    // Runs that pack well, and bytes that do not.
    change_list changes(layout);
    changes.put(number, expected[number] = std::string(size, 'x'), true);
    changes.put(number + 1, expected[number + 1] = patterned(size, number), true);
    storage_->commit(changes.request());
  }
  for (int round = 0; round < 2; ++round) {
    for (const auto& [number, text] : expected)
      ASSERT_TRUE(load_text(*storage_, number) == text) << number << ": " << text.size();
    ASSERT_TRUE(load_all(*storage_) == expected);
    reopen();
  }
}

TEST_P(ContractTest, ReportsMissingAndRemovedObjects) {
  const object_number first = storage_->allocate(200);
  change_list changes(some_layout(*storage_));
  changes.put(first, "one").put(first + 1, std::string(5000, '2')).put(first + 150, "three");
  storage_->commit(changes.request());
  change_list removal(1);
  removal.remove(first + 1).remove(first + 150).remove(first + 199);
  const commit_version removed = storage_->commit(removal.request());
  for (int round = 0; round < 2; ++round) {
    collecting_sink sink;
    const object_number numbers[] = {first + 199, first, first + 1, first + 150, 7};
    EXPECT_EQ(storage_->load(numbers, removed, sink), removed);
    EXPECT_THAT(sink.found(), ElementsAre(Pair(first, "one")));
    EXPECT_THAT(sink.missing(), ElementsAre(7, first + 1, first + 150, first + 199));
    EXPECT_THAT(load_all(*storage_), ElementsAre(Pair(first, "one")));
    reopen();
  }
}

// What is kept together: the states as of the load, however long somebody holds them.
TEST_P(ContractTest, GroupsKeepTheStatesOfTheirLoad) {
  const class_number layout = storage_->intern_layout(bytes_of("layout"));
  const object_number first = storage_->allocate(3);
  const std::string long_text(5000, 'x');
  storage_->commit(change_list(layout)
                       .put(first, "a", true)
                       .put(first + 1, "b", true)
                       .put(first + 2, long_text, true)
                       .request());
  reopen();
  struct group_sink : state_sink {
    void found(const object_state& state) override {
      body = state.body;
      if (state.group != nullptr) group = state.group->shared_from_this();
    }
    void missing(object_number) override { FAIL(); }
    std::span<const std::byte> body;
    std::shared_ptr<const state_group> group;
  } sink;
  storage_->load({&first, 1}, 0, sink);
  if (sink.group == nullptr) return;  // a backend need not have any
  for (int i = 0; i < 3; ++i)
    storage_->commit(change_list(layout).put(first, "A").put(first + 1, "B").request());
  storage_->commit(change_list(layout).remove(first).request());
  reopen();
  EXPECT_EQ(text_of(sink.body), "a");
  object_state state{};
  ASSERT_TRUE(sink.group->find(first + 1, state));
  EXPECT_EQ(state.number, first + 1);
  EXPECT_EQ(state.layout, layout);
  EXPECT_EQ(state.group, sink.group.get());
  EXPECT_EQ(text_of(state.body), "b");
  EXPECT_FALSE(sink.group->find(first + 3, state)) << "there is no such object";
  EXPECT_FALSE(sink.group->find(first + 64, state)) << "not of this group";
  if (sink.group->find(first + 2, state)) {
    EXPECT_EQ(text_of(state.body), long_text);
  }
}

TEST_P(ContractTest, TheLastOfSeveralChangesOfOneObjectCounts) {
  const object_number number = storage_->allocate(1);
  change_list changes(some_layout(*storage_));
  changes.put(number, std::string(3000, 'a')).remove(number).put(number, "b");
  storage_->commit(changes.request());
  EXPECT_THAT(load_text(*storage_, number), Optional(Eq("b")));
}

TEST_P(ContractTest, RefusesWhatItCannotStore) {
  const class_number layout = some_layout(*storage_);
  const commit_version before = storage_->newest_version();
  const object_change cases[] = {
      {first_object_number - 1, layout, {}},
      {root_object_number, 0, {}},
      {root_object_number, static_cast<class_number>(layout + 1), {}},
  };
  for (const object_change& change : cases) {
    SCOPED_TRACE(change.number);
    EXPECT_THAT(
        [&] {
          storage_->commit({{&change, 1}, nullptr, {}});
        },
        fails_with(error_code::usage, HasSubstr(storage_->name())));
  }
  EXPECT_EQ(storage_->newest_version(), before);
}

TEST_P(ContractTest, AllocatesNumbersNobodyElseGets) {
  std::vector<std::thread> threads;
  std::vector<std::vector<object_number>> numbers(4);
  for (auto& mine : numbers)
    threads.emplace_back([&] {
      for (std::uint32_t i = 0; i < 500; ++i) {
        const object_number first = storage_->allocate(1 + i % 70);
        for (std::uint32_t n = 0; n < 1 + i % 70; ++n) mine.push_back(first + n);
      }
    });
  for (std::thread& thread : threads) thread.join();
  std::set<object_number> all;
  for (const auto& mine : numbers)
    for (object_number number : mine) ASSERT_TRUE(all.insert(number).second) << number;
  EXPECT_GT(*all.begin(), root_object_number);
}

TEST_P(ContractTest, NeverHandsOutANumberThatWasUsed) {
  const object_number number = storage_->allocate(10) + 9;
  commit_text(*storage_, number, "used");
  change_list removal(1);
  storage_->commit(removal.remove(number).request());
  reopen();
  EXPECT_GT(storage_->allocate(1), number);
  EXPECT_THAT([&] { storage_->allocate(~0U); },
              fails_with(error_code::storage_full, HasSubstr(storage_->name())));
}

TEST_P(ContractTest, UsesNumbersAgainWhenNobodyCanKnowThem) {
  constexpr object_number group = neighbours::most, begin = 0x10000 + 2 * group;
  storage_->allocate(10 * group);
  const class_number layout = some_layout(*storage_);
  const auto fill = [&](object_number groups, bool removes) {
    change_list changes(layout);
    for (object_number i = 0; i < groups * group; i += 16)
      removes ? changes.remove(begin + i) : changes.put(begin + i, std::to_string(i));
    storage_->commit(changes.request());
  };
  fill(6, false);
  fill(3, true);
  EXPECT_EQ(storage_->reuse(1000).count, 0U) << "somebody may know them";
  std::vector<object_number> asked;
  storage_->reclaim([&](object_number first) {
    asked.push_back(first);
    return first != begin + group;
  });
  EXPECT_THAT(asked, ElementsAre(begin, begin + group, begin + 2 * group));
  EXPECT_EQ(storage_->reuse(group - 1).count, 0U) << "whole groups only";
  const auto is_range = [](object_number first, std::uint32_t count) {
    return AllOf(Field(&number_range::first, first), Field(&number_range::count, count));
  };
  EXPECT_THAT(storage_->reuse(1000), is_range(begin, group));
  storage_->give_back({begin, group});
  EXPECT_THAT(storage_->reuse(1000), is_range(begin, group));
  commit_text(*storage_, begin + 2 * group, "used by somebody who was not given it");
  EXPECT_EQ(storage_->reuse(1000).count, 0U);
  commit_text(*storage_, begin + 1, "again");
  EXPECT_EQ(load_text(*storage_, begin), std::nullopt);
  EXPECT_EQ(load_text(*storage_, begin + 1), "again");

  // Opened again, nobody knows anything that is not there; the root's group stays the root's.
  reopen();
  EXPECT_EQ(load_text(*storage_, begin + 1), "again");
  EXPECT_THAT(storage_->reuse(64 * group), is_range(begin - group, group));
  EXPECT_THAT(storage_->reuse(64 * group), is_range(begin + group, group));
  EXPECT_EQ(storage_->reuse(64 * group).count, 0U);
  EXPECT_GE(storage_->allocate(1), begin + 5 * group);
}

TEST_P(ContractTest, RefusesWhatBuildsOnMissingOrCondemnedObjects) {
  const object_number first = storage_->allocate(5);
  const class_number layout = some_layout(*storage_);
  storage_->commit(change_list(layout).put(first, "a").put(first + 1, "b").request());
  const commit_version seen = storage_->newest_version();
  const auto commit_on = [&](object_number number, commit_version seen_at, bool changes_some) {
    change_list changes(layout);
    if (changes_some) changes.put(first + 2, "c");
    commit_request request = changes.request();
    request.builds_on = {&number, 1};
    request.seen_at = seen_at;
    storage_->commit(request);
  };
  const auto is_refused = [](object_number number) {
    return fails_with(error_code::object_deleted, HasSubstr(std::to_string(number)));
  };
  const commit_version before = storage_->newest_version();
  for (const bool changes_some : {false, true}) {
    commit_on(first, 0, changes_some);
    commit_on(first, seen, changes_some);
    EXPECT_THAT([&] { commit_on(first + 3, 0, changes_some); }, is_refused(first + 3));
  }
  EXPECT_EQ(storage_->newest_version(), before + 2) << "without changes nothing is committed";
  {
    auto pause = storage_->pause_commits();
    const auto condemned =
        storage_->condemn([&](object_number number) { return number == first + 1; }, *pause);
    pause.reset();
    commit_on(first, seen, true);
    EXPECT_THAT([&] { commit_on(first + 1, seen, true); }, is_refused(first + 1));
    EXPECT_THAT([&] { commit_on(first + 1, 0, true); }, is_refused(first + 1));
  }
  commit_on(first + 1, 0, true);
  storage_->commit(change_list(layout).remove(first).request());
  EXPECT_THAT([&] { commit_on(first, seen, true); }, is_refused(first)) << "it was seen before";
  commit_on(first + 1, seen, true);
  EXPECT_EQ(load_text(*storage_, first + 2), "c");
}

TEST_P(ContractTest, NumbersLayoutsByTheirBytes) {
  const class_number one = storage_->intern_layout(bytes_of("one"));
  const class_number two = storage_->intern_layout(bytes_of("two"));
  const class_number empty = storage_->intern_layout({});
  EXPECT_EQ(std::set<class_number>({0, one, two, empty}).size(), 4U);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(storage_->intern_layout(bytes_of("two")), two);
    EXPECT_EQ(storage_->intern_layout({}), empty);
    std::map<class_number, std::string> layouts;
    for (const layout_record& record : storage_->layouts())
      layouts[record.number] = text_of(record.layout);
    EXPECT_THAT(layouts,
                testing::UnorderedElementsAre(Pair(one, "one"), Pair(two, "two"), Pair(empty, "")));
    reopen();
  }
  const object_number number = storage_->allocate(1);
  change_list changes(two);
  storage_->commit(changes.put(number, "state").request());
  collecting_sink sink;
  storage_->load({&number, 1}, 0, sink);
  EXPECT_EQ(sink.layout(number), two);
}

TEST_P(ContractTest, TellsEverySubscriptionOfEveryCommitInOrder) {
  const object_number first = storage_->allocate(3);
  commit_text(*storage_, first, "before");
  int mine = 0, others = 0;
  const auto all = storage_->subscribe(nullptr);
  const auto own = storage_->subscribe(&mine);
  const commit_version start = all->newest();
  EXPECT_EQ(start, storage_->newest_version());

  const auto attachment = std::make_shared<int>(5);
  change_list changes(some_layout(*storage_));
  changes.put(first, "a").put(first + 1, "b", true).remove(first + 2);
  storage_->commit(changes.request(&mine, attachment));
  const commit_version last = storage_->commit(changes.request(&others, attachment));

  EXPECT_EQ(own->newest(), last);
  const auto seen = all->take(last);
  const auto owned = own->take(0);
  ASSERT_EQ(seen.size(), 2U);
  ASSERT_EQ(owned.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(seen[i]->version, start + 1 + i);
    EXPECT_EQ(owned[i]->version, start + 1 + i);
    EXPECT_THAT(seen[i]->changed, ElementsAre(first, first + 2));
    EXPECT_EQ(seen[i]->attachment, attachment);
  }
  EXPECT_EQ(owned[0]->origin, &mine);
  EXPECT_EQ(owned[0]->attachment, attachment);
  EXPECT_EQ(owned[1]->attachment, nullptr);
  EXPECT_TRUE(all->take(last).empty());
}

// A session that sleeps through many commits is still told of all numbers, in bounded memory.
TEST_P(ContractTest, MergesUntakenNoticesOfOthers) {
  int mine = 0;
  const auto own = storage_->subscribe(&mine);
  const object_number first = storage_->allocate(64);
  change_list own_change(some_layout(*storage_));
  own_change.put(first + 63, "own");
  constexpr unsigned commits = 10'000, own_at = 5'000;
  commit_version last = 0;
  // Directly after each other in one group would be the same to the subscription.
  for (unsigned i = 0; i < commits; ++i) {
    if (i == own_at) storage_->commit(own_change.request(&mine, std::make_shared<int>(1)));
    change_list change(1);
    last = storage_->commit(change.remove(first + i % 7).request());
    if (GetParam().name != std::string_view("local_relaxed") && i > 9) break;
  }
  const auto notices = own->take(last);
  EXPECT_LT(notices.size(), 8200U);
  EXPECT_EQ(notices.back()->version, last);
  std::set<object_number> told;
  commit_version before = 0;
  unsigned attached = 0;
  for (const auto& n : notices) {
    EXPECT_GT(n->version, before);
    before = n->version;
    told.insert(n->changed.begin(), n->changed.end());
    attached += n->attachment ? 1 : 0;
  }
  EXPECT_EQ(told.count(first + 6), 1U);
  EXPECT_EQ(attached, told.count(first + 63));
}

// Threads that commit one after the other, without a pause, neither get past a pause nor keep it
// from beginning; what had been committed by then is to be seen, and its notices are queued.
TEST_P(ContractTest, HoldsCommitsThatKeepArriving) {
  const object_number first = storage_->allocate(4);
  const auto subscription = storage_->subscribe(nullptr);
  std::atomic<bool> committing{true};
  std::atomic<std::uint64_t> committed{0};
  std::vector<std::thread> threads;
  for (object_number mine = first; mine < first + 4; ++mine)
    threads.emplace_back([&, mine] {
      while (committing) {
        commit_text(*storage_, mine, "text");
        ++committed;
      }
    });
  for (int pauses = 0; pauses < 20; ++pauses) {
    const auto pause = storage_->pause_commits();
    const commit_version held_at = storage_->newest_version();
    EXPECT_EQ(subscription->newest(), held_at);
    EXPECT_GE(held_at, committed);
    for (object_number number = first; number < first + 4; ++number)
      load_text(*storage_, number, held_at);
    EXPECT_EQ(storage_->newest_version(), held_at);
  }
  const std::uint64_t before = committed;
  while (committed == before) std::this_thread::yield();
  committing = false;
  for (std::thread& thread : threads) thread.join();
}

TEST_P(ContractTest, VisitsOneVersionWhileCommitsGoOn) {
  const object_number first = storage_->allocate(300);
  change_list initial(some_layout(*storage_));
  for (object_number i = 0; i < 300; ++i)
    initial.put(first + i, i % 50 == 0 ? std::string(2000, 'a') : "a");
  storage_->commit(initial.request());
  unsigned visited = 0;
  storage_->for_each([&](const object_state& state) {
    EXPECT_EQ(static_cast<char>(state.body[0]), 'a');
    commit_text(*storage_, first + 299 - visited, "b");
    ++visited;
    return true;
  });
  EXPECT_EQ(visited, 300U);
  unsigned stopped_after = 0;
  storage_->for_each([&](const object_state&) { return ++stopped_after < 5; });
  EXPECT_EQ(stopped_after, 5U);
}

TEST_P(ContractTest, CountsBytesAndCommits) {
  const storage_statistics before = storage_->statistics();
  commit_text(*storage_, storage_->allocate(1), patterned(1 << 20, 3));
  const storage_statistics after = storage_->statistics();
  EXPECT_GE(after.used_bytes, before.used_bytes + (1 << 20));
  EXPECT_GE(after.file_bytes, before.file_bytes + (1 << 20));
  EXPECT_EQ(after.commits, before.commits + 1);
  EXPECT_EQ(after.commit_groups, before.commit_groups + 1);
}

// Any sequence of commits gives what a map gives.
TEST_P(ContractTest, BehavesAsAMap) {
  const object_number base = storage_->allocate(400);
  const class_number layout = some_layout(*storage_);
  std::map<object_number, std::string> model;
  ASSERT_TRUE(rc::check([&] {
    const auto commits = *rc::gen::container<std::vector<std::vector<std::pair<int, int>>>>(
        rc::gen::container<std::vector<std::pair<int, int>>>(
            rc::gen::pair(rc::gen::inRange(0, 400), rc::gen::inRange(-1, 2500))));
    for (const auto& commit : commits) {
      change_list changes(layout);
      for (const auto& [offset, size] : commit) {
        const object_number number = base + static_cast<object_number>(offset);
        if (size < 0) {
          changes.remove(number);
          model.erase(number);
        } else {
          changes.put(number, model[number] = patterned(static_cast<std::size_t>(size), number));
        }
      }
      storage_->commit(changes.request());
    }
    RC_ASSERT(load_all(*storage_) == model);
    std::vector<object_number> numbers(400);
    std::iota(numbers.begin(), numbers.end(), base);
    collecting_sink sink;
    storage_->load(numbers, storage_->newest_version(), sink);
    RC_ASSERT(sink.found() == model);
    if (*rc::gen::inRange(0, 10) == 0) reopen();
  }));
  reopen();
  EXPECT_EQ(load_all(*storage_), model);
}

}  // namespace
}  // namespace goods
