#pragma once

#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <chrono>
#include <memory>

namespace tarns {

class TarnManagerPool;

// A session that takes its database from a pool for as long as it lives, with the calling thread
// attached to it:
//
//   TarnMeister session(pool);
//   TarnTransaction transaction(session);
//   session.set("accounts~1", 5);
//   transaction.commit();
//
// At its end an open transaction is rolled back, the thread is attached to what it was attached to
// before, and the database goes back to the pool. References to objects must be gone by then: the
// next user of the session works in the same cache.
// It cannot be connected to another database: that throws 111.
//
// Several may be nested, and end in any order: a thread whose session before has gone back to its
// pool, was closed or connected anew, is attached to what was before that one, or to nothing. But a
// thread that waits for a second session while it has one may wait for itself, see TarnManagerPool.
//
// Threads: made and destroyed by one thread; others may attach to it meanwhile, and must have left
// it at the end. Errors: as TarnManagerPool::checkOut(); 111 when the thread has a transaction open
// in another session.
class TARNS_API TarnMeister : public TarnManager {
 public:
  explicit TarnMeister(TarnManagerPool& pool);
  TarnMeister(TarnManagerPool& pool, std::chrono::milliseconds limit);
  ~TarnMeister() override;

  TarnDatabase& db() const override;
  // Throws 4 when the session was returned, or its database closed.
  void verifyIsInitialized() const override;
  const char* getDBconfigFilePath() const override;

  // Lets the pool close the session afterwards, and make another one in its place.
  void markBroken();
  // Returns the session before the end. No effect when it is returned already.
  void checkIn() noexcept;

  void connect(const char*, bool = false, const char* = nullptr) = delete;
  void connect(const char*, std::chrono::milliseconds, bool = false,
               const char* = nullptr) = delete;

 protected:
  void verifyMayConnect() const override;

 private:
  // What the thread comes back to.
  struct Stay;
  static std::shared_ptr<Stay> Begin();
  static void End(const std::shared_ptr<Stay>& stay);

  TarnManagerPool& pool_;
  std::shared_ptr<Stay> stay_;
  TarnManager* session_ = nullptr;  // the pool's; null once it is returned
};

}  // namespace tarns
