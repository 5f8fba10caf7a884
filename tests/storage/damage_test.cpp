// Files that are not what was written: what is read is right, or an error says that it cannot be.

#include <array>
#include <filesystem>
#include <random>

#include "storage/local/log_record.h"
#include "storage/local/salvaged_store.h"
#include "storage/storage_fixture.h"
#include "storage/storage_rows.h"
#include "support/replaced_rows.h"

namespace goods {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr object_number count = 2000;  // three numbers apart

// The files of a store by name.
using image = std::map<std::string, std::string>;

class DamageTest : public storage_test {
 protected:
  // Objects in segments, apart, and two layouts; merged and closed.
  void make_closed() {
    some_layout(*open());
    commit_all(*open(), 11);
    good_ = files();
  }

  // The same as a process leaves it that is killed: partly in the database, partly in SQLite's log,
  // partly in the commit log.
  void make_killed() {
    const auto storage = open("store", "?log=64K");
    commit_all(*storage, 11);
    for (unsigned seed = 12; seed < 16; ++seed) commit_all(*storage, seed, 7);
    storage->intern_layout(bytes_of("third"));  // waits for all merges
    for (object_number i = 0; i < 20; ++i) commit_one(*storage, i);
    good_ = files();
    ASSERT_GT(good_.at("store.db-wal").size(), 50'000U);
  }

  // Opens and reads everything: right, or an error that says so. Whether there was one.
  bool is_noticed(const image& damaged) {
    const fs::path directory = path("store");
    for (const auto& entry : fs::directory_iterator(directory)) fs::remove(entry);
    for (const auto& [name, content] : damaged) write_file(directory / name, content);
    errors_ = 0;
    try {
      const auto storage = open("store", "?cache=0&log=64K");
      for (object_number i = 0; i < count * 3; i += i % 3 == 0 ? 1 : 2)
        check_object(*storage, first_object_number + i);
      check_walk(*storage);
    } catch (const database_error& error) {
      note(error);
    }
    return errors_ != 0;
  }

  image good_;

 private:
  void commit_all(dbs_storage& storage, unsigned seed, unsigned step = 1) {
    std::minstd_rand random(seed);
    const class_number layout = some_layout(storage);
    storage.intern_layout(bytes_of("second"));
    change_list changes(layout);
    for (object_number i = 0; i < count; i += step) {
      if (i % 11 == 0) continue;
      std::string text(random() % 100 + (i % 100 == 0 ? 5000 : 0), '\0');
      for (char& c : text) c = static_cast<char>(random() % 30 + 'A');
      changes.put(first_object_number + i * 3, expected_[first_object_number + i * 3] = text);
    }
    storage.commit(changes.request());
  }

  void commit_one(dbs_storage& storage, object_number i) {
    const object_number number = first_object_number + (i * 11 + 1) * 3;
    commit_text(storage, number, expected_[number] = "late " + std::to_string(i));
  }

  image files() {
    image all;
    for (const auto& entry : fs::directory_iterator(path("store"))) {
      const std::string name = entry.path().filename();
      if (!name.ends_with("-shm")) all[name] = read_file(entry.path());
    }
    return all;
  }

  void note(const database_error& error) {
    ++errors_;
    EXPECT_THAT(error.code(), AnyOf(error_code::corrupt_data, error_code::newer_version))
        << error.what();
    EXPECT_THAT(error.what(), HasSubstr(path("store")));
  }

  void check_object(dbs_storage& storage, object_number number) {
    try {
      const auto text = load_text(storage, number);
      const auto should = expected_.find(number);
      if (should == expected_.end())
        EXPECT_EQ(text, std::nullopt) << number;
      else
        EXPECT_TRUE(text == should->second) << number << " is wrong";
    } catch (const database_error& error) {
      note(error);
    }
  }

  void check_walk(dbs_storage& storage) {
    try {
      EXPECT_TRUE(load_all(storage) == expected_);
    } catch (const database_error& error) {
      note(error);
    }
  }

  std::map<object_number, std::string> expected_;
  unsigned errors_ = 0;
};

// Ways to damage a file.
using damage = void (*)(std::string& content, std::minstd_rand& random);

constexpr std::size_t sector_size = 512;

std::size_t some_sector(const std::string& content, std::minstd_rand& random) {
  return random() % (content.size() / sector_size) * sector_size;
}

void flip_bit(std::string& content, std::minstd_rand& random) {
  const std::size_t bit = random() % (content.size() * 8);
  content[bit / 8] = static_cast<char>(content[bit / 8] ^ 1 << bit % 8);
}

void cut(std::string& content, std::minstd_rand& random) {
  content.resize(some_sector(content, random) + (random() % 2 == 0 ? 0 : random() % sector_size));
}

void clear_sector(std::string& content, std::minstd_rand& random) {
  content.replace(some_sector(content, random), sector_size, sector_size, '\0');
}

void swap_sectors(std::string& content, std::minstd_rand& random) {
  const auto one = static_cast<std::ptrdiff_t>(some_sector(content, random));
  const auto two = static_cast<std::ptrdiff_t>(some_sector(content, random));
  std::swap_ranges(content.begin() + one,
                   content.begin() + one + static_cast<std::ptrdiff_t>(sector_size),
                   content.begin() + two);
}

void swap_pages(std::string& content, std::minstd_rand& random) {
  constexpr std::size_t page = 4096;
  const auto one = static_cast<std::ptrdiff_t>(random() % (content.size() / page) * page);
  const auto two = static_cast<std::ptrdiff_t>(random() % (content.size() / page) * page);
  std::swap_ranges(content.begin() + one, content.begin() + one + static_cast<std::ptrdiff_t>(page),
                   content.begin() + two);
}

class DamagedFileTest : public DamageTest {
 protected:
  // Tries each way `times` times on a file of good_; returns how many were noticed.
  unsigned damage_file(const std::string& name, damage way, unsigned times) {
    unsigned noticed = 0;
    for (unsigned i = 0; i < times && !HasFailure(); ++i) {
      SCOPED_TRACE(testing::Message() << name << ", seed " << seed_ << ", damage " << i);
      image damaged = good_;
      way(damaged.at(name), random_);
      noticed += is_noticed(damaged) ? 1 : 0;
    }
    return noticed;
  }

