// What the watcher, its handles and the threads of its callbacks share.
#pragma once

#include <tarns/logging/CallBack.h>
#include <tarns/services/TarnWatcherEvent.h>
#include <tarns/services/TarnWatcherTarget.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

namespace tarns {

class DatabaseWorker;

// The events that wait, the clients of their callbacks, and how many callbacks run.
//
// An event is in `live_` from its making until it has been signalled or given up, and in `events_`
// as long as further callbacks may join it. Whoever gives one up takes it out of both and has the
// session withdraw it, with no lock held: the session may be signalling it just then, which takes
// lock_.
//
// Locks: lock_, then those of one event, then those of the targets.
// Ownership: shared; the worker outlives close(), after which it is not used any more.
// Threads: any.
class WatchedEvents : public std::enable_shared_from_this<WatchedEvents> {
 public:
  explicit WatchedEvents(DatabaseWorker& worker) : worker_(worker) { events_.reserve(127); }

  // See TarnWatcher::watch(); `version`: as of which the object was read.
  void watch(std::uint64_t id, const CallBack& callBack, std::optional<std::uint64_t> version);
  void removeEvent(std::uint64_t id);
  // Returns when none of the client's callbacks runs, but those that the calling thread is in.
  void removeClient(const void* client);
  // The same for a client of this one object.
  void removeClient(const void* client, std::uint64_t id);
  TarnWatcherTargetLock* lockTarget(const void* client) { return targets_.getLock(client); }

  // The session has been connected anew: what has changed since it was closed cannot be told, so
  // all events that wait are called, as if their objects had changed. On the worker's thread.
  void callAll();

  // Called while an event is being signalled. Returns what keeps it.
  std::shared_ptr<TarnWatcherEvent> fired(TarnWatcherEvent& event);

  // Throws 111 when the calling thread is in a callback.
  static void VerifyOutsideCallbacks();
  // No callback is started any more, and no watch() begins. `wait`: returns when none is running
  // either, after VerifyOutsideCallbacks().
  void close(bool wait);

 private:
  using Event = std::shared_ptr<TarnWatcherEvent>;
  class Use;
  struct Execution;

  Event join(std::uint64_t id, const CallBack& callBack, bool& isNew, bool& isAdded);
  void arm(const Event& event);
  void callIfChanged(const Event& event, const CallBack& callBack, std::uint64_t version);
  void withdraw(const Event& event, const CallBack& callBack);
  Event takeIfEmpty(const Event& event);
  void giveUpIfEmpty(const std::vector<Event>& events, std::unique_lock<std::mutex> guard);
  void forget(const TarnWatcherEvent& event);
  void giveUp(const Event& event);
  void call(TarnWatcherEvent& event) noexcept;
  void execute(std::uint64_t id, TarnWatcherEvent::Calls calls);
  void executeCallbacks(std::uint64_t id, const TarnWatcherEvent::Calls& calls);
  void callOne(std::uint64_t id, const CallBack& callBack);
  void logFailure(std::uint64_t id, const char* why) noexcept;

  DatabaseWorker& worker_;
  Uint32ToTarnWatcherTargetMap targets_;

  std::mutex lock_;
  std::unordered_map<std::uint64_t, Event> events_;          // by identifier
  std::unordered_map<const TarnWatcherEvent*, Event> live_;  // all that the session may signal
  std::vector<Event>
      outlived_;  // given up while the session was being closed, which may signal them
  bool isClosed_ = false;
  std::size_t uses_ = 0;  // calls of watch(), and threads of callbacks
  std::condition_variable unused_;
};

}  // namespace tarns
