// Which segments a store has.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "storage/local/segment.h"

namespace goods {

// One bit for every possible segment, in memory and in the table `presence`: a segment whose row
// cannot be found although it must be there is damage, not an absent object.
//
// A row covers `segments_per_chunk` segments. Chunks that were never used take no memory.
// Threads: has() from any; the rest by the holder of the writer's turn.
class presence_map {
 public:
  static constexpr std::uint32_t segments_per_chunk = 32768;
  static constexpr std::size_t chunk_bytes = segments_per_chunk / 8;
  static constexpr std::uint32_t chunks =
      (std::uint64_t{1} << 32) / segment_slots / segments_per_chunk;

  presence_map() = default;
  ~presence_map();
  presence_map(const presence_map&) = delete;
  presence_map& operator=(const presence_map&) = delete;

  static std::uint32_t chunk_of(segment_number number) { return number / segments_per_chunk; }

  bool has(segment_number number) const;
  // Takes the memory that set() needs for it.
  void reserve(segment_number number) { need(chunk_of(number)); }
  // Where nothing was reserved, all segments are absent and stay so.
  void set(segment_number number, bool present) noexcept;

  // A chunk's content as stored, 64-bit words with the lowest segment in the lowest bit.
  using content = std::array<std::uint64_t, segments_per_chunk / 64>;
  content copy(std::uint32_t chunk) const;
  // Fills a chunk when opening; returns how many segments it has.
  std::uint64_t load(std::uint32_t chunk, const content& bits);

 private:
  using words = std::array<std::atomic<std::uint64_t>, segments_per_chunk / 64>;

  words& need(std::uint32_t chunk);

  std::array<std::atomic<words*>, chunks> chunks_{};
};

}  // namespace goods