  const unsigned seed_ = std::random_device{}();
  std::minstd_rand random_{seed_};
};

TEST_F(DamagedFileTest, OfAClosedStoreIsNeverAWrongValue) {
  make_closed();
  EXPECT_GT(damage_file("store.db", flip_bit, 800), 400U) << "most of the file is checked";
  EXPECT_GT(damage_file("store.db", cut, 100), 90U);
  EXPECT_GT(damage_file("store.db", clear_sector, 150), 75U);
  damage_file("store.db", swap_sectors, 200);
  damage_file("store.db", swap_pages, 200);
}

TEST_F(DamagedFileTest, OfAKilledProcessIsNeverAWrongValue) {
  make_killed();
  EXPECT_FALSE(is_noticed(good_)) << "nothing is damaged";
  for (const damage way : {flip_bit, cut, clear_sector, swap_sectors, swap_pages}) {
    damage_file("store.db-wal", way, 100);
  }
  damage_file("store.db", flip_bit, 50);
  damage_file("store.db", swap_sectors, 50);
}

// A row that rots after a commit to its segment and before that is merged: what was committed is
// not lost, and nothing waits for what cannot be read.
TEST_F(DamageTest, ASegmentThatRotsBeforeAMergeLosesItsOldObjectsOnly) {
  constexpr object_number in_it = first_object_number + 64 * 10, elsewhere = in_it + 64;
  enum class merged_by { a_close, an_opening };
  for (const merged_by who : {merged_by::a_close, merged_by::an_opening}) {
    SCOPED_TRACE(static_cast<int>(who));
    const std::string name = "rots" + std::to_string(static_cast<int>(who)), copy = name + " copy";
    {
      const auto storage = open(name);
      change_list changes(some_layout(*storage));
      changes.put(in_it, "old").put(in_it + 1, "removed").put(in_it + 2, std::string(5000, 'x'));
      changes.put(in_it + 3, "small").put(elsewhere, "whole");
      storage->commit(changes.request());
    }
    {
      const auto storage = open(name, "?cache=0");
      change_list changes(some_layout(*storage));
      changes.put(in_it + 3, std::string(3000, 'y')).put(in_it + 4, "new").remove(in_it + 1);
      storage->commit(changes.put(elsewhere + 1, "new").request());
      if (who == merged_by::an_opening) fs::copy(path(name), path(copy));
      execute(path(who == merged_by::a_close ? name : copy) + "/store.db",
              "UPDATE segments SET body=zeroblob(200) WHERE id=1034");
    }
    const auto storage = open(who == merged_by::a_close ? name : copy);
    for (const object_number lost : {in_it, in_it + 2})
      EXPECT_THAT([&] { load_text(*storage, lost); },
                  fails_with(error_code::corrupt_data, HasSubstr(std::to_string(lost))));
    EXPECT_EQ(load_text(*storage, in_it + 1), std::nullopt);
    EXPECT_EQ(load_text(*storage, in_it + 3), std::string(3000, 'y'));
    EXPECT_EQ(load_text(*storage, in_it + 4), "new");
    EXPECT_EQ(load_text(*storage, elsewhere), "whole");
    EXPECT_EQ(load_text(*storage, elsewhere + 1), "new");
    commit_text(*storage, in_it + 4, "newer");
    EXPECT_EQ(load_text(*storage, in_it + 4), "newer");
    EXPECT_THAT(faults_of(*storage), Contains(HasSubstr(std::to_string(in_it) + "-")));
    // Written anew or removed, it is no longer damaged.
    storage->commit(change_list(1).put(in_it, "again").remove(in_it + 2).request());
    EXPECT_EQ(load_text(*storage, in_it), "again");
    EXPECT_EQ(load_text(*storage, in_it + 2), std::nullopt);
  }
}

// Headers with right checksums that all claim the rest of the log.
TEST_F(DamageTest, SalvageReadsALogNoMoreOftenThanItsRecordsCanClaim) {
  constexpr std::size_t size = std::size_t{4} << 20, headers = 500;
  const storage_identity identity = open()->identity();
  log_record about;
  about.first = 1000;
  about.durable = 999;
  std::string log;
  std::vector<std::byte> record;
  for (std::size_t i = 0; i < headers; ++i) {
    const std::string body(size - log.size() - 2 * log_header_size, 'x');
    const object_change change{first_object_number, 1, bytes_of(body), false, false};
    const commit_request commit{{&change, 1}, nullptr, {}};
    const commit_request* const group[] = {&commit};
    write_log_record(about, group, identity, record);
    log += text_of(std::span(record).first(log_header_size));
  }
  log.resize(size, 'y');
  write_file(path("store/commits.0"), log);
  disk_.arm({faulty_vfs::bit(faulty_vfs::operation::read), ~std::uint64_t{0}});
  const salvaged_store salvaged(path("store"));
  EXPECT_LT(disk_.count(), 200U);
  disk_.disarm();
}

// A commit that is prepared, in a store that is closed.
class PreparedDamageTest : public DamageTest {
 protected:
  static constexpr global_transaction id{1, 2};
  const std::string file_ = path("store/store.db");

