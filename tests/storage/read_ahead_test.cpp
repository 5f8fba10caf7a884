// Segments that are read before they are asked for.

#include "storage/local/read_ahead.h"

#include <chrono>
#include <thread>

#include "storage/storage_fixture.h"
#include "support/replaced_rows.h"

namespace goods {
namespace {

using testing::HasSubstr;

// A store of some segments, with what a read_ahead looks at.
class ReadAheadTest : public storage_test {
 protected:
  static constexpr segment_number first = first_object_number / segment_slots, count = 300;
  static object_number object_in(segment_number number) { return number * segment_slots + 5; }

  ReadAheadTest() {
    {
      const auto storage = open();
      change_list changes(some_layout(*storage));
      for (segment_number i = first; i < first + count; ++i)
        changes.put(object_in(i), "text " + std::to_string(i));
      storage->commit(changes.request());
    }
    for (segment_number i = first; i < first + count; ++i) {
      presence_.reserve(i);
      presence_.set(i, true);
      all_.push_back(object_in(i));
    }
    snapshot state(settings_);
    state.refresh();
    versions_.merged = versions_.visible = state.state().version;
  }

  std::size_t cached() {
    std::size_t found = 0;
    for (segment_number i = first; i < first + count; ++i) found += cache_.contains(i) ? 1 : 0;
    return found;
  }
  // Whether so many segments come into the cache.
  bool comes_to(std::size_t segments) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (cached() != segments && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    return cached() == segments;
  }

  const std::string name_ = "store";
  const connection_settings settings_{path("store/store.db"), name_, true};
  segment_cache cache_{std::size_t{16} << 20};
  commit_overlay overlay_;
  presence_map presence_;
  snapshot_pool readers_{settings_};
  store_versions versions_;
  const newest_states::sources sources_{name_, cache_, overlay_, presence_, readers_, versions_};
  std::vector<object_number> all_;
};

TEST_F(ReadAheadTest, BringsWhatIsExpectedIntoTheCache) {
  read_ahead ahead(sources_, settings_);
  EXPECT_EQ(cached(), 0U);
  ahead.expect(std::span(all_).first(10));
  EXPECT_TRUE(comes_to(10));
  ahead.expect(all_);
  EXPECT_TRUE(comes_to(count));
  ahead.expect(all_);
  newest_states newest(sources_);
  for (segment_number i = first; i < first + count; ++i)
    EXPECT_EQ(text_of(newest.find(i, versions_.visible)->body(5)), "text " + std::to_string(i));
}

// Of a segment that is not there, or damaged, who asks for it is told.
TEST_F(ReadAheadTest, PassesOverWhatCannotBeRead) {
  execute(settings_.file, "UPDATE segments SET body=zeroblob(100) WHERE id=1030");
  const object_number missing = object_in(first + count + 7);
  read_ahead ahead(sources_, settings_);
  all_.insert(all_.begin() + 3, missing);
  ahead.expect(all_);
  EXPECT_TRUE(comes_to(count - 1));
  newest_states newest(sources_);
  EXPECT_THAT([&] { newest.find(1030, versions_.visible); },
              fails_with(error_code::corrupt_data, HasSubstr("at objects 65920 to 65983")));
}

TEST_F(ReadAheadTest, TakesNoMoreThanTheCacheHasRoomFor) {
  read_ahead ahead(sources_, settings_);
  for (const std::size_t limit : {std::size_t{0}, std::size_t{64} << 10}) {
    cache_.set_limit(limit);
    ahead.expect(std::span(all_).first(limit / 8192 + 1));
    EXPECT_EQ(cached(), 0U);
  }
  ahead.expect(std::span(all_).first(8));
  EXPECT_TRUE(comes_to(8));
}

TEST_F(ReadAheadTest, EndsWithMuchStillToRead) {
  for (int i = 0; i < 20; ++i) {
    {
      read_ahead ahead(sources_, settings_);
      ahead.expect(all_);
      if (i % 2 == 0) std::this_thread::yield();
    }
    EXPECT_LE(cached(), count);
    cache_.set_limit(0);
    cache_.set_limit(std::size_t{16} << 20);
  }
}

}  // namespace
}  // namespace goods
