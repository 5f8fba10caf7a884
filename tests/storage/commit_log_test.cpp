// The commit log by itself: its form, what a loss of power leaves of it, and damage.

#include <gtest/gtest.h>
#include <xxhash.h>

#include <random>

#include "storage/local/byte_order.h"
#include "storage/local/commit_log.h"
#include "storage/local/log_recovery.h"
#include "storage/storage_fixture.h"
#include "support/memory_disk.h"

namespace goods {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

const storage_identity store{1, 2};
constexpr std::uint64_t room = 16 << 10;

// Small ones, and some that take a good part of a file.
std::string usual_text(commit_version version) {
  return std::to_string(version) + std::string(version * 37 % 500, 'x') +
         std::string(version % 9 == 0 ? 3000 : 0, 'y');
}

// Headers of this store's log which tell of commits and room that never were.
std::string lying_text(commit_version version) {
  log_record lie;
  lie.mark = version;
  lie.first = version + 1'000'000;
  lie.durable = lie.first - 1;
  lie.synced = std::uint64_t{1} << 40;
  const std::string body = "lie";
  const object_change change{first_object_number, 1, bytes_of(body), false, false};
  const commit_request commit{{&change, 1}, nullptr, {}};
  const commit_request* const group[] = {&commit};
  std::vector<std::byte> record;
  write_log_record(lie, group, store, record);
  EXPECT_TRUE(read_log_record(record, store));
  std::string text(version % log_alignment, 'x');
  for (commit_version i = 0; i <= version % 7; ++i) text += text_of(record);
  return text;
}

class CommitLogTest : public testing::Test {
 protected:
  explicit CommitLogTest(std::uint64_t room_of_file = room)
      : log_("", "store", store, room_of_file) {}

  // Appends one group of `count` commits; changes files when one is full, which needs everything in
  // the other one to be merged.
  void append(unsigned count, bool durable) {
    std::vector<std::string> texts;
    for (unsigned i = 0; i < count; ++i) texts.push_back(make_text_(newest_ + 1 + i));
    append(texts, durable);
  }

  void append(const std::vector<std::string>& texts, bool durable) {
    std::vector<object_change> changes;
    std::vector<commit_request> requests;
    for (const std::string& text : texts)
      changes.push_back({first_object_number, 1, bytes_of(text), false, false});
    for (const object_change& change : changes) requests.push_back({{&change, 1}, nullptr, {}});
    std::vector<const commit_request*> group;
    for (const commit_request& request : requests) group.push_back(&request);
    if (!log_.has_room(log_record_size(group))) {
      merged_ = in_other_file_;
      log_.note_durable(merged_);
      log_.switch_files();
      in_other_file_ = newest_;
    }
    texts_.insert(texts_.end(), texts.begin(), texts.end());
    log_.append(group, newest_ + 1, durable);
    newest_ += texts.size();
    if (durable) durable_ = newest_;
  }

  void fill(unsigned groups, bool durable) {
    for (unsigned i = 0; i < groups; ++i) append(1 + i % 3, durable);
  }

  // What opening finds. Every commit must be its own.
  commit_version recover(const memory_disk::image& image) const {
    const memory_disk disk(image);
    log_recovery found("", "store", store, merged_);
    commit_version version = merged_;
    std::vector<object_change> changes;
    while (const commit_version through = found.take(200, changes)) {
      for (const object_change& change : changes)
        EXPECT_TRUE(text_of(change.body) == texts_.at(version++)) << "commit " << version;
      EXPECT_EQ(version, through);
    }
    EXPECT_EQ(version, found.newest());
    return found.newest();
  }

  // Loses power before every sync and now and then in between. Returns how often commits were lost
  // that were said to be durable.
  unsigned lose_power(int steps, bool relaxed, std::minstd_rand& random) {
    unsigned lost = 0;
    const auto look = [&] {
      for (int i = 0; i < 3; ++i) {
        try {
          const auto found = recover(disk_.after_power_loss(random));
          lost += found < std::max(durable_, merged_) ? 1 : 0;
        } catch (const database_error&) {  // some are lost, and the log knows it
          ++lost;
        }
      }
    };
    disk_.before_sync = look;
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      append(1 + static_cast<unsigned>(random() % 3), !relaxed);
      look();
      if (!relaxed || random() % 8 != 0) continue;
      log_.sync();
      durable_ = newest_;
    }
    return lost;
  }

  memory_disk disk_;
  commit_log log_;
  std::function<std::string(commit_version)> make_text_ = usual_text;
  std::vector<std::string> texts_;  // of commit 1 and so on
  commit_version newest_ = 0, durable_ = 0, merged_ = 0, in_other_file_ = 0;
};

