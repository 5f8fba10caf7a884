#include "Value.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <stdexcept>

namespace tarns::bench {

std::uint64_t DigestOf(const Value& value, std::uint64_t seed) {
  if (value.isInteger) return XXH3_64bits_withSeed(&value.number, sizeof value.number, seed + 1);
  return XXH3_64bits_withSeed(value.text.data(), value.text.size(), seed);
}

std::uint64_t DigestOf(std::string_view name) { return XXH3_64bits(name.data(), name.size()); }

void WalkSum::enter(std::string_view name) {
  if (depth_ == kMaxDepth) throw std::length_error("The tree is deeper than the benchmark's.");
  place_[depth_ + 1] = XXH3_64bits_withSeed(name.data(), name.size(), place_[depth_]);
  ++depth_;
  sum_ += place_[depth_];
}

void WalkSum::leave() { --depth_; }

void WalkSum::value(std::string_view name, const Value& value) {
  const std::uint64_t place = XXH3_64bits_withSeed(name.data(), name.size(), place_[depth_]);
  sum_ += DigestOf(value, place);
  ++values_;
}

}  // namespace tarns::bench
