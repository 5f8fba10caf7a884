#pragma once

#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarns {

struct TarnPoolOptions {
  // Sessions that are made by the constructor. Idle ones are not closed below this number; what is
  // closed for another reason is made again when it is needed.
  std::size_t smallest = 0;
  std::size_t largest = 8;  // 1 to 10,000
  // For how long checkOut() waits. More than a year counts as a year, here and with all limits.
  std::chrono::milliseconds wait{10'000};
  // Sessions beyond `smallest` that nobody has used for so long are closed when another one is
  // returned: a pool that nobody uses keeps what it has.
  std::chrono::milliseconds idle{60'000};
  // Called for each new session, on the thread that makes it: sets limits and the like. Each
  // session has an object cache of its own, of 256 MiB unless this says otherwise. It may attach
  // the thread, which afterwards is where it was; so a check-out that has to call this throws 111
  // when the thread has a transaction open in another session.
  std::function<void(TarnManager&)> prepare = {};
  // Whether sessions connect with the extension libraries of the database, see TarnLibraries.
  bool loadDataLibraries = false;
  std::string libraryPath = {};  // empty: beside the configuration file
  bool supportDependencies = false;
};

// What a pool has, and what it did so far.
struct TarnPoolFigures {
  std::size_t inUse = 0, idle = 0;
  std::size_t waiting = 0;  // threads
  std::uint64_t checkOuts = 0;
  std::uint64_t waits = 0;     // check-outs that had to wait
  std::uint64_t timeOuts = 0;  // of these, in vain
  std::chrono::microseconds longestWait{0};
  std::uint64_t made = 0;      // sessions
  std::uint64_t replaced = 0;  // sessions that were closed because they were broken, or by renew()
};

// Sessions on one database for threads that need one now and then: making a session, and filling
// its cache, costs more than most of what is done in it.
//
//   TarnManagerPool pool("data/tarns.conf", {.largest = 8});
//   ...in any thread:
//   TarnMeister session(pool);  // waits for a session, attaches the thread
//   session.set("machines~press~speed", 40);
//
// Threads that wait get sessions in the order in which they came. The session that was returned
// last is handed out first, since its cache fits best. What its user has set of the lock time-out,
// the limits of the cache and of transactions, and the remembering of values is set back.
//
// A session is broken when its database was closed or connected anew, or when somebody says so
// (markBroken()); one that is returned broken is closed, and a new one takes its place when it is
// needed.
//
// A store that takes no commits any more until it is opened again (error 106) is shared by all
// sessions of the process. So the pool renews all of its sessions when one is returned, or would be
// handed out, and such a store is met: nobody gets a session before the last old one was returned
// and closed. Sessions outside of the pool that have the store open must be closed as well; until
// they are, the pool hands out sessions that can read. Call renew() then.
//
// A thread that has a session and waits for a second one may wait in vain: for itself where the
// largest number is 1 or the pool renews its sessions, for others that do the same where all
// sessions are in use. It gets error 5 after `wait`.
//
// Ownership: the sessions are the pool's. Threads: all functions from any; the destructor shuts
// down and waits until all sessions are returned, however long that takes: after a second, and then
// every minute, the log says which threads have taken them. So take them by TarnMeister, which
// gives them back whatever is thrown. The pool holds its mutex for moments only, and while it
// neither opens nor closes a session. After fork() the child must leave the pool alone, and may not
// destroy it: the sessions, and the threads that have them, are its parent's.
class TARNS_API TarnManagerPool {
 public:
  // Makes the smallest number of sessions; throws what TarnManager::connect() does, 105 among it,
  // and 111 for numbers that contradict each other.
  explicit TarnManagerPool(const char* configPath, TarnPoolOptions options = {});
  ~TarnManagerPool();
  TarnManagerPool(const TarnManagerPool&) = delete;
  TarnManagerPool& operator=(const TarnManagerPool&) = delete;

  // A session that nobody else has until it is returned; no thread is attached to it. Throws 5 when
  // none became free in time (0: at once), 4 when the pool is shut down, also meanwhile, and what
  // connecting throws where a session had to be made: 105 when the database is in use elsewhere for
  // what is left of the time. See TarnMeister, which returns it as well.
  TarnManager& checkOut() { return checkOut(options_.wait); }
  TarnManager& checkOut(std::chrono::milliseconds limit);
  // Returns it. A transaction that the calling thread has open in it is rolled back, and the thread
  // detached. Other threads must have left it: the pool cannot see them, and the next user would
  // share the session with them, and wait for what their transactions have locked.
  // Throws 111 for what is not checked out of this pool.
  void checkIn(TarnManager& session);
  std::chrono::milliseconds getWait() const { return options_.wait; }
  // Lets the session, which is checked out, be closed when it is returned.
  void markBroken(TarnManager& session);
  // Lets all sessions be closed that exist now: those in use when they are returned. Until then
  // nobody gets another one.
  void renew();

  // Threads that wait, and come later, get error 4. Sessions that are idle are closed, those in use
  // when they are returned. Returns whether all have been within `limit`.
  bool shutDown(std::chrono::milliseconds limit = std::chrono::milliseconds(0));

  TarnPoolFigures getFigures() const;
  const char* getDBconfigFilePath() const { return configPath_.c_str(); }

 private:
  using TimePoint = std::chrono::steady_clock::time_point;
  // What a user may set in a session.
  struct Settings {
    std::chrono::milliseconds lockTimeout{0};
    std::size_t transactionLimit = 0, cacheLimit = 0;
    bool remembersValues = true;
  };
  // A session, or without a manager the room for one that is to be made.
  struct Session {
    std::unique_ptr<TarnManager> manager;
    std::uint64_t generation = 0;  // of the pool when the room was given
    // Of what `manager` was connected to, since the session was last given to somebody.
    std::weak_ptr<goods::cache_manager> ticket = {};
    Settings settings = {};
    bool wasFailed = false;  // the store had failed before
    bool isBroken = false;
    TimePoint returned = {};
    long thread = 0;  // that it was given to, as the system numbers them
  };
  // A thread that waits; it is given a session, or the room for one.
  struct Waiter {
    std::condition_variable given;
    Session session;
    bool isGiven = false;
  };
  class Call;

  // Without the mutex.
  void make(Session& room, TimePoint deadline);
  void connect(TarnManager& manager, TimePoint deadline) const;
  void prepare(const Session& session) const;
  static Settings SettingsOf(const TarnManager& session);
  static void TidyUp(Session& session);
  Session take(std::chrono::milliseconds limit, TimePoint deadline, bool isFirst);
  Session takeBack(const TarnManager& session);
  TarnManager* handOut(Session session);
  void discard(Session session);
  void closeStale();
  // Under the mutex.
  void giveNext();
  void giveBackRoom(std::uint64_t generation);
  void startRenewal();
  void renewWhenFailed(const Session& session);
  void renewWhenCurable(const Session& session);
  bool isUsable(const Session& session) const;
  bool takeStale(Session& into);
  Session* find(const TarnManager& session);
  std::string describeHolders() const;

  // Fixed after construction.
  const std::string configPath_;
  const TarnPoolOptions options_;
  // Under lock_.
  mutable std::mutex lock_;
  std::condition_variable allReturned_;
  std::vector<Session> idle_;  // the one returned last is behind
  std::vector<Session> inUse_;
  std::list<Waiter*> waiters_;  // in the order in which they came
  std::size_t total_ = 0;       // idle, in use, and those that are being made or closed
  std::size_t old_ = 0;         // of these, of former generations: nothing is given until it is 0
  std::size_t calls_ = 0;       // threads in checkOut()
  std::uint64_t generation_ = 0;
  bool isShutDown_ = false;
  TarnPoolFigures figures_;
};

}  // namespace tarns
