// Waiting for something to have happened.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <goods/goods_api.h>

namespace goods {

// Not signalled at first; once signalled it lets everybody pass until it is reset.
// Threads: any. A derived class may override signal() and call this one in it.
class GOODS_API event {
 public:
  event() = default;
  virtual ~event() = default;
  event(const event&) = delete;
  event& operator=(const event&) = delete;

  virtual void signal();
  void reset();
  bool is_signalled() const;

  void wait();
  // False when it was not signalled for `limit`.
  bool wait(std::chrono::milliseconds limit);

 private:
  mutable std::mutex lock_;
  std::condition_variable signalled_now_;
  bool signalled_ = false;  // under lock_
};

}  // namespace goods
