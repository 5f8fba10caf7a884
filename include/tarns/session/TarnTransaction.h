#pragma once

#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>
#include <tarns/util/XStringList.h>

#include <concepts>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace tarns {

// A transaction of the calling thread, from the constructor to commit(), rollback() or the end of
// the scope. Its reads lock shared, its writes exclusively, to the end; what others committed
// before a lock was taken is seen, what it writes is seen by others once it is committed.
//
//   TarnTransaction transaction(manager);
//   manager.set("accounts~1", manager.getSint64("accounts~1") - 5);
//   manager.set("accounts~2", manager.getSint64("accounts~2") + 5);
//   transaction.commit();
//
// One inside another joins it: nothing is durable before the outer one commits, and a rollback is
// of the whole. The end of the scope commits, and throws when that fails; left by an exception it
// rolls back.
//
// A call in a transaction that throws has changed nothing, and the transaction goes on, or it ends
// the transaction: after a deadlock or a lock time-out (100, 101), after a call that failed halfway
// and after the rollback of an inner transaction everything is rolled back and all locks are given
// up at once. Until the outermost scope ends, whatever is called in it then throws what went wrong,
// with the code of that (111 for an inner rollback and for failures that are not the storage's);
// nothing is committed on its own.
//
// Errors: besides the storage's own (100, 101, ...) 110 on a thread that is not attached, 111 on
// one with a transaction open in another session. Threads: made and ended by the same one.
class TARNS_API TarnTransaction {
 public:
  TarnTransaction();  // in the session that the thread is attached to
  // Attaches the thread first, and leaves it attached.
  explicit TarnTransaction(TarnManager& manager);
  // Attaches the thread and locks nodes for writing before anything else is done, which is what
  // keeps transactions from deadlocks: see Lock(). Null paths are left out. `physical`: the paths
  // are made physical first. Both throw what Lock() and ToPhysical() throw; no transaction is left
  // open then. The first form reads physical paths before it attaches the thread, which must be
  // attached already for that (110 otherwise); the second changes the caller's list.
  TarnTransaction(TarnManager& manager, bool physical, const char* p1, const char* p2 = nullptr,
                  const char* p3 = nullptr, const char* p4 = nullptr, const char* p5 = nullptr,
                  const char* p6 = nullptr, const char* p7 = nullptr, const char* p8 = nullptr,
                  const char* p9 = nullptr, const char* p10 = nullptr);
  TarnTransaction(TarnManager& manager, bool physical, XStringList& paths);
  virtual ~TarnTransaction() noexcept(false);
  TarnTransaction(const TarnTransaction&) = delete;
  TarnTransaction& operator=(const TarnTransaction&) = delete;

  // Makes the changes durable (of an inner transaction: leaves them to the outer one). The
  // transaction is over afterwards, also when this throws. Throws when it is over already, or
  // when all has been rolled back (see above).
  void commit();
  // Drops the changes, of an outer transaction as well. No effect when the transaction is over.
  void rollback() noexcept;

  // Attaches the thread, runs `work` as one transaction, joining the one that is open, and returns
  // its result. Repeats it, from its beginning, after a deadlock, so it should have no effect but
  // on the database. An exception rolls back.
  template <std::invocable Work>
  static std::invoke_result_t<Work&> Run(TarnManager& manager, Work&& work) {
    AttachTo(manager);
    return manager.transaction(std::forward<Work>(work));
  }

  // Locks nodes for writing in the open transaction, in ascending order of their paths: adds to the
  // list the hierarchical lockers of the paths in it (see TarnCacheManager), sorts it and locks
  // each node that exists, calling touch() on it. Nodes that do not exist are skipped. Two threads
  // that lock everything they need in this way do not end in a deadlock. A node that nothing else
  // is done with is not written by the commit.
  static void Lock(TarnManager& manager, XStringList& paths);

  // Exchanges each path for the one way from the root to its node, leaving out what does not exist,
  // and returns how many were different. A path whose node has no such way stays, with a warning in
  // the log. Reads what is committed.
  static unsigned long ToPhysical(TarnManager& manager, XStringList& paths);

  // The order of Lock(): that of paths.
  static int CompareQsort(const XString** left, const XString** right);

 private:
  static void AttachTo(TarnManager& manager);
  void begin();
  void beginLocked(TarnManager& manager, XStringList& paths, bool physical = false);

  bool isTheOpenOne() const;

  int exceptions_ = 0;        // in flight when the transaction began
  std::uint64_t number_ = 0;  // of the thread's transaction
  bool isOpen_ = false;
};

}  // namespace tarns
