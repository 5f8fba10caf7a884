// A mutex whose use clang checks: fields name it in GUARDED_BY, functions in REQUIRES.
#pragma once

#include <mutex>

#if defined(__clang__)
#define STORAGE_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define STORAGE_THREAD_ATTRIBUTE(x)
#endif

#ifndef GUARDED_BY
#define GUARDED_BY(x) STORAGE_THREAD_ATTRIBUTE(guarded_by(x))
#endif
#ifndef REQUIRES
#define REQUIRES(...) STORAGE_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#endif

namespace goods {

// A std::mutex. Wait on it with std::condition_variable_any, in a loop that tests the condition.
class STORAGE_THREAD_ATTRIBUTE(capability("mutex")) guarded_mutex {
 public:
  void lock() STORAGE_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  void unlock() STORAGE_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a guarded_mutex for a scope.
class STORAGE_THREAD_ATTRIBUTE(scoped_lockable) guarded_scope {
 public:
  explicit guarded_scope(guarded_mutex& mutex) STORAGE_THREAD_ATTRIBUTE(acquire_capability(mutex))
      : mutex_(mutex) {
    mutex_.lock();
  }
  ~guarded_scope() STORAGE_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
  guarded_scope(const guarded_scope&) = delete;
  guarded_scope& operator=(const guarded_scope&) = delete;

 private:
  guarded_mutex& mutex_;
};

}  // namespace goods
