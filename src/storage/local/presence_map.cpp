#include "storage/local/presence_map.h"

#include <bit>

namespace goods {

presence_map::~presence_map() {
  for (auto& chunk : chunks_) delete chunk.load(std::memory_order_relaxed);
}

presence_map::words& presence_map::need(std::uint32_t chunk) {
  words* bits = chunks_[chunk].load(std::memory_order_relaxed);
  if (bits == nullptr) {
    bits = new words();
    chunks_[chunk].store(bits, std::memory_order_release);
  }
  return *bits;
}

bool presence_map::has(segment_number number) const {
  const words* bits = chunks_[chunk_of(number)].load(std::memory_order_acquire);
  if (bits == nullptr) return false;
  const std::uint32_t at = number % segments_per_chunk;
  return ((*bits)[at / 64].load(std::memory_order_acquire) >> at % 64 & 1) != 0;
}

void presence_map::set(segment_number number, bool present) noexcept {
  words* bits = chunks_[chunk_of(number)].load(std::memory_order_relaxed);
  if (bits == nullptr) return;
  const std::uint32_t at = number % segments_per_chunk;
  auto& word = (*bits)[at / 64];
  const std::uint64_t bit = std::uint64_t{1} << at % 64;
  if (present)
    word.fetch_or(bit);
  else
    word.fetch_and(~bit);
}

presence_map::content presence_map::copy(std::uint32_t chunk) const {
  content result{};
  if (const words* bits = chunks_[chunk].load(std::memory_order_acquire)) {
    for (std::size_t i = 0; i < result.size(); ++i) result[i] = (*bits)[i].load();
  }
  return result;
}

std::uint64_t presence_map::load(std::uint32_t chunk, const content& bits) {
  words& into = need(chunk);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < bits.size(); ++i) {
    into[i].store(bits[i]);
    count += static_cast<std::uint64_t>(std::popcount(bits[i]));
  }
  return count;
}

}  // namespace goods
