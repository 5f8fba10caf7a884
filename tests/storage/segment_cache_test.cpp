// Which segments a store keeps in memory.

#include "storage/local/segment_cache.h"

#include <bit>
#include <random>

#include "storage/local/suggested_cache_size.h"
#include "storage/storage_fixture.h"

namespace goods {
namespace {

using patch = segment_cache::patch;
using reading = segment_cache::reading;

patch put(segment_number number, commit_version version, unsigned slot, std::size_t size) {
  segment_builder builder(number, nullptr);
  const std::string body(size, 'x');
  builder.put(slot, static_cast<class_number>(version % 60'000 + 1), bytes_of(body));
  return std::make_shared<const segment_patch>(number, version, false, 0, builder.content());
}

std::shared_ptr<const segment> make_segment(segment_number number, commit_version version,
                                            std::size_t size) {
  return patched(*put(number, version, 0, size), nullptr);
}

bool are_equal(const std::shared_ptr<const segment>& a, const std::shared_ptr<const segment>& b) {
  return a && b && a->version() == b->version() && std::ranges::equal(a->content(), b->content());
}

// Whether a look at the cache answers nothing, or for each slot what the segment has.
bool is_right(const segment_cache::found_segment& looked,
              const std::shared_ptr<const segment>& is) {
  if (looked.whole) return !looked.layered && are_equal(looked.whole, is);
  if (!looked.layered) return true;
  if (!is || looked.layered->version() != is->version()) return false;
  for (unsigned slot = 0; slot < segment_slots; ++slot) {
    object_state found{};
    if (looked.layered->find(is->object(slot), found) != is->has(slot)) return false;
    if (is->has(slot) &&
        (found.layout != is->layout(slot) || !std::ranges::equal(found.body, is->body(slot))))
      return false;
  }
  return true;
}

patch removal(segment_number number, commit_version version, unsigned slot) {
  const segment_builder nothing(number, nullptr);
  return std::make_shared<const segment_patch>(number, version, false, std::uint64_t{1} << slot,
                                               nothing.content());
}

// What a store does with its cache, beside what must come out.
class cached_store {
 public:
  explicit cached_store(segment_cache& cache) : cache_(cache) {}

  void change(segment_number number, const patch& commit) {
    version_ = commit->version();
    const auto before = newest_.find(number);
    newest_[number] = patched(*commit, before == newest_.end() ? nullptr : before->second.get());
    const patch merged_with = unmerged_[number];
    unmerged_[number] = segment_patch::combine(merged_with, commit);
    cache_.publish(number, merged_with, unmerged_[number], version_);
  }
  void remove(segment_number number) {
    newest_.erase(number);
    unmerged_.erase(number);
    cache_.publish(number, nullptr, nullptr, ++version_);
  }
  void read(segment_number number, reading how) {
    if (newest_.contains(number)) cache_.offer(newest_[number], version_, how);
  }
  void merge() { unmerged_.clear(); }

  commit_version version() const { return version_; }
  std::shared_ptr<const segment> newest(segment_number number) const {
    const auto found = newest_.find(number);
    return found == newest_.end() ? nullptr : found->second;
  }

 private:
  segment_cache& cache_;
  commit_version version_ = 1;
  std::map<segment_number, std::shared_ptr<const segment>> newest_;
  std::map<segment_number, patch> unmerged_;
};

// Against a map of what is newest: whatever the cache answers is that, and it stays in its limit.
TEST(SegmentCacheTest, AnswersTheNewestStateOrNone) {
  constexpr std::size_t limit = 3'000'000;
  constexpr segment_number numbers = 6400;  // a hundred in each part, and most do not fit
  for (unsigned seed = 0; seed < 5; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    segment_cache cache(limit);
    cached_store store(cache);
    std::size_t found = 0;
    for (int step = 0; step < 60'000; ++step) {
      const auto number = static_cast<segment_number>(random() % numbers);
      const reading how = random() % 4 == 0 ? reading::in_passing : reading::usual;
      switch (random() % 8) {
        case 0:
        case 1:
          for (unsigned i = 0; i < 1 + random() % 3; ++i)
            store.change(number, put(number, store.version() + 1, random() % 3, random() % 700));
          if (random() % 4 == 0 && std::popcount(store.newest(number)->present()) > 1) {
            const auto first =
                static_cast<unsigned>(std::countr_zero(store.newest(number)->present()));
            store.change(number, removal(number, store.version() + 1, first));
          }
          break;
        case 2:  // a reader whose snapshot is behind
          store.remove(number);
          cache.offer(make_segment(number, store.version() - 1, 10), store.version() - 1);
          ASSERT_EQ(cache.find(number), nullptr) << "step " << step;
          break;
        case 3:
          store.read(number, how);
          break;
        default:
          if (random() % 1000 == 0) store.merge();
          for (unsigned i = 0; i < random() % 20; ++i)
            ASSERT_TRUE(is_right(cache.look(number, how), store.newest(number))) << "step " << step;
          const auto answer = cache.find(number, how);
          found += answer != nullptr ? 1 : 0;
          ASSERT_TRUE(answer == nullptr || are_equal(answer, store.newest(number)))
              << "step " << step;
      }
    }
    EXPECT_GT(found, 500U) << "nothing was kept";
    std::size_t memory = 0;
    for (segment_number number = 0; number < numbers; ++number)
      if (const auto kept = cache.find(number)) memory += kept->memory();
    EXPECT_LE(memory, limit);
    EXPECT_GT(memory, limit / 2);
    cache.set_limit(limit / 2);
    memory = 0;
    for (segment_number number = 0; number < numbers; ++number)
      if (const auto kept = cache.find(number)) memory += kept->memory();
    EXPECT_LE(memory, limit / 2);
    EXPECT_GT(memory, limit / 4);
  }
}

TEST(SegmentCacheTest, IsAsLargeAsTheLargestSuggestion) {
  constexpr std::size_t usual = suggested_cache_size::without_any, small = 1 << 20, large = 3 << 20;
  segment_cache cache(usual);
  suggested_cache_size size(cache, true);
  const int one = 1, other = 2;
  size.suggest(&one, large);
  EXPECT_EQ(cache.limit(), large);
  size.suggest(&other, small);
  EXPECT_EQ(cache.limit(), large);
  size.suggest(&one, 0);
  EXPECT_EQ(cache.limit(), small);
  size.suggest(&other, 0);
  EXPECT_EQ(cache.limit(), usual);
  suggested_cache_size settled(cache, false);
  settled.suggest(&one, small);
  EXPECT_EQ(cache.limit(), usual);
}

TEST(SegmentCacheTest, KeepsWhatIsUsedAndRefusesWhatMayBeOld) {
  segment_cache cache(64 * 4096);  // some ten of these segments in each of its parts
  constexpr segment_number part = 64;
  cache.offer(make_segment(0, 1, 300), 1);
  for (segment_number i = 1; i < 200; ++i) {
    EXPECT_NE(cache.find(0), nullptr) << i;
    cache.offer(make_segment(i * part, 1, 300), 1);
  }
  EXPECT_EQ(cache.find(part), nullptr) << "it was used once, long ago";
  cache.publish(2 * part, nullptr, nullptr, 5);
  cache.offer(make_segment(2 * part, 4, 300), 4);
  EXPECT_EQ(cache.find(2 * part), nullptr) << "the snapshot was older than the removal";
}

// A walk over everything leaves little behind, but what others have used meanwhile, and displaces
// nothing. The next one is worth remembering.
TEST(SegmentCacheTest, LetsPassWhatIsReadOnce) {
  constexpr segment_number known = 500, all = 20'000, shown = 700, most_left = 512;
  segment_cache cache(std::size_t{64} << 20);
  const auto walk = [&](segment_number first, segment_number end) {
    for (segment_number i = first; i < end; ++i) {
      if (!cache.find(i, reading::in_passing)) {
        cache.offer(make_segment(i, 1, 300), 1, reading::in_passing);
        EXPECT_NE(cache.find(i, reading::in_passing), nullptr) << "it is needed now";
      }
      if (i == shown) {
        EXPECT_NE(cache.find(i), nullptr);
      }
    }
  };
  const auto kept = [&](segment_number first, segment_number end) {
    segment_number count = 0;
    for (segment_number i = first; i < end; ++i) {
      count += cache.find(i, reading::in_passing) != nullptr ? 1 : 0;
    }
    return count;
  };
  for (segment_number i = 1; i < known; ++i) cache.offer(make_segment(i, 1, 300), 1);
  walk(1, all);
  EXPECT_EQ(kept(1, known), known - 1);
  EXPECT_NE(cache.find(shown), nullptr);
  EXPECT_LE(kept(known, all), most_left + 1);
  walk(1, all);
  EXPECT_EQ(kept(1, all), all - 1);
}

// What is laid over a segment counts, and is not laid over it when it does not say all.
TEST(SegmentCacheTest, FollowsPatchesOverMergesAndDropsWhatGetsTooLarge) {
  segment_cache cache(64 * 4096);
  const patch first = put(0, 2, 1, 300), second = put(0, 3, 2, 300);
  cache.offer(make_segment(0, 1, 300), 1);
  cache.publish(0, nullptr, first, 2);
  cache.publish(0, first, segment_patch::combine(first, second), 3);
  ASSERT_NE(cache.find(0), nullptr);
  EXPECT_EQ(cache.find(0)->present(), 7U);

  cache.publish(0, nullptr, put(0, 4, 3, 300), 4);
  cache.publish(0, nullptr, put(0, 5, 4, 300), 5);  // grown from nothing: there was a merge
  ASSERT_NE(cache.find(0), nullptr);
  EXPECT_EQ(cache.find(0)->present(), 31U);
  EXPECT_EQ(cache.find(0)->version(), 5U);

  cache.offer(make_segment(64, 5, 300), 5);
  patch grown;
  for (unsigned slot = 0; slot < 12; ++slot) {
    const patch next = segment_patch::combine(grown, put(64, 6 + slot, slot, 1000));
    cache.publish(64, grown, next, 6 + slot);
    grown = next;
  }
  EXPECT_FALSE(cache.contains(64)) << "it is larger than its part of the cache";
}

}  // namespace
}  // namespace goods
