// The memory of a process that works on a database ten times as large as its cache.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "support/killed_process.h"
#include "support/scratch_directory.h"

namespace {

// Beside the cache (8 MiB) the process has, all of it independent of the size of the database: the
// storage's segments (4 MiB) and what its log holds until it is merged (twice 2 MiB and the same
// again while it is built), SQLite's pages (2 MiB for each of some connections), the sets of a
// collection, heap that is free in pieces, and the program. Together 36 MiB were measured, with
// databases of 20, 40 and 80 MB alike; a third more is allowed. Keeping a fifth of the database by
// mistake is more than that.
TEST(MemoryTest, StaysAtTheLimitWhateverIsDoneToADatabaseTenTimesAsLarge) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers take memory of their own";
#endif
  constexpr std::uint64_t kCache = 8 << 20, kAllowedKib = 48 << 10, kTexts = 105'000;
  const scratch_directory directory(scratch_directory::place::in_memory);
  const std::string configuration = directory.file("tarns.conf");
  std::ofstream(configuration) << "1\n0: file:./data?durability=relaxed&cache=4M&log=2M\n";
  killed_process worker(
      {PROGRAM_MEMORY_WORKER, configuration, std::to_string(kCache), std::to_string(kTexts)});
  std::map<std::string, std::uint64_t> answers;
  for (;;) {
    const std::string line = worker.next_line(std::chrono::minutes(4));
    if (line.empty()) break;
    std::istringstream words(line);
    std::string name;
    words >> name;
    EXPECT_TRUE(words >> answers[name]) << line;
  }
  EXPECT_EQ(worker.wait(), 0);
  EXPECT_EQ(answers["texts"], 3 * kTexts) << "each was read, walked by and listed";
  EXPECT_GT(answers["stored"], 10 * kCache) << "bytes of objects";
  for (const char* phase : {"fill", "read", "walk", "list", "update", "delete", "collect"}) {
    EXPECT_GT(answers[phase], kCache >> 10) << phase;
    EXPECT_LT(answers[phase], kAllowedKib) << phase;
  }
}

}  // namespace
