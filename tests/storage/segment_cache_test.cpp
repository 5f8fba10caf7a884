// Which segments a store keeps in memory.

#include "storage/local/segment_cache.h"

#include <random>

#include "storage/storage_fixture.h"

namespace goods {
namespace {

std::shared_ptr<const segment> make_segment(segment_number number, commit_version version,
                                            std::size_t size) {
  segment_builder builder(number, nullptr);
  const std::string body(size, 'x');
  builder.put(0, 1, bytes_of(body));
  return builder.build(version);
}

// Against a map of what is newest: whatever the cache answers is that, and it stays in its limit.
TEST(SegmentCacheTest, AnswersTheNewestStateOrNone) {
  constexpr std::size_t limit = 3'000'000;
  constexpr segment_number numbers = 6400;  // a hundred in each part, and most do not fit
  for (unsigned seed = 0; seed < 5; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    segment_cache cache(limit);
    std::map<segment_number, std::shared_ptr<const segment>> newest;
    std::size_t found = 0;
    commit_version version = 1;
    for (int step = 0; step < 60'000; ++step) {
      const auto number = static_cast<segment_number>(random() % numbers);
      switch (random() % 8) {
        case 0:
          newest[number] = make_segment(number, ++version, random() % 1024);
          cache.publish(number, newest[number], version);
          break;
        case 1:
          newest.erase(number);
          cache.publish(number, nullptr, ++version);
          break;
        case 2:  // a reader whose snapshot is behind
          newest.erase(number);
          cache.publish(number, nullptr, ++version);
          cache.offer(make_segment(number, version - 1, 10), version - 1);
          ASSERT_EQ(cache.find(number), nullptr) << "step " << step;
          break;
        case 3:
          if (newest.contains(number)) cache.offer(newest[number], version);
          break;
        default:
          const auto answer = cache.find(number);
          found += answer != nullptr ? 1 : 0;
          ASSERT_TRUE(answer == nullptr || answer == newest[number]) << "step " << step;
      }
    }
    EXPECT_GT(found, 500U) << "nothing was kept";
    std::size_t memory = 0;
    for (segment_number number = 0; number < numbers; ++number)
      if (const auto kept = cache.find(number)) memory += kept->memory();
    EXPECT_LE(memory, limit);
  }
}

TEST(SegmentCacheTest, KeepsWhatIsUsedAndRefusesWhatMayBeOld) {
  segment_cache cache(64 * 4096);  // some ten of these segments in each of its parts
  constexpr segment_number part = 64;
  cache.publish(0, make_segment(0, 1, 300), 1);
  for (segment_number i = 1; i < 200; ++i) {
    EXPECT_NE(cache.find(0), nullptr) << i;
    cache.offer(make_segment(i * part, 1, 300), 1);
  }
  EXPECT_EQ(cache.find(part), nullptr) << "it was used once, long ago";
  cache.publish(2 * part, nullptr, 5);
  cache.offer(make_segment(2 * part, 4, 300), 4);
  EXPECT_EQ(cache.find(2 * part), nullptr) << "the snapshot was older than the removal";
}

}  // namespace
}  // namespace goods
