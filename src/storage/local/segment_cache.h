// Segments of a store that were read or written lately.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/segment_patch.h"

namespace goods {

// Keeps the newest published version of segments, up to a limit of memory; which ones go follows
// the clock: an entry that was used since the hand last passed stays.
//
// An entry e that find() returns is the segment's state in every version v with e.version() <= v
// that was published when find() was called: entries change by publish() before the version is made
// known, and offer() refuses what may be older than that. What a commit changes is laid over an
// entry when that is found the next time, or looked at some more times: whoever commits does not
// wait for it, and many never are.
//
// Who goes through very many segments once has them looked at in passing: they stay as long as the
// few that came next, unless somebody uses them in the usual way. What comes by in passing a second
// time is kept like all else. So a long walk takes hardly any memory, and displaces nothing.
// Threads: any. One mutex for each shard, held for a look-up;
// nothing is called under it.
class segment_cache {
 public:
  explicit segment_cache(std::size_t limit);  // bytes

  enum class reading : std::uint8_t { usual, in_passing };

  std::shared_ptr<const segment> find(segment_number number, reading how = reading::usual);

  // The same for who wants an object or two of it: at most one of both is set.
  struct found_segment {
    std::shared_ptr<const segment> whole;
    std::shared_ptr<const layered_segment> layered;
  };
  found_segment look(segment_number number, reading how = reading::usual);

  // What a reader has found in the snapshot of version `as_of`.
  void offer(const std::shared_ptr<const segment>& found, commit_version as_of,
             reading how = reading::usual);

  bool contains(segment_number number);

  // From `version` on, `now` is laid over the segment; null: there is none. `before`: what `now`
  // has grown from, or null. Called in version order.
  using patch = std::shared_ptr<const segment_patch>;
  void publish(segment_number number, const patch& before, const patch& now,
               commit_version version) noexcept;

  std::size_t limit() const { return shard_limit_.load(std::memory_order_relaxed) * shards; }
  void set_limit(std::size_t bytes) noexcept;

 private:
  static constexpr std::size_t shards = 64;
  // Of each shard: segments that stay though they only passed, and places for what came by.
  static constexpr std::size_t most_passing = 8, remembered = 1024;

  struct place {
    segment_number number = 0;
    bool used = false;
    std::shared_ptr<const segment> content;  // null: a free place
    patch newer;                             // to be laid over it; null: nothing

    std::size_t bytes = 0;  // of memory, what is to be laid over it included
    unsigned looks = 0;     // at both since `newer` came
    bool passes = false;    // everybody has looked at it in passing

    void note_use(reading how) {
      used = true;
      if (how == reading::usual) passes = false;
    }
  };

  // Open addressing with linear probing, at most half full: a look-up touches one place.
  struct alignas(64) shard {
    guarded_mutex lock;
    std::vector<place> places GUARDED_BY(lock) = std::vector<place>(64);
    std::size_t entries GUARDED_BY(lock) = 0;
    std::size_t hand GUARDED_BY(lock) = 0;
    std::size_t bytes GUARDED_BY(lock) = 0;
    commit_version last_change GUARDED_BY(lock) = 0;  // of any segment of this shard
    std::array<segment_number, most_passing> passing
        GUARDED_BY(lock) = {};  // the last ones, around
    std::size_t next_passing GUARDED_BY(lock) = 0;
    std::array<segment_number, remembered> passed GUARDED_BY(lock) = {};

    std::size_t home(segment_number number) const REQUIRES(lock);
    place& place_of(segment_number number) REQUIRES(lock);  // where it is, or may be put
    // Keeps nothing when there is no memory for it.
    void insert(std::shared_ptr<const segment> content, std::size_t limit) noexcept REQUIRES(lock);
    // Of one that has just been put in. Returns what is to be dropped after the mutex.
    place let_pass(segment_number number) REQUIRES(lock);
    bool came_by(segment_number number) REQUIRES(lock) {
      return std::exchange(passed[number / shards % remembered], number) == number;
    }
    place erase(std::size_t at) REQUIRES(lock);
    place erase(const place& known) REQUIRES(lock) {
      return erase(static_cast<std::size_t>(&known - places.data()));
    }
    // Returns what is to be dropped after the mutex.
    place replace(place& known, std::shared_ptr<const segment> content, patch newer,
                  std::size_t limit) noexcept REQUIRES(lock);
    void make_room(std::size_t limit) REQUIRES(lock);
    bool grow() noexcept REQUIRES(lock);  // false, and nothing changed, when there is no memory
  };

  shard& shard_of(segment_number number) { return shards_[number % shards]; }

  std::atomic<std::size_t> shard_limit_;
  std::array<shard, shards> shards_;
};

}  // namespace goods
