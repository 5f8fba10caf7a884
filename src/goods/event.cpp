#include <goods/event.h>

namespace goods {

void event::signal() {
  const std::lock_guard guard(lock_);
  signalled_ = true;
  signalled_now_.notify_all();
}

void event::reset() {
  const std::lock_guard guard(lock_);
  signalled_ = false;
}

bool event::is_signalled() const {
  const std::lock_guard guard(lock_);
  return signalled_;
}

void event::wait() {
  std::unique_lock guard(lock_);
  signalled_now_.wait(guard, [this] { return signalled_; });
}

bool event::wait(std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  return signalled_now_.wait_for(guard, limit, [this] { return signalled_; });
}

}  // namespace goods
