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

  struct entry {
    std::shared_ptr<const segment> content;
    bool used;
  };

  // Finds entries by segment: open addressing with linear probing, at most half full.
  class index {
   public:
    static constexpr std::uint32_t none = ~std::uint32_t{0};

    std::uint32_t find(segment_number number) const;
    void set(segment_number number, std::uint32_t entry);  // adds or changes
    void erase(segment_number number);

   private:
    struct place {
      segment_number number;
      std::uint32_t entry = none;
    };

    std::size_t home(segment_number number) const;
    std::size_t place_of(segment_number number) const;  // where it is, or may be put
    void grow();

    std::vector<place> places_ = std::vector<place>(64);
    std::size_t used_ = 0;
  };

  struct alignas(64) shard {
    guarded_mutex lock;
    index places GUARDED_BY(lock);
    std::vector<entry> entries GUARDED_BY(lock);
    std::size_t hand GUARDED_BY(lock) = 0;
    std::size_t bytes GUARDED_BY(lock) = 0;
    commit_version last_change GUARDED_BY(lock) = 0;  // of any segment of this shard

    void insert(std::shared_ptr<const segment> content, std::size_t limit) noexcept REQUIRES(lock);
    std::shared_ptr<const segment> erase(std::uint32_t place) REQUIRES(lock);
    void make_room(std::size_t limit) REQUIRES(lock);
  };

  shard& shard_of(segment_number number) { return shards_[number % shards]; }

  const std::size_t shard_limit_;
  std::array<shard, shards> shards_;
};

}  // namespace goods
