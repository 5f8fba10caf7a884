#include "session/path_shortcuts.h"

#include <algorithm>
#include <bit>
#include <random>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tarns {

static_assert(XXH3_SECRET_SIZE_MIN <= 192);

PathShortcuts::PathShortcuts(std::size_t bytes)
    : words_(std::bit_floor(std::max(bytes / sizeof(std::uint64_t), kWordsPerBucket)),
             MappedWords::Use::kScattered) {
  std::random_device random;
  std::ranges::generate(secret_, [&] { return static_cast<std::byte>(random()); });
  stride_ = (std::uint64_t{random()} << 32) | random() | 1;
}

PathShortcuts::Key PathShortcuts::keyOf(std::string_view path) const {
  const XXH128_hash_t hash =
      XXH3_128bits_withSecret(path.data(), path.size(), secret_.data(), secret_.size());
  return {hash.low64, hash.high64};
}

std::uint64_t PathShortcuts::find(const Key& key) const {
  const std::size_t bucket = placeOf(key);
  if (!words_.has(bucket)) return 0;
  for (std::size_t i = bucket; i < bucket + kWordsPerBucket; i += kWordsPerEntry) {
    const std::uint64_t target = words_[i + 1].load(std::memory_order_acquire);
    if ((words_[i].load(std::memory_order_relaxed) ^ target) == key.tag) return target;
  }
  return 0;
}

void PathShortcuts::remember(const Key& key, std::uint64_t target) {
  const std::size_t bucket = placeOf(key);
  words_.provide(bucket);
  // What takes the place of what is left to chance once the bucket is full.
  std::size_t entry = bucket + key.tag % (kWordsPerBucket / kWordsPerEntry) * kWordsPerEntry;
  for (std::size_t i = bucket; i < bucket + kWordsPerBucket; i += kWordsPerEntry) {
    const std::uint64_t held = words_[i + 1].load(std::memory_order_relaxed);
    if (held == 0 || (words_[i].load(std::memory_order_relaxed) ^ held) == key.tag) {
      entry = i;
      break;
    }
  }
  words_[entry].store(key.tag ^ target, std::memory_order_relaxed);
  words_[entry + 1].store(target, std::memory_order_release);
}

}  // namespace tarns
