// Where whole paths were last found to lead.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "session/mapped_words.h"

namespace tarns {

// A table of fixed size from paths to positions in a ValueRing, which forgets what does not fit.
//
// It holds no paths but 128 bits of a hash with a secret that each table draws for itself, so that
// whoever chooses names cannot make two paths meet: 64 bits choose the place, 64 are compared. What
// is compared depends on the number of changes after which paths may lead elsewhere
// (cache_manager::relink_count()): with every such change all entries are forgotten, at no cost.
//
// Memory: taken from the system block by block as entries are made. Threads: any, without locks. An
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
  PathShortcuts(const PathShortcuts&) = delete;
  PathShortcuts& operator=(const PathShortcuts&) = delete;

  // The number of relinks is added by withRelinks().
  Key keyOf(std::string_view path) const;
  Key withRelinks(Key key, std::uint64_t relinks) const {
    return {key.place, key.tag + relinks * stride_};
  }

  std::uint64_t find(const Key& key) const;  // 0 when it is not known
  // Starts fetching the entry from memory.
  void prefetch(const Key& key) const { __builtin_prefetch(&words_[placeOf(key)]); }

  // `target` must not be 0.
  void remember(const Key& key, std::uint64_t target);

  // Bytes: at most, and now.
  std::size_t size() const { return words_.size() * sizeof(std::uint64_t); }
  std::size_t memory() const { return words_.memory(); }

 private:
  // An entry is two words: the tag xor the target, and the target, which is 0 in an unused one. The
  // entries of a bucket share a line of the processor's cache.
  static constexpr std::size_t kWordsPerEntry = 2;
  static constexpr std::size_t kWordsPerBucket = 8;

  std::size_t placeOf(const Key& key) const {  // of the bucket's first word
    return key.place & (words_.size() - kWordsPerBucket);
  }

  static constexpr std::size_t kSecretSize = 192;
  std::array<std::byte, kSecretSize> secret_;
  std::uint64_t stride_;  // odd
  MappedWords words_;     // as many as a power of two
};

}  // namespace tarns