TEST_F(CommitLogTest, TheWorkedExample) {
  const object_change changes[] = {{0x10000, 1, bytes_of("hi"), false, false},
                                   {0x10002, 0, {}, true, false}};
  const commit_request commit{changes, nullptr, {}};
  const commit_request* const group[] = {&commit};
  log_record about;
  about.mark = 0x1122334455667788;
  about.first = 9;
  about.durable = 8;
  about.synced = 65536;
  std::vector<std::byte> record;
  write_log_record(about, group, store, record);
  ASSERT_EQ(record.size(), 128U);
  std::string text;
  for (std::byte b : std::span(record).first(80)) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned>(b));
    text += digits;
  }
  EXPECT_EQ(text,
            "5e d6 71 bd 01 7a d8 0a 3f 2e ae ab 4f a1 e1 c6 0f 00 00 00 00 00 00 00 "
            "01 00 00 00 63 6c 6f 67 88 77 66 55 44 33 22 11 09 00 00 00 00 00 00 00 "
            "08 00 00 00 00 00 00 00 00 00 01 00 00 00 00 00 02 00 00 01 00 00 01 02 "
            "68 69 02 00 01 00 01 00 ");
  auto back = read_log_record(record, store);
  ASSERT_TRUE(back);
  std::vector<object_change> read;
  read_changes(*back, read);
  ASSERT_EQ(read.size(), 2U);
  EXPECT_EQ(text_of(read[0].body), "hi");
  EXPECT_TRUE(read[1].removed);
  EXPECT_FALSE(read_log_record(record, {1, 3})) << "of another store";
}

TEST_F(CommitLogTest, FilesAreUsedAgainManyTimes) {
  for (int round = 0; round < 400; ++round) {
    append(1 + static_cast<unsigned>(round) % 4, true);
    const auto image = disk_.complete();
    ASSERT_EQ(recover(image), newest_) << "round " << round;
  }
  EXPECT_GT(merged_, 100U);
  for (const auto& [path, bytes] : disk_.complete()) EXPECT_LE(bytes.size(), room) << path;
}

TEST_F(CommitLogTest, ALossOfPowerLeavesAllThatWasSynced) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  for (const bool relaxed : {false, true})
    for (const auto& make_text : {usual_text, lying_text}) {
      make_text_ = make_text;
      EXPECT_EQ(lose_power(300, relaxed, random), 0U);
    }
  EXPECT_GT(merged_, 500U) << "the files were used again";
  // The control: a disk that does not sync is found out.
  disk_.ignores_syncs = true;
  EXPECT_GT(lose_power(20, false, random), 10U);
}

// Wherever one bit is wrong: all commits, damage, or all but the last record.
TEST_F(CommitLogTest, AFlippedBitIsDamageUnlessItIsInTheLastRecord) {
  std::minstd_rand random(3);
  for (const auto& make_text : {usual_text, lying_text}) {
    make_text_ = make_text;
    fill(60, true);
    const commit_version before_last = newest_;
    append(2, true);
    const memory_disk::image good = disk_.complete();
    ASSERT_EQ(recover(good), newest_);
    unsigned noticed = 0;
    for (int i = 0; i < 2000 && !HasFailure(); ++i) {
      memory_disk::image flipped = good;
      auto& bytes = std::next(flipped.begin(), i % 2)->second;
      const std::size_t bit = random() % (bytes.size() * 8);
      SCOPED_TRACE(testing::Message() << "file " << i % 2 << ", bit " << bit);
      bytes[bit / 8] ^= static_cast<std::byte>(1 << bit % 8);
      try {
        EXPECT_THAT(recover(flipped), AnyOf(newest_, before_last));
      } catch (const database_error& error) {
        EXPECT_EQ(error.code(), error_code::corrupt_data) << error.what();
        ++noticed;
      }
    }
    EXPECT_GT(noticed, 200U);
  }
}

// A value may be what somebody has read from the log's own files: the headers in it are real ones,
// of this store and its newest commits, but they do not tell of the place where they stand now.
class LongCommitLogTest : public CommitLogTest {
 protected:
  LongCommitLogTest() : CommitLogTest(std::uint64_t{256} << 10) {}
};

