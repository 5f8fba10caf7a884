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
  std::size_t smallest = 0;  // sessions that are made at once, and kept
  std::size_t largest = 8;   // at least 1
  // For how long checkOut() waits for a session, and a new session for a database in use elsewhere.
  std::chrono::milliseconds wait{10'000};
  // Sessions beyond `smallest` that nobody has used for so long are closed when another one is
  // returned.
  std::chrono::milliseconds idle{60'000};
  // Called for each new session, on the thread that makes it: sets limits and the like. Each
  // session has an object cache of its own, of 256 MiB unless this says otherwise.
  std::function<void(TarnManager&)> prepare = {};
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
// last is handed out first, since its cache fits best.
//
// A session is broken when its database was closed, or when somebody says so (markBroken()); one
// that is returned broken is closed, and a new one takes its place when it is needed. What is wrong
// with the store itself, such as error 106, which asks for the database to be reopened, is cured by
// renew(), as soon as all sessions of the process on it have been returned.
//
// Ownership: the sessions are the pool's. Threads: all functions from any; the destructor shuts
// down and waits until all sessions are returned. The pool holds its mutex for moments only, and
// while it neither opens nor closes a session.
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
  // connecting throws where a session had to be made. See TarnMeister, which returns it as well.
  TarnManager& checkOut() { return checkOut(options_.wait); }
  TarnManager& checkOut(std::chrono::milliseconds limit);
  // Returns it. A transaction that the calling thread has open in it is rolled back, and the thread
  // detached; other threads must have left it. Throws 111 for what is not checked out of this pool.
  void checkIn(TarnManager& session);
  std::chrono::milliseconds getWait() const { return options_.wait; }
  // Lets the session, which is checked out, be closed when it is returned.
  void markBroken(TarnManager& session);
  // Lets all sessions be closed that exist now: those in use when they are returned.
  void renew();

  // Threads that wait, and come later, get error 4. Sessions that are idle are closed, those in use
  // when they are returned. Returns whether all have been within `limit`.
  bool shutDown(std::chrono::milliseconds limit = std::chrono::milliseconds(0));

  TarnPoolFigures getFigures() const;
  const char* getDBconfigFilePath() const { return configPath_.c_str(); }

 private:
  struct Session {
    std::unique_ptr<TarnManager> manager;
    std::uint64_t generation = 0;
    bool isBroken = false;
    std::chrono::steady_clock::time_point returned = {};
  };
  // A thread that waits; it is given a session, or the right to make one.
  struct Waiter {
    std::condition_variable given;
    Session session;
    bool mayMake = false;
  };
  enum class Wait { kGiven, kTimeOut, kShutDown };

  Session make() const;
  Session makeOrGiveUp();
  Session take(std::chrono::milliseconds limit);
  Wait waitFor(Waiter& waiter, std::chrono::milliseconds limit, std::unique_lock<std::mutex>& hold);
  TarnManager& handOut(Session session);
  void put(Session session);
  void discard(Session session);
  void giveNext();
  bool isUsable(const Session& session) const;
  std::vector<Session> takeStale();
  static void Close(std::vector<Session> sessions) noexcept;
  Session* find(const TarnManager& session);

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
  std::uint64_t generation_ = 0;
  bool isShutDown_ = false;
  TarnPoolFigures figures_;
};

}  // namespace tarns
