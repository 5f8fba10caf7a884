// What a session keeps for one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "goods/known_objects.h"
#include "goods/locked_states.h"
#include "goods/transaction.h"

namespace goods {

class cache_manager;

// A thread's stay in a session: its transaction and how deep it is in accesses and reads.
//
// Threads: the attached thread's own; only the session's destructor touches it from outside, when
// no thread may use the session any more.
class thread_attachment {
 public:
  explicit thread_attachment(cache_manager& session) : session_(&session) {}

  cache_manager* session() const { return session_; }  // null once the session is gone
  void leave_session();

  // The open transaction, or null.
  transaction* open() const { return transaction_.get(); }
  // Opens one when there is none. `is_explicit`: lives until end_transaction() or abort. Throws
  // usage while the thread's own is taken away: all its transactions share its locks.
  transaction& open_or_join(bool is_explicit);
  // Takes it away; it rolls back when destroyed without a commit.
  std::unique_ptr<transaction> close() { return std::move(transaction_); }
  // The same to commit it, after what else belongs to the commit has been done; when that throws,
  // it is rolled back.
  std::unique_ptr<transaction> close_prepared();
  // Puts one back that was taken away.
  void reopen(std::unique_ptr<transaction> taken) { transaction_ = std::move(taken); }

  lock_owner& locks() { return locks_; }
  known_objects& known() { return known_; }
  locked_states& states() { return states_; }

  int accesses = 0;       // wrappers of persistent objects that are open
  int reads = 0;          // nested cache_manager::read()
  int library_calls = 0;  // nested, see library_call
  int pauses = 0;         // nested cache_manager::outside_transaction()
  // Write accesses that have ended without an exception, to stored and to transient objects.
  std::uint32_t stored_writes = 0;
  std::uint32_t transient_writes = 0;

 private:
  cache_manager* session_;
  lock_owner locks_;
  known_objects known_;  // of the transaction, as
  locked_states states_;
  std::unique_ptr<transaction> transaction_;
};

// The calling thread's stay in a session, or null.
thread_attachment* current_attachment();

}  // namespace goods
