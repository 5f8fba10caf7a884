#pragma once

#include <tarns/tarns_api.h>

#include <cstdint>

namespace tarns {

class TarnManager;

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
  virtual ~TarnTransaction() noexcept(false);
  TarnTransaction(const TarnTransaction&) = delete;
  TarnTransaction& operator=(const TarnTransaction&) = delete;

  // Makes the changes durable (of an inner transaction: leaves them to the outer one). The
  // transaction is over afterwards, also when this throws. Throws when it is over already, or
  // when all has been rolled back (see above).
  void commit();
  // Drops the changes, of an outer transaction as well. No effect when the transaction is over.
  void rollback() noexcept;

 private:
  void begin();

  bool isTheOpenOne() const;

  int exceptions_ = 0;        // in flight when the transaction began
  std::uint64_t number_ = 0;  // of the thread's transaction
  bool isOpen_ = false;
};

}  // namespace tarns
