#pragma once

#include <tarns/tarns_api.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

namespace tarns {

class TarnWatcherTarget;

// Keeps a client from being removed while one of its callbacks runs.
// Threads: destroyed by the thread that locked.
class TARNS_API TarnWatcherTargetLock {
 public:
  explicit TarnWatcherTargetLock(std::shared_ptr<TarnWatcherTarget> target);  // locks it
  ~TarnWatcherTargetLock();                                                   // unlockTarget()
  TarnWatcherTargetLock(const TarnWatcherTargetLock&) = delete;
  TarnWatcherTargetLock& operator=(const TarnWatcherTargetLock&) = delete;

  const std::shared_ptr<TarnWatcherTarget>& getTarget() const { return target_; }

 private:
  const std::shared_ptr<TarnWatcherTarget> target_;
};

// The client of callbacks, as long as it is registered: counts those that run.
// Threads: any.
class TARNS_API TarnWatcherTarget {
 public:
  TarnWatcherTarget() = default;
  ~TarnWatcherTarget();  // waits until nothing runs
  TarnWatcherTarget(const TarnWatcherTarget&) = delete;
  TarnWatcherTarget& operator=(const TarnWatcherTarget&) = delete;

  void lockTarget();
  void unlockTarget();
  bool isFree();
  // Returns when no callback runs but those that the calling thread is in. Threads that call this
  // within callbacks of one client do not wait for each other as long as they wait; once one of
  // them goes on, those that have not yet noticed wait for its callback as well. Two clients whose
  // callbacks wait for each other's do so for ever.
  void waitUntilFree();
  // The same for all registrations that one client has had.
  static void WaitUntilAllFree(std::span<const std::shared_ptr<TarnWatcherTarget>> ofOneClient);

 private:
  std::uint32_t ownCount() const;
  void beginWaitingWithin(std::uint32_t own);
  void endWaitingWithin(std::uint32_t own);
  void waitUntilFree(bool isWithin);

  std::mutex lock_;
  std::condition_variable unlocked_;
  std::uint32_t count_ = 0;          // under lock_
  std::uint32_t waitingWithin_ = 0;  // under lock_; of count_, those whose threads wait here
};

// The clients that are registered, by address.
// Threads: any.
class TARNS_API Uint32ToTarnWatcherTargetMap {
 public:
  explicit Uint32ToTarnWatcherTargetMap(unsigned long hashSize = 2927) : targets_(hashSize) {}

  // The client's target, made when it is not registered.
  std::shared_ptr<TarnWatcherTarget> getNoFail(const void* client);
  bool isRegistered(const void* client);
  // A new lock, which is the caller's to delete; null when the client is not registered.
  TarnWatcherTargetLock* getLock(const void* client);
  // Forgets the client, so that no lock is given any more, and returns when those that there are
  // have gone, but for those of the calling thread; so does every other call for the client. Calls
  // within callbacks of the client do not wait for each other, see TarnWatcherTarget.
  void removeKey(const void* client);
  // The same, without waiting, where nobody has the client's target.
  void removeUnused(const void* client);

 private:
  using Targets = std::unordered_multimap<const void*, std::shared_ptr<TarnWatcherTarget>>;

  std::mutex lock_;
  Targets targets_;  // one for each key
  Targets leaving_;  // those that removeKey() waits for
};

}  // namespace tarns