  void make_prepared() {
    const auto storage = open();
    change_list changes(some_layout(*storage));
    changes.put(first_object_number + 100, "prepared");
    storage->prepare(id, {3, 4}, "elsewhere", changes.request());
  }
};

TEST_F(PreparedDamageTest, ALayoutThatIsNotThereIsDamage) {
  make_prepared();
  ASSERT_EQ(open()->prepared().size(), 1U);
  rewrite_row(file_, "prepared", row_kind::prepared, 1, [](std::vector<std::byte>& content) {
    const std::size_t layout_at = content.size() - std::string_view("prepared").size() - 2;
    ASSERT_EQ(content.at(layout_at), std::byte{1});
    content[layout_at] = std::byte{2};
  });
  EXPECT_THAT([&] { open(); }, fails_with(error_code::corrupt_data, HasSubstr("layout")));
}

// Keys begin anew when a store is opened and nothing is prepared: what is left of an earlier commit
// on some page may have a higher one.
TEST_F(PreparedDamageTest, SalvageTakesTheNewestRowsWhateverTheirKeysAre) {
  for (object_number i = 0; i < 5; ++i) commit_text(*open(), first_object_number + i, "text");
  make_prepared();
  stored_row old = row_of(file_, "prepared", row_kind::prepared, 1);
  ASSERT_GT(old.version, 1U);
  old.version -= 1;
  old.content[0] = std::byte{9};  // another commit
  put_row(file_, "prepared", row_kind::prepared, 7, old);
  const auto found = salvaged_store(path("store")).prepared();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0]->about.id, id);
}

TEST_F(DamageTest, ALostRowIsDamageAndNotAnAbsentObject) {
  make_closed();
  const std::string copy_row =
      "UPDATE segments SET body=(SELECT body FROM segments WHERE id=1025) WHERE id=1026";
  for (const char* sql : {"DELETE FROM segments WHERE id=1030", "DELETE FROM pieces",
                          "UPDATE segments SET id=id+10000 WHERE id>1040", "DELETE FROM presence",
                          "DELETE FROM layouts WHERE id=2", copy_row.c_str()}) {
    SCOPED_TRACE(sql);
    const std::string file = path("damaged.db");
    write_file(file, good_.at("store.db"));
    execute(file, sql);
    EXPECT_TRUE(is_noticed({{"store.db", read_file(file)}}));
  }
}

}  // namespace
}  // namespace goods
