#include "containers/block_ranges.h"

#include <memory>

namespace tarns {

BlockRanges& BlockRanges::Of(goods::cache_manager& session) {
  static const char key = 0;
  return static_cast<BlockRanges&>(
      session.companion_for(&key, []() -> std::unique_ptr<goods::session_companion> {
        return std::make_unique<BlockRanges>();
      }));
}

std::vector<goods::object_id> BlockRanges::candidates(goods::object_id blocks,
                                                      goods::object_id object) const {
  std::vector<goods::object_id> found;
  const std::lock_guard guard(lock_);
  const auto ranges = ranges_.find(blocks);
  if (ranges == ranges_.end()) return found;
  for (const auto& [block, range] : ranges->second) {
    if (range.first <= object && object <= range.last) found.push_back(block);
  }
  return found;
}

bool BlockRanges::knows(goods::object_id blocks, goods::object_id block) const {
  const std::lock_guard guard(lock_);
  const auto ranges = ranges_.find(blocks);
  return ranges != ranges_.end() && ranges->second.contains(block);
}

void BlockRanges::add(goods::object_id blocks, const Range& range) {
  const std::lock_guard guard(lock_);
  ranges_[blocks][range.block] = range;
}

void BlockRanges::forget(goods::object_id blocks, goods::object_id block) {
  const std::lock_guard guard(lock_);
  if (const auto ranges = ranges_.find(blocks); ranges != ranges_.end()) {
    ranges->second.erase(block);
  }
}

}  // namespace tarns
