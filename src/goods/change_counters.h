// Tells whether objects may have changed since somebody looked at them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <goods/object_ref.h>
#include <goods/reader.h>

namespace goods {

// Counters of published changes. Objects share them, neighbours first of all: what is stored
// together is mostly changed together. So a counter that stayed proves that an object is as it was;
// one that grew proves nothing.
//
// Memory: 256 KiB. A counter would have to grow by
// exactly 2^32 between two looks to be taken for unchanged.
// Threads: any.
class change_counters {
 public:
  // The same for neighbours.
  static std::uint16_t place_of(object_id id) {
    return static_cast<std::uint16_t>(((id / neighbours::most) * 0x9E3779B97F4A7C15u) >> 48);
  }

  std::uint32_t at(std::uint16_t place) const {
    return counters_[place].load(std::memory_order_acquire);
  }
  // Stays what it was exactly as long as all of them do.
  std::uint32_t sum_of(std::span<const stored_neighbours> objects) const {
    std::uint32_t sum = 0;
    for (const stored_neighbours& some : objects) sum += at(place_of(some.first()));
    return sum;
  }
  void note_change(object_id id) {
    counters_[place_of(id)].fetch_add(1, std::memory_order_release);
  }

 private:
  static constexpr std::size_t count = std::size_t{1} << 16;
  std::unique_ptr<std::atomic<std::uint32_t>[]> counters_ =
      std::make_unique<std::atomic<std::uint32_t>[]>(count);
};

}  // namespace goods
