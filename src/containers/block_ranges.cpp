#include "containers/block_ranges.h"

#include <algorithm>
#include <memory>

namespace tarns {

BlockRanges& BlockRanges::Of(goods::cache_manager& session) {
  static const char key = 0;
  return static_cast<BlockRanges&>(
      session.companion_for(&key, []() -> std::unique_ptr<goods::session_companion> {
        return std::make_unique<BlockRanges>();
      }));
}

// Blocks that one transaction has made may lie between each other.
std::vector<goods::object_id> BlockRanges::candidates(goods::object_id blocks,
                                                      goods::object_id object) const {
  std::vector<goods::object_id> found;
  const std::lock_guard guard(lock_);
  const auto known = ranges_.find(blocks);
  if (known == ranges_.end()) return found;
  const auto& [byFirst, firstOf, longest] = known->second;
  for (auto at = byFirst.upper_bound(object); at != byFirst.begin();) {
    const Range& range = (--at)->second;
    if (range.first + longest < object) break;
    if (object <= range.last) found.push_back(range.block);
  }
  return found;
}

bool BlockRanges::knows(goods::object_id blocks, goods::object_id block) const {
  const std::lock_guard guard(lock_);
  const auto known = ranges_.find(blocks);
  return known != ranges_.end() && known->second.firstOf.contains(block);
}

void BlockRanges::add(goods::object_id blocks, const Range& range) {
  forget(blocks, range.block);
  const std::lock_guard guard(lock_);
  Ranges& known = ranges_[blocks];
  known.byFirst[range.first] = range;
  known.firstOf[range.block] = range.first;
  known.longest = std::max(known.longest, range.last - range.first);
}

void BlockRanges::forget(goods::object_id blocks, goods::object_id block) {
  const std::lock_guard guard(lock_);
  const auto known = ranges_.find(blocks);
  if (known == ranges_.end()) return;
  const auto first = known->second.firstOf.find(block);
  if (first == known->second.firstOf.end()) return;
  known->second.byFirst.erase(first->second);
  known->second.firstOf.erase(first);
}

}  // namespace tarns