TEST_F(LongCommitLogTest, CopiesOfItsOwnRecordsAreValuesLikeOthers) {
  fill(200, true);
  ASSERT_GT(disk_.complete().at("/commits.0").size(), std::size_t{64} << 10);
  log_.switch_files();
  const std::string log = text_of(disk_.complete().at("/commits.0")).substr(0, 150'000);
  const std::string tail = log.substr(log.rfind("clog") - 28 - 4096);
  const std::uint64_t in_first = log_.used_bytes();
  for (std::size_t shift = 0; shift < log_alignment; ++shift) {
    SCOPED_TRACE(shift);
    const auto begin = static_cast<std::ptrdiff_t>(log_.used_bytes() - in_first);
    append({tail.substr(shift, 4500 / (1 + shift % 8))}, true);
    ASSERT_EQ(recover(disk_.complete()), newest_);
    // All of it but its header: what it holds is no witness of more.
    auto torn = disk_.complete();
    std::fill_n(torn.at("/commits.1").begin() + begin, log_header_size, std::byte{0});
    ASSERT_EQ(recover(torn), newest_ - 1);
  }
}

// Recovery looks at a file through a window of 1 MiB.
class LargeCommitLogTest : public CommitLogTest {
 protected:
  LargeCommitLogTest() : CommitLogTest(std::uint64_t{16} << 20) {}
};

TEST_F(LargeCommitLogTest, RecordsMayBeLongerThanWhatIsLookedAtAtOnce) {
  fill(20, true);
  const std::uint64_t before = log_.used_bytes();
  const commit_version newest_before = newest_;
  const std::string large(3'000'000, 'x');
  append({"small", large, "small"}, true);
  append({large}, true);
  fill(20, true);
  ASSERT_EQ(recover(disk_.complete()), newest_);
  auto damaged = disk_.complete();
  damaged.at("/commits.0")[before + 2'500'000] ^= std::byte{1};
  EXPECT_THROW(recover(damaged), database_error) << "later records vouch for it";
  auto cut = disk_.complete();
  cut.at("/commits.0").resize(before + 2'500'000);
  EXPECT_EQ(recover(cut), newest_before) << "as a crash leaves it";
}

// The header's own checksum is right, but what it says is not there.
TEST_F(LargeCommitLogTest, AnImpossibleLengthEndsTheLog) {
  fill(20, true);
  for (const std::uint32_t length : {~0U, 0xF000'0000U, 1'000'000U}) {
    auto image = disk_.complete();
    std::byte* const header = image.at("/commits.0").data() + log_.used_bytes();
    std::copy_n(image.at("/commits.0").data(), log_header_size, header);
    store_number(header + 16, length);
    store_number(header + 40, newest_ + 1);
    store_number<std::uint64_t>(header, ::XXH3_64bits_withSeed(header + 8, 56, store.low));
    ASSERT_TRUE(read_log_header({header, log_header_size}, store));
    EXPECT_EQ(recover(image), newest_) << length;
  }
}

// The mask that keeps one word from looking like a header's must not make another one look so.
TEST_F(LongCommitLogTest, NoWordOfAValueStandsWhereAHeaderHasItsMagic) {
  for (std::uint32_t masks = 1; masks < 6; ++masks) {
    SCOPED_TRACE(masks);
    std::string value;
    for (std::uint32_t i = 0; i < masks * log_alignment; ++i) {
      const std::uint32_t word = 0x676f6c63 ^ (masks - 1 - i / log_alignment);
      value.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
    for (std::size_t shift = 0; shift < sizeof(std::uint32_t); ++shift) {
      append({std::string(shift, 'x') + value}, true);
      const auto bytes = disk_.complete().at("/commits.0");
      std::size_t found = 0;
      for (std::size_t at = 28; at < bytes.size(); at += log_alignment)
        found += text_of(std::span(bytes).subspan(at, 4)) == "clog" ? 1 : 0;
      EXPECT_EQ(found, newest_);
      EXPECT_EQ(recover(disk_.complete()), newest_);
    }
  }
}

TEST_F(CommitLogTest, ACutFileIsDamage) {
  fill(60, true);
  const memory_disk::image good = disk_.complete();
  ASSERT_EQ(good.size(), 2U);
  ASSERT_EQ(recover(good), newest_);
  unsigned noticed = 0, cuts = 0;
  for (const auto& [path, bytes] : good)
    for (std::size_t size = 64; size < bytes.size(); size += 500, ++cuts) {
      SCOPED_TRACE(testing::Message() << path << " cut to " << size);
      memory_disk::image cut = good;
      cut[path].resize(size);
      try {
        EXPECT_EQ(recover(cut), newest_) << "nothing of what was cut off is needed";
      } catch (const database_error& error) {
        EXPECT_EQ(error.code(), error_code::corrupt_data) << error.what();
        ++noticed;
      }
    }
  EXPECT_GT(noticed, cuts / 3);
  memory_disk::image without = good;
  without.erase(without.begin());
  if (recover(good) != merged_) {
    EXPECT_THAT([&] { EXPECT_EQ(recover(without), newest_); },
                fails_with(error_code::corrupt_data, HasSubstr("commits.")));
  }
}

// A record of an earlier use that stands directly behind a later one, with the version that would
// come next.
TEST_F(CommitLogTest, AnOldRecordInReusedRoomIsNotTaken) {
  append(1, true);
  append(1, true);
  const memory_disk::image before = disk_.complete();
  ASSERT_EQ(recover(before), 2U);
  memory_disk disk(before);
  commit_log again("", "store", store, room);
  disk.remove("/commits.0");
  const std::string text = usual_text(1);
  const object_change change{first_object_number, 1, bytes_of(text), false, false};
  const commit_request commit{{&change, 1}, nullptr, {}};
  const commit_request* const group[] = {&commit};
  again.append(group, 1, true);
  memory_disk::image mixed = disk.complete();
  const auto& old = before.at("/commits.0");
  auto& now = mixed.at("/commits.0");
  const auto second = static_cast<std::ptrdiff_t>(log_record_size(group));
  std::copy(old.begin() + second, old.end(), now.begin() + second);
  EXPECT_TRUE(read_log_record(std::span(now).subspan(log_record_size(group)), store));
  try {
    EXPECT_EQ(recover(mixed), 1U);
  } catch (const database_error& error) {
    ADD_FAILURE() << error.what();
  }
}

}  // namespace
}  // namespace goods
