// What stands for one object in one session.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <goods/object_ref.h>

namespace goods {

class database;
class object;

// The identity of an object: it outlives the bodies (versions) that come and go behind it.
//
// An object is transient until a commit stores it: identifier 0, no database, its body changed in
// place by whoever holds it. A persistent object is found by its identifier through the session's
// handle_table; body() is then its committed version, null while not loaded, never changed in
// place.
//
// Ownership: counted by object_ref; the session's table holds persistent handles without counting
// and drops those that nobody counts when the cache is full. A handle that no reference counts and
// that is transient destroys its body and itself.
// Threads: any.
class GOODS_API object_handle {
 public:
  explicit object_handle(object* body) : body_(body) {}                         // transient
  object_handle(database& owner, object_id id) : id_(id), database_(&owner) {}  // persistent
  object_handle(const object_handle&) = delete;
  object_handle& operator=(const object_handle&) = delete;

  // The handle of a new object whose memory has room for it, `offset` bytes behind its beginning.
  static object_handle* construct_in(object* body, std::size_t offset);
  // Frees a handle, and the memory that it shares once the body in it has gone too.
  static void destroy(object_handle* handle) noexcept;
  // The body at `room` has been destroyed; its memory goes now or with the handle in it.
  static void leave_to_handle(void* room, std::size_t offset) noexcept;
  // The handle and what it keeps from being freed.
  std::size_t memory() const { return offset_ == 0 ? own_memory : own_memory + offset_; }

  object_id id() const { return id_.load(std::memory_order_acquire); }  // 0 while transient
  bool is_transient() const { return id() == 0; }
  database* owner() const { return database_.load(std::memory_order_acquire); }

  // Sequentially consistent: what is exchanged here is freed when no reader can have seen it (see
  // reader_section).
  object* body() const { return body_.load(); }
  void set_body(object* body) { body_.store(body); }
  object* exchange_body(object* body) { return body_.exchange(body); }

  // For a handle that somebody counts.
  void add_reference() { references_.fetch_add(1, std::memory_order_relaxed); }
  // Counts unless the session is just dropping the handle; then the caller looks it up again.
  bool try_add_reference();
  void remove_reference();
  bool is_referenced() const { return references_.load(std::memory_order_acquire) > 0; }
  bool is_referenced_once() const { return references_.load(std::memory_order_acquire) == 1; }
  bool is_retired() const { return references_.load(std::memory_order_acquire) < 0; }
  // Succeeds when nobody counts the handle; from then on try_add_reference() fails.
  bool try_retire();

  // Undoes that, as long as it can still be found.
  void revive() { references_.store(0, std::memory_order_release); }

  // Whether somebody counted it while a collection was going on, since this was asked last: whoever
  // looks at the handles one after the other may miss who passes from one to the next.
  bool take_noted() { return noted_.exchange(false); }
  bool is_noted() const { return noted_.load(); }

  // Set by readers, cleared by the hand of the cache's clock.
  void mark_used() {
    if (!used_.load(std::memory_order_relaxed)) used_.store(true, std::memory_order_relaxed);
  }
  bool take_used() { return used_.exchange(false, std::memory_order_relaxed); }

  // Whether some transaction of the session has a private copy of the object.
  bool is_being_written() const { return being_written_.load(std::memory_order_acquire); }
  void set_being_written(bool on) { being_written_.store(on, std::memory_order_release); }

  // A commit makes a transient object persistent, or takes that back when it fails. Until the
  // session takes the commit in, it is not known which.
  void become_persistent(database& owner, object_id id);
  void become_transient();
  bool is_being_made() const { return being_made_.load(std::memory_order_acquire); }
  void set_made() { being_made_.store(false, std::memory_order_release); }

  // Where attach_to_storage() wants a transient object to be placed; none by default.
  static constexpr storage_number no_storage = 0xFFFF;
  storage_number wanted_storage() const { return wanted_storage_; }
  void set_wanted_storage(storage_number storage) { wanted_storage_ = storage; }

 private:
  static constexpr std::size_t own_memory = 48;  // with what the allocator adds
  enum sharer : std::uint8_t { shared_by_handle = 1, shared_by_body = 2 };

  std::atomic<object_id> id_{0};
  std::atomic<object*> body_{nullptr};
  std::atomic<database*> database_{nullptr};  // outlives the handle
  std::atomic<std::int32_t> references_{0};   // negative once retired
  std::atomic<bool> used_{false};
  std::atomic<bool> being_written_{false};
  std::atomic<bool> noted_{false};  // see take_noted()
  std::atomic<bool> being_made_{false};
  storage_number wanted_storage_ = no_storage;
  std::uint16_t offset_ = 0;              // in memory shared with a body; 0: memory of its own
  std::atomic<std::uint8_t> sharers_{0};  // who has not gone yet
};
static_assert(sizeof(object_handle) <= 40, "a handle stands behind every cached object");

}  // namespace goods
