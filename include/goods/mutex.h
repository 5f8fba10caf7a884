// Mutual exclusion that clang checks.
#pragma once

#include <mutex>

#include <goods/goods_api.h>
#include <goods/thread_annotations.h>

namespace goods {

// A mutex that its holder may enter again; fields name it in GUARDED_BY.
// Threads: any. Lock it through critical_section.
class GOODS_API GOODS_THREAD_ATTRIBUTE(capability("mutex")) mutex {
 public:
  mutex() = default;
  mutex(const mutex&) = delete;
  mutex& operator=(const mutex&) = delete;

  void enter() GOODS_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  void leave() GOODS_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
  bool try_enter() GOODS_THREAD_ATTRIBUTE(try_acquire_capability(true)) {
    return mutex_.try_lock();
  }

  // For std::condition_variable_any; the count of entries must be one then.
  void lock() GOODS_THREAD_ATTRIBUTE(acquire_capability()) { enter(); }
  void unlock() GOODS_THREAD_ATTRIBUTE(release_capability()) { leave(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds a mutex for a scope.
class GOODS_API GOODS_THREAD_ATTRIBUTE(scoped_lockable) critical_section {
 public:
  explicit critical_section(mutex& guard) GOODS_THREAD_ATTRIBUTE(acquire_capability(guard))
      : guard_(guard) {
    guard_.enter();
  }
  ~critical_section() GOODS_THREAD_ATTRIBUTE(release_capability()) { guard_.leave(); }
  critical_section(const critical_section&) = delete;
  critical_section& operator=(const critical_section&) = delete;

 private:
  mutex& guard_;
};

}  // namespace goods
