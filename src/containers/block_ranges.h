// Which block of a bundle an object is probably in.
#pragma once

#include <goods/cache_manager.h>
#include <goods/object_ref.h>

#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace tarns {

// What a session has learned about the blocks of its bundles: the least and the greatest identifier
// of each one's objects, which are mostly neighbours, since they were stored together.
//
// Only hints: a block may be gone, and an object may have been put into another one since. Memory:
// some 150 bytes for a block. Threads: any.
class BlockRanges : public goods::session_companion {
 public:
  struct Range {
    goods::object_id block, first, last;
  };

  static BlockRanges& Of(goods::cache_manager& session);

  // The blocks, of those listed by the node `blocks`, whose range the object is in.
  std::vector<goods::object_id> candidates(goods::object_id blocks, goods::object_id object) const;
  bool knows(goods::object_id blocks, goods::object_id block) const;
  void add(goods::object_id blocks, const Range& range);
  void forget(goods::object_id blocks, goods::object_id block);

 private:
  struct Ranges {
    std::map<goods::object_id, Range> byFirst;
    std::unordered_map<goods::object_id, goods::object_id> firstOf;  // by block
    goods::object_id longest = 0;                                    // last - first
  };

  mutable std::mutex lock_;
  std::unordered_map<goods::object_id, Ranges> ranges_;  // by the node that lists them; under lock_
};

}  // namespace tarns
