// Waiting for a count.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <goods/goods_api.h>

namespace goods {

// A count that never falls below zero: who would take it there waits.
// Threads: any.
class GOODS_API semaphore {
 public:
  static constexpr std::uint32_t default_maximum = 1'000'000;

  explicit semaphore(std::uint32_t initial = 0, std::uint32_t maximum = default_maximum)
      : count_(initial), maximum_(maximum) {}
  semaphore(const semaphore&) = delete;
  semaphore& operator=(const semaphore&) = delete;

  // Takes one, waiting for it without a limit.
  void wait();
  // Takes one; false when there was none for `limit`.
  bool wait(std::chrono::milliseconds limit);
  // Adds one; false, and nothing changed, when the count is at its maximum.
  bool signal();
  std::uint32_t count() const;

 private:
  mutable std::mutex lock_;
  std::condition_variable grown_;
  std::uint32_t count_;  // under lock_
  const std::uint32_t maximum_;
};

}  // namespace goods
