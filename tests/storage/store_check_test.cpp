// Checking a store: planted faults are named, damage is noticed, and a good store has none.

#include "storage/local/store_check.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <thread>

#include "storage/local/byte_order.h"
#include "storage/local/store_schema.h"
#include "storage/storage_fixture.h"
#include "support/replaced_rows.h"

namespace goods {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class StoreCheckTest : public storage_test {
 protected:
  // Objects in four segments, two of them apart, and two layouts.
  std::map<object_number, std::string> populate(dbs_storage& storage) {
    std::map<object_number, std::string> all;
    change_list changes(some_layout(storage));
    storage.intern_layout(bytes_of("second"));
    for (object_number i = 0; i < 200; ++i)
      changes.put(first_object_number + i,
                  all[first_object_number + i] = std::string(i % 90 == 70 ? 3000 : i, 'x'));
    storage.commit(changes.request());
    return all;
  }

  // A full check of a store that is closed.
  recording_sink check_file() {
    recording_sink sink;
    EXPECT_TRUE(check_store_file(file_, "store", sink));
    return sink;
  }

  const std::string file_ = path("store/store.db");
};

TEST_F(StoreCheckTest, AGoodStoreHasNoFaultsAndShowsAllObjectsAsOfOneMoment) {
  auto storage = open();
  auto expected = populate(*storage);
  recording_sink first;
  EXPECT_TRUE(view_of(*storage)->check(false, first));
  EXPECT_THAT(first.faults(), IsEmpty());
  EXPECT_THAT(first.objects(), IsEmpty());

  auto view = view_of(*storage);
  // None of this is in the view.
  change_list changes(some_layout(*storage));
  changes.put(first_object_number, "changed").put(first_object_number + 70, "not apart");
  changes.remove(first_object_number + 3).put(first_object_number + 900, "new", true);
  storage->commit(changes.request());
  recording_sink second;
  EXPECT_TRUE(view->check(true, second));
  EXPECT_THAT(second.faults(), IsEmpty());
  EXPECT_EQ(second.objects(), expected);
  collecting_sink loaded;
  const object_number some[] = {first_object_number, first_object_number + 70,
                                first_object_number + 900};
  view->load(some, loaded);
  EXPECT_EQ(loaded.found().at(some[1]), expected[some[1]]);
  EXPECT_THAT(loaded.missing(), ElementsAre(some[2]));

  recording_sink stopping;
  stopping.stop_after(10);
  EXPECT_FALSE(view->check(true, stopping));
  EXPECT_EQ(stopping.objects().size(), 10U);

  view.reset();
  expected = load_all(*storage);
  storage.reset();
  const recording_sink closed = check_file();
  EXPECT_THAT(closed.faults(), IsEmpty());
  EXPECT_EQ(closed.objects(), expected);
}

TEST_F(StoreCheckTest, AStoreUnderLoadHasNoFaults) {
  // The log is merged again and again.
  const auto storage = open("store", "?log=64K");
  std::atomic<bool> ended{false};
  std::vector<std::thread> writers;
  for (object_number thread = 0; thread < 2; ++thread)
    writers.emplace_back([&, thread] {
      std::minstd_rand random(thread + 1);
      while (!ended) {
        change_list changes(some_layout(*storage));
        for (int i = 0; i < 20; ++i) {
          const object_number number = first_object_number + random() % 5000 * 2 + thread;
          if (random() % 4 == 0)
            changes.remove(number);
          else
            changes.put(number, std::string(random() % 8 == 0 ? 5000 : random() % 300, 'x'));
        }
        try {
          storage->commit(changes.request());
        } catch (const error_info& error) {
          ADD_FAILURE() << message_of(error);
        }
      }
    });
  while (storage->newest_version() < 1500 && !HasFailure())
    EXPECT_THAT(faults_of(*storage), IsEmpty());
  ended = true;
  for (std::thread& writer : writers) writer.join();
}

// Each fault is written with a checksum that fits.
TEST_F(StoreCheckTest, PlantedFaultsAreNamed) {
  populate(*open());
  const std::string good = read_file(file_);
  const auto sql = [&](const char* text) { return [this, text] { execute(file_, text); }; };
  const auto rewrite = [&](const char* table, row_kind kind, std::int64_t key, auto change) {
    return [this, table, kind, key, change] { rewrite_row(file_, table, kind, key, change); };
  };
  using content = std::vector<std::byte>;
  const struct {
    const char* what;
    std::function<void()> plant;
    std::string fault;
  } cases[] = {
      {"lost segment", sql("DELETE FROM segments WHERE id=1025"), "65600-65663: they are missing"},
      {"last segment lost", sql("DELETE FROM segments WHERE id=1027"),
       "65728-65791: they are missing"},
      {"flipped bit", sql("UPDATE segments SET body=zeroblob(40)||substr(body,41) WHERE id=1026"),
       "65664-65727: the checksum does not match"},
      {"moved segment", sql("UPDATE segments SET id=5000 WHERE id=1026"),
       "320000-320063: another row is in its place"},
      {"unknown segment",
       [this] {
         const auto row = row_of(file_, "segments", row_kind::segment, 1026);
         put_row(file_, "segments", row_kind::segment, 1100, row);
       },
       "70400-70463: the table \"presence\" does not name them"},
      {"number above all that were used",
       rewrite("about", row_kind::state, 2,
               [](content& row) {
                 row_reader old(row);
                 row_writer changed;
                 old.varint();
                 changed.varint(first_object_number + 199);
                 changed.append(old.take(old.left()));
                 row = changed.release();
               }),
       "65735-65735: its number is out of range"},
      {"unknown layout",
       rewrite("segments", row_kind::segment, 1024,
               [](content& row) { row[16 + 2 * 64] = std::byte{9}; }),
       "65536-65536: it has the layout 9, which there is not"},
      {"lengths that do not add up",
       rewrite("segments", row_kind::segment, 1024,
               [](content& row) { row[16 + 7] ^= std::byte{1}; }),
       "65536-65599: its length does not fit its objects"},
      {"lost layout", sql("DELETE FROM layouts WHERE id=2"),
       "0-0: its table \"layouts\" ends with 1 instead of 2"},
      {"lost presence", sql("DELETE FROM presence"),
       "0-0: its table \"presence\" names 0 segments instead of 4"},
      {"lost piece", sql("DELETE FROM pieces WHERE id/256=65606"),
       "65606-65606: The storage \"store\" is damaged at object 65606: a piece of it is missing."},
      {"piece of nobody", sql("UPDATE pieces SET id=(65607*256) WHERE id/256=65606"),
       "0-0: row 16795392 of its table \"pieces\": it belongs to no object"},
      {"unknown decision",
       [this] {
         put_row(file_, "decisions", row_kind::decision, 1, {0, std::vector<std::byte>(17)});
       },
       "0-0: The storage \"store\" is damaged in its table"},
      {"another table", sql("CREATE TABLE more(id)"), "\"more\" does not belong into it"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    write_file(file_, good);
    ASSERT_THAT(check_file().faults(), IsEmpty());
    c.plant();
    EXPECT_THAT(check_file().faults(), Contains(HasSubstr(c.fault)));
  }
}

// What a crash would lose is found while everything is still in memory.
TEST_F(StoreCheckTest, DamageToTheLogOfAnOpenStoreIsFound) {
  const auto storage = open();
  populate(*storage);
  const std::string log = path("store/commits.0");
  const std::string good = read_file(log);
  const auto faults = [&] {
    recording_sink sink;
    EXPECT_TRUE(view_of(*storage)->check(true, sink));
    EXPECT_EQ(sink.objects(), load_all(*storage));
    return sink.faults();
  };
  EXPECT_THAT(faults(), IsEmpty());
  std::string damaged = good;
  damaged[100] = static_cast<char>(damaged[100] ^ 1);
  write_file(log, damaged);
  EXPECT_THAT(faults(), ElementsAre(HasSubstr("its log ends with commit 0 instead of 1")));
  write_file(log, good);
  EXPECT_THAT(faults(), IsEmpty());
}

class CheckedDamageTest : public StoreCheckTest {
 protected:
  CheckedDamageTest() {
    auto storage = open();
    std::minstd_rand random(11);
    change_list changes(some_layout(*storage));
    storage->intern_layout(bytes_of("second"));
    for (object_number i = 0; i < 2000; ++i) {
      if (i % 11 == 0) continue;
      std::string text(random() % 100 + (i % 100 == 0 ? 5000 : 0), '\0');
      for (char& c : text) c = static_cast<char>(random() % 30 + 'A');
      changes.put(first_object_number + i * 3, expected_[first_object_number + i * 3] = text);
    }
    storage->commit(changes.request());
    storage.reset();
    good_ = read_file(file_);
  }

  // Whether anything reads otherwise than it should.
  bool is_noticed() {
    try {
      const auto storage = open("store", "?cache=0");
      for (object_number i = 0; i < 2000 * 3; ++i) {
        const auto text = load_text(*storage, first_object_number + i);
        const auto should = expected_.find(first_object_number + i);
        if (should == expected_.end() ? text.has_value() : text != should->second) return true;
      }
      return load_all(*storage) != expected_;
    } catch (const error_info&) {
      return true;
    }
  }

  void look_at(const std::string& content) {
    write_file(file_, content);
    const recording_sink sink = check_file();
    for (const auto& [number, text] : sink.objects()) {
      const auto should = expected_.find(number);
      ASSERT_TRUE(should != expected_.end() && should->second == text) << number;
    }
    if (!sink.faults().empty()) {
      ++found_;
      return;
    }
    EXPECT_EQ(sink.objects().size(), expected_.size());
    EXPECT_FALSE(is_noticed()) << "reading notices what the check does not";
  }

  std::map<object_number, std::string> expected_;
  std::string good_;
  unsigned found_ = 0;
};

TEST_F(CheckedDamageTest, WhatReadsWronglyIsFound) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  for (int damage = 0; damage < 500 && !HasFailure(); ++damage) {
    SCOPED_TRACE(testing::Message() << "damage " << damage);
    std::string content = good_;
    const auto sector = [&] { return random() % (content.size() / 512) * 512; };
    switch (damage % 5) {
      case 0:
        content.resize(random() % content.size());
        break;
      case 1:
        std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(sector()), 512, '\0');
        break;
      case 2: {
        const std::size_t one = sector(), two = sector();
        std::swap_ranges(content.begin() + static_cast<std::ptrdiff_t>(one),
                         content.begin() + static_cast<std::ptrdiff_t>(one + 512),
                         content.begin() + static_cast<std::ptrdiff_t>(two));
        break;
      }
      default: {
        const std::size_t bit = random() % (content.size() * 8);
        content[bit / 8] = static_cast<char>(content[bit / 8] ^ 1 << bit % 8);
      }
    }
    look_at(content);
  }
  EXPECT_GT(found_, 250U) << "most of the file is checked";
}

}  // namespace
}  // namespace goods
