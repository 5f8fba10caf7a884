// Where whole paths were last found to lead.
#pragma once

#include <goods/object_ref.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tarns {

// A table of fixed size from paths to identifiers, which forgets what does not fit.
//
// It holds no paths but 128 bits of a hash with a secret that each table draws for itself, so that
// whoever chooses names cannot make two paths meet: 64 bits choose the place, 64 are compared. What
// is compared depends on the number of changes after which paths may lead elsewhere
// (cache_manager::relink_count()): with every such change all entries are forgotten, at no cost.
//
// Memory: taken from the system page by page as entries are made. Threads: any, without locks. An
// entry is two words that are written one after the other; the first is kept xor the second, so
// that a pair of halves of two entries matches no path.
class PathShortcuts {
 public:
  // What finds a path's entry, for one number of relinks.
  struct Key {
    std::uint64_t place;
    std::uint64_t tag;
  };

  // At most `bytes` of memory, at least one bucket.
  explicit PathShortcuts(std::size_t bytes);
  ~PathShortcuts();
  PathShortcuts(const PathShortcuts&) = delete;
  PathShortcuts& operator=(const PathShortcuts&) = delete;

  // The number of relinks is added by withRelinks().
  Key keyOf(std::string_view path) const;
  Key withRelinks(Key key, std::uint64_t relinks) const {
    return {key.place, key.tag + relinks * stride_};
  }

  goods::object_id find(const Key& key) const {  // 0 when it is not known
    for (const Entry& entry : bucketOf(key)) {
      const std::uint64_t id = entry.id.load(std::memory_order_relaxed);
      if ((entry.check.load(std::memory_order_relaxed) ^ id) == key.tag) return id;
    }
    return 0;
  }
  // Starts fetching the entry from memory.
  void prefetch(const Key& key) const { __builtin_prefetch(&bucketOf(key)); }

  // `id` must not be 0.
  void remember(const Key& key, goods::object_id id);

 private:
  struct Entry {
    std::atomic<std::uint64_t> check;  // the tag xor the identifier
    std::atomic<std::uint64_t> id;     // 0: empty
  };
  static constexpr std::size_t kEntriesPerBucket = 4;
  using Bucket = std::array<Entry, kEntriesPerBucket>;
  static_assert(sizeof(Bucket) == 64, "a bucket is one line of the processor's cache");

  Bucket& bucketOf(const Key& key) const { return buckets_[key.place & mask_]; }

  static constexpr std::size_t kSecretSize = 192;
  std::array<std::byte, kSecretSize> secret_;
  std::uint64_t stride_;  // odd
  std::size_t mask_;      // number of buckets, a power of two, less 1
  std::size_t mapped_;    // bytes
  Bucket* buckets_;
};

}  // namespace tarns
