#include <goods/semaphore.h>

namespace goods {

void semaphore::wait() {
  std::unique_lock guard(lock_);
  grown_.wait(guard, [this] { return count_ > 0; });
  --count_;
}

bool semaphore::wait(std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  if (!grown_.wait_for(guard, limit, [this] { return count_ > 0; })) return false;
  --count_;
  return true;
}

bool semaphore::signal() {
  const std::lock_guard guard(lock_);
  if (count_ == maximum_) return false;
  ++count_;
  grown_.notify_one();
  return true;
}

std::uint32_t semaphore::count() const {
  const std::lock_guard guard(lock_);
  return count_;
}

}  // namespace goods
