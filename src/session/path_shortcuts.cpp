#include "session/path_shortcuts.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <new>
#include <random>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tarns {

static_assert(XXH3_SECRET_SIZE_MIN <= 192);

PathShortcuts::PathShortcuts(std::size_t bytes) {
  std::random_device random;
  std::ranges::generate(secret_, [&] { return static_cast<std::byte>(random()); });
  stride_ = (std::uint64_t{random()} << 32) | random() | 1;

  const std::size_t buckets = std::bit_floor(std::max(bytes / sizeof(Bucket), std::size_t{1}));
  mask_ = buckets - 1;
  mapped_ = buckets * sizeof(Bucket);
  // Zeroed by the system when a page is touched first, so an unused table costs nothing.
  void* room = ::mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (room == MAP_FAILED) throw std::bad_alloc();
  buckets_ = static_cast<Bucket*>(room);
}

PathShortcuts::~PathShortcuts() { ::munmap(buckets_, mapped_); }

PathShortcuts::Key PathShortcuts::keyOf(std::string_view path) const {
  const XXH128_hash_t hash =
      XXH3_128bits_withSecret(path.data(), path.size(), secret_.data(), secret_.size());
  return {hash.low64, hash.high64};
}

void PathShortcuts::remember(const Key& key, goods::object_id id) {
  Bucket& bucket = bucketOf(key);
  // What takes the place of what is left to chance once the bucket is full.
  Entry* target = &bucket[key.tag % kEntriesPerBucket];
  for (Entry& entry : bucket) {
    const std::uint64_t held = entry.id.load(std::memory_order_relaxed);
    if (held == 0 || (entry.check.load(std::memory_order_relaxed) ^ held) == key.tag) {
      target = &entry;
      break;
    }
  }
  target->check.store(key.tag ^ id, std::memory_order_relaxed);
  target->id.store(id, std::memory_order_relaxed);
}

}  // namespace tarns
