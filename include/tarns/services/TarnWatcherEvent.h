#pragma once

#include <goods/event.h>
#include <tarns/logging/CallBacks.h>
#include <tarns/tarns_api.h>

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace tarns {

class TarnWatcherTarget;
class WatchedEvents;

// What TarnWatcher keeps of one watched object, from the first watch() to the next modification:
// the callbacks. Made, kept and destroyed by the watcher.
// Threads: any.
class TARNS_API TarnWatcherEvent : public goods::event {
 public:
  TarnWatcherEvent(WatchedEvents& events, std::uint64_t objectID);
  ~TarnWatcherEvent() override;

  std::uint64_t getObjectID() const { return objectID_; }

  // Add the callback unless there is an equal one. The client is registered as `target`.
  void addCallback(CallBack::Function function, const void* argument);
  void addCallback(XObject* client, CallBack::Method method, const void* argument,
                   std::shared_ptr<TarnWatcherTarget> target = {});
  // False when there is an equal one.
  bool addCallback(const CallBack& callBack, std::shared_ptr<TarnWatcherTarget> target);
  // Whether there was one of the client.
  bool removeCallback(const void* client);
  // Whether there was this one; `target` gets what its client was registered as.
  bool removeCallback(const CallBack& callBack,
                      std::shared_ptr<TarnWatcherTarget>* target = nullptr);
  bool isEmpty() const;

  // The callbacks, with the registrations that their clients had when they were added: who was
  // removed meanwhile, and came again, is not meant.
  struct Calls {
    CallBacks callBacks;
    std::unordered_map<const void*, std::shared_ptr<TarnWatcherTarget>> targets;
  };
  Calls takeCalls();

  // Called by the session when the object has been modified: takes the object out of the watcher's
  // events, has the callbacks run on a new thread, and destroys the event.
  void signal() override;

  // The object is being watched, or cannot be; and waiting for that, which throws why.
  void setArmed(std::exception_ptr failure = nullptr);
  void waitUntilArmed();

 private:
  WatchedEvents& events_;  // outlives it
  const std::uint64_t objectID_;
  mutable std::mutex lock_;
  std::condition_variable armed_;
  Calls calls_;                 // under lock_
  bool isArmed_ = false;        // under lock_
  std::exception_ptr failure_;  // under lock_
};

}  // namespace tarns
