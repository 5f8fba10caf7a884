// How accesses to the objects of a class are synchronised.
#pragma once

#include <atomic>
#include <cstdint>

#include <goods/goods_api.h>

namespace goods {

class cache_manager;
class object;
class object_handle;

// How strongly a transaction was isolated; pessimistic transactions are always serialisable.
enum isolation_level { read_committed, repeatable_read, serializable };

// The locking scheme of a class: told of every access that begins and ends.
//
// A scheme has no state of its own: what is locked and copied belongs to the calling thread's
// transaction (transaction.h).
class GOODS_API metaobject {
 public:
  virtual ~metaobject() = default;

  // Returns the version to be read or written, loaded and pinned. The write form locks the object
  // exclusively and returns the transaction's private copy.
  virtual const object* begin_read_access(object_handle& handle) = 0;
  virtual object* begin_write_access(object_handle& handle) = 0;

  // Ends an access. When it was the thread's outermost one, outside an explicit transaction, what
  // was written is committed (throws what went wrong) or, with `failed`, rolled back (never
  // throws).
  virtual void end_read_access(object_handle& handle, const object* body, bool failed) = 0;
  virtual void end_write_access(object_handle& handle, object* body, bool failed) = 0;

  // Explicit transactions of the calling thread; begins nest and join. end_transaction() commits
  // when it closes the outermost one.
  virtual void begin_transaction() = 0;
  virtual isolation_level end_transaction() = 0;
  virtual void abort_transaction() = 0;
};

// Reads lock shared, writes lock exclusively, to the end of the transaction; reads outside
// transactions lock nothing and see what is committed.
class GOODS_API pessimistic_metaobject : public metaobject {
 public:
  const object* begin_read_access(object_handle& handle) override;
  object* begin_write_access(object_handle& handle) override;
  void end_read_access(object_handle& handle, const object* body, bool failed) override;
  void end_write_access(object_handle& handle, object* body, bool failed) override;
  void begin_transaction() override;
  isolation_level end_transaction() override;
  void abort_transaction() override;

  // Whether a transaction that reads an object and later writes it ends the process: two that do so
  // at a time must end in a deadlock, which goes unnoticed in tests. Only what the application does
  // in transactions that it began itself counts, and only accesses through references: its own and
  // those of calls that go through a node (children(), getChildNames(), getNumChildren()), not
  // look-ups by path and what calls that write read first. Off by default.
  static std::atomic<bool> abort_on_read_lock_promotion;
};

extern GOODS_API pessimistic_metaobject pessimistic_scheme;

}  // namespace goods
