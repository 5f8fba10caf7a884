// Segments of a store that were read or written lately.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/segment.h"

namespace goods {

// Keeps the newest published version of segments, up to a limit of memory; which ones go follows
// the clock: an entry that was used since the hand last passed stays.
//
// An entry e that find() returns is the segment's state in every version v with e.version() <= v
// that was published when find() was called: publish() replaces entries before it makes their
// version known, and offer() refuses what may be older than that. Threads: any. One mutex for each
// shard, held for a look-up; nothing is called under it.
class segment_cache {
 public:
  explicit segment_cache(std::size_t limit);  // bytes

  std::shared_ptr<const segment> find(segment_number number);

  // What a reader has found in the snapshot of version `as_of`.
  void offer(const std::shared_ptr<const segment>& found, commit_version as_of);

  // `now` is the segment's state from `version` on; null when it has none or is not to be kept.
  // Called in version order.
  void publish(segment_number number, std::shared_ptr<const segment> now,
               commit_version version) noexcept;

  std::size_t limit() const { return shard_limit_ * shards; }

 private:
  static constexpr std::size_t shards = 64;

  struct place {
    segment_number number = 0;
    bool used = false;
    std::shared_ptr<const segment> content;  // null: a free place
  };

  // Open addressing with linear probing, at most half full: a look-up touches one place.
  struct alignas(64) shard {
    guarded_mutex lock;
    std::vector<place> places GUARDED_BY(lock) = std::vector<place>(64);
    std::size_t entries GUARDED_BY(lock) = 0;
    std::size_t hand GUARDED_BY(lock) = 0;
    std::size_t bytes GUARDED_BY(lock) = 0;
    commit_version last_change GUARDED_BY(lock) = 0;  // of any segment of this shard

    std::size_t home(segment_number number) const REQUIRES(lock);
    place& place_of(segment_number number) REQUIRES(lock);  // where it is, or may be put
    // Keeps nothing when there is no memory for it.
    void insert(std::shared_ptr<const segment> content, std::size_t limit) noexcept REQUIRES(lock);
    std::shared_ptr<const segment> erase(std::size_t at) REQUIRES(lock);
    void make_room(std::size_t limit) REQUIRES(lock);
    bool grow() noexcept REQUIRES(lock);  // false, and nothing changed, when there is no memory
  };

  shard& shard_of(segment_number number) { return shards_[number % shards]; }

  const std::size_t shard_limit_;
  std::array<shard, shards> shards_;
};

}  // namespace goods
