// What commits change of a segment, apart from it.

#include "storage/local/segment_patch.h"

#include <list>
#include <random>

#include "storage/storage_fixture.h"

namespace goods {
namespace {

using contents = std::map<unsigned, std::string>;  // by slot: layout, a colon, the body or length
using patch_pointer = std::shared_ptr<const segment_patch>;

contents contents_of(const segment_view& from) {
  contents all;
  for (unsigned slot = 0; slot < segment_slots; ++slot) {
    if (!from.has(slot)) continue;
    all[slot] = std::to_string(from.layout(slot)) + ":";
    all[slot] += from.is_apart(slot) ? std::to_string(from.length(slot))
                                     : std::string(text_of(from.body(slot)));
  }
  return all;
}

// One commit's changes of a segment, made at random, and what they make of `model`.
patch_pointer change_some(std::mt19937& random, commit_version version, contents& model) {
  const bool is_whole = random() % 10 == 0;
  if (is_whole) model.clear();
  std::list<std::string> bodies;
  segment_builder objects(77, nullptr);
  std::uint64_t removed = 0;
  for (unsigned slot = 0; slot < segment_slots; ++slot) {
    const auto layout = static_cast<class_number>(1 + random() % 60'000);
    const std::string prefix = std::to_string(layout) + ":";
    switch (random() % 16) {
      case 0:
        bodies.push_back("version " + std::to_string(version) + std::string(random() % 40, '.'));
        objects.put(slot, layout, bytes_of(bodies.back()));
        model[slot] = prefix + bodies.back();
        break;
      case 1: {
        const std::size_t length = longest_in_segment + 1 + random() % 100'000;
        objects.put_apart(slot, layout, length);
        model[slot] = prefix + std::to_string(length);
        break;
      }
      case 2:
        if (is_whole) break;
        removed |= std::uint64_t{1} << slot;
        model.erase(slot);
        break;
      default:
        break;
    }
  }
  return std::make_shared<const segment_patch>(77, version, is_whole, removed, objects.content());
}

// However commits are put together on their way, what comes out is what they made one after the
// other; also where a merge has laid some of them over the segment before.
TEST(SegmentPatchTest, MakesWhatItsCommitsMade) {
  for (unsigned seed = 0; seed < 3000; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    contents model;
    const auto base = patched(*change_some(random, 1, model), nullptr);
    contents before = contents_of(*base);
    ASSERT_EQ(before, model);
    std::vector<patch_pointer> commits;
    std::vector<contents> after;
    for (unsigned i = 0; i < 2 + random() % 5; ++i) {
      commits.push_back(change_some(random, 2 + i, model));
      after.push_back(model);
    }

    const std::size_t merged = random() % (commits.size() + 1);
    std::shared_ptr<const segment> stored = base;
    for (std::size_t i = 0; i < merged; ++i) stored = patched(*commits[i], stored.get());
    EXPECT_EQ(contents_of(*stored), merged == 0 ? before : after[merged - 1]);

    // Two of them that are next to each other become one, until there is one.
    std::vector<patch_pointer> all = commits;
    while (all.size() > 1) {
      const auto at = static_cast<std::ptrdiff_t>(random() % (all.size() - 1));
      all[static_cast<std::size_t>(at)] =
          segment_patch::combine(all.begin()[at], all.begin()[at + 1]);
      all.erase(all.begin() + at + 1);
    }
    const auto now = patched(*all.front(), stored.get());
    EXPECT_EQ(contents_of(*now), model);
    EXPECT_EQ(now->version(), commits.back()->version());
    EXPECT_EQ(contents_of(*patched(*all.front(), now.get())), model) << "laid over twice";
    if (!all.front()->is_whole()) continue;
    EXPECT_EQ(contents_of(all.front()->objects()), model);
    EXPECT_EQ(all.front()->is_empty(), model.empty());
  }
}

}  // namespace
}  // namespace goods
