// When locks were taken.
#pragma once

#include <time.h>

#include <cstdint>

namespace goods {

// Monotonic, in nanoseconds, a few milliseconds late; cheap enough for every lock.
inline std::int64_t coarse_now() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace goods
