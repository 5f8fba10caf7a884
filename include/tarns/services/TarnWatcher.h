#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/logging/CallBack.h>
#include <tarns/services/DatabaseWorker.h>
#include <tarns/services/TarnWatch.h>
#include <tarns/services/TarnWatcherTarget.h>
#include <tarns/tarns_api.h>

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>

namespace tarns {

class WatchedEvents;

// Calls an application back, once, when an object is next modified by a commit of any session of
// the process.
//
//   TarnWatcher::Initialize("data/tarns.conf");
//   const std::uint64_t id = manager.getObjectID("machines~press");
//   const std::uint64_t version = manager.getVersion(id);
//   ... read what is there ...
//   const TarnWatch watch = TarnWatcher::GetWatcher()->watch(id, [] { ... }, version);
//
// What modifies a node: a commit that writes the node or a text member of it (so setting its value
// counts), adds, removes, renames or exchanges one of its children, gives it another name or
// parent, or removes it: deleting a node takes its parent from it, and what only hung below a
// deleted node is removed by a collection. What happens to its children and below has no part in
// it; for that there is TarnBranchWatch. A change that a commit takes back, so that all is as it
// was, is one as well. The transaction of the thread that calls watch() has no part in it: only
// what is committed is watched, and only commits count.
//
// Callbacks: each firing runs its callbacks, in the order of their registration, on a new thread
// with a stack of 256 KiB, which is attached to no session. They may do anything, also watch again,
// but wait for the watcher's end. When they begin, every session that reads sees the modification.
// A callback of a client runs only while the client is registered, from its first watch() to
// removeAllEventsForClient(); a plain function always runs. What a callback throws is logged with
// the object's path.
// Nothing is lost between reading and watching for who passes the version that the object was read
// at (or a lower one: taken before reading): a modification since then calls back at once. It also
// does when that cannot be told, since it is too long ago.
//
// When the store takes no commits any more (error 106) the watcher closes its session, so that it
// does not keep anybody from opening the store again, and connects anew once nobody has it open.
// All that waits is called back then, since it may have changed; in between watch() and
// Initialize() throw 106.
//
// Ownership: one watcher for the process. Threads: any; Initialize() and Destroy() exclude each
// other, and nobody may use the watcher that is being destroyed but its callbacks and handles.
// Errors: XException for identifier 0; those of TarnManager::getObject(), so 108 for an object that
// is not there (any more); 111 once the watcher has been terminated.
class TARNS_API TarnWatcher {
 public:
  ~TarnWatcher();
  TarnWatcher(const TarnWatcher&) = delete;
  TarnWatcher& operator=(const TarnWatcher&) = delete;

  // Makes the watcher, with a session of its own on this database, unless there is one; one that is
  // being destroyed counts for its callbacks.
  static void Initialize(const char* configPath);
  static bool IsInitialized();
  static TarnWatcher* GetWatcher();  // null when there is none
  // Ends it, if there is one: events that wait are forgotten; returns when no callback runs any
  // more. Throws 111 within a callback.
  static void Destroy();

  // Call back when the object is modified next. On one object, equal callbacks (with equal
  // arguments) are registered once. Return when the object is being watched: every later commit
  // counts; one that goes on meanwhile may.
  void watch(std::uint64_t id, CallBack::Function function, const void* argument);
  void watch(std::uint64_t id, CallBack::Function function, const void* argument,
             std::uint64_t version);
  void watch(std::uint64_t id, XObject* client, CallBack::Method method, const void* argument);
  void watch(std::uint64_t id, XObject* client, CallBack::Method method, const void* argument,
             std::uint64_t version);
  template <std::derived_from<XObject> T>
  void watch(std::uint64_t id, T* client, void (T::*method)(const void*), const void* argument) {
    watch(id, CallBack(client, method, argument), nullptr);
  }
  template <std::derived_from<XObject> T>
  void watch(std::uint64_t id, T* client, void (T::*method)(const void*), const void* argument,
             std::uint64_t version) {
    watch(id, CallBack(client, method, argument), &version);
  }
  // The same until the handle goes.
  [[nodiscard]] TarnWatch watch(std::uint64_t id, std::function<void()> function);
  [[nodiscard]] TarnWatch watch(std::uint64_t id, std::function<void()> function,
                                std::uint64_t version);

  // Lets no further callback join the event of this object: the next watch() begins another one.
  // The callbacks that it has are still called when the object is modified.
  void removeEvent(std::uint64_t id);

  // Withdraws all callbacks of a client, and returns when none of them runs, and none will. Within
  // one of them it does not wait for that one, nor for others that are in this call as well.
  // Clients whose callbacks remove each other wait for ever. A client must do this before it is
  // destroyed. Pass the address as an XObject where that is another one.
  void removeAllEventsForClient(const void* client);
  void removeAllEventsForClient(const XObject* client) {
    removeAllEventsForClient(static_cast<const void*>(client));
  }

  // Keeps the client registered while the lock lives, which is the caller's to delete; null when it
  // is not registered.
  TarnWatcherTargetLock* lockTarget(const void* client);

  // Events that wait are forgotten, and nothing more can be watched. `wait`: returns when no
  // callback runs, and the worker has ended; throws 111 within a callback.
  void terminate(bool wait);

  // The request that has the worker watch for a TarnWatcherEvent.
  static void SignalEvent(TarnManager& manager, const void* event);

  // Makes the node count as modified when the calling thread's transaction, or the call's own,
  // commits: writes it as it is.
  static void SetModified(xcptref<TarnObject> node);

 protected:
  explicit TarnWatcher(const char* configPath);

  // `version`: null for none.
  void watch(std::uint64_t id, const CallBack& callBack, const std::uint64_t* version);

 private:
  TarnWatch watchFor(std::uint64_t id, std::function<void()> function,
                     const std::uint64_t* version);

  std::unique_ptr<DatabaseWorker> worker_;
  std::shared_ptr<WatchedEvents> events_;
};

}  // namespace tarns
