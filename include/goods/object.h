// The base of all persistent classes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include <goods/object_ref.h>

namespace goods {

class class_descriptor;
class database;
class event;
class field_descriptor;
class object_handle;
class byte_reader;
class byte_writer;

// Is shown every reference of an object, in the order of the stored form.
class ref_visitor {
 public:
  virtual ~ref_visitor() = default;
  virtual void visit(ref_word& word, ref_kind kind) = 0;
};

// Bytes that a body gets beyond its C++ class, zeroed; see class_descriptor.h.
struct extra_room {
  std::size_t bytes;
};

// Bytes that a new object gets beyond its C++ class, not zeroed.
struct room_behind {
  std::size_t bytes;
};

// One version of a persistent object: a C++ object whose persistent members its class descriptor
// knows. Reach it through ref<T>; see ref.h for reading and writing.
//
// Which members are persistent is declared by field descriptors (name, type, size, count, offset).
// A class whose stored state has a part of varying length (a text, the entries of an index page)
// also overrides the functions named ..._varying(), which must agree with the fields of count 0
// that its descriptor declares.
//
// Ownership: bodies are counted by pins: one for the handle, one for each access in progress.
// Threads: a committed body is never changed; a transient or private one belongs to one thread.
class GOODS_API object {
 public:
  // Makes the body of a new transient object, and its handle. Give it to a ref at once.
  explicit object(class_descriptor& cls);
  // Makes one more version of the object behind `handle` (what a class descriptor's constructor
  // function is called for); null for a prototype that is never stored.
  object(object_handle* handle, class_descriptor& cls);
  virtual ~object();
  object(const object&) = delete;
  object& operator=(const object&) = delete;

  static class_descriptor self_class;  // the base of all; has no members

  // `new T` of a small class takes memory for the object and its handle in one piece, which is
  // freed when both have gone. The other forms are for versions beside a handle that there is.
  static void* operator new(std::size_t size) { return allocate_with_handle(size); }
  static void* operator new(std::size_t size, room_behind room) {
    return allocate_with_handle(size + room.bytes);
  }
  static void* operator new(std::size_t size, extra_room extra) {
    void* room = version_room(size + extra.bytes);
    std::memset(static_cast<char*>(room) + size, 0, extra.bytes);
    return room;
  }
  static void* operator new(std::size_t, void* room) { return room; }
  // Where such a version lies: on the heap, or in the arena of the guest that is just being made.
  static void* version_room(std::size_t bytes);
  static void operator delete(void* room) { ::operator delete(room); }
  static void operator delete(void* room, extra_room) { release_version_room(room); }
  static void operator delete(void* room, room_behind) { ::operator delete(room); }
  static void operator delete(void*, void*) {}

  object_handle* handle() const { return handle_; }
  // Whether the memory of the instance belongs to a handle as well.
  bool lies_with_handle() const { return handle_offset_ != 0; }
  class_descriptor& cls() const { return *cls_; }

  // The persistent members of this class and its bases, as a circular list; null for none.
  virtual field_descriptor* describe_components() { return nullptr; }

  // The varying part. `self` is the object's own identifier, which references are stored relative
  // to.
  virtual void pack_varying(byte_writer& out, object_id self) const;
  // `in` holds what pack_varying() of the stored layout wrote; throws corrupt_data when it does
  // not.
  virtual void unpack_varying(byte_reader& in, object_id self);
  virtual void copy_varying(const object& from);
  virtual void visit_varying(ref_visitor& visitor);
  virtual std::size_t varying_bytes() const { return 0; }  // heap memory beyond the instance

  // Places this transient object in a certain storage of the database that it will be stored in,
  // which throws when it has no such storage. Throws usage for 65535 and more.
  void attach_to_storage(database* db, std::uint32_t storage);
  // Places this transient object beside `other`: in the same storage and, where they are stored by
  // the same commit, with a number near it. No effect on a stored object.
  void cluster_with(const object_ref& other);

  // Takes over the identity of `other`: every reference to `other` sees this object's content from
  // now on. This object must be transient and of the same class; references to it lead to nothing
  // afterwards. Part of the calling thread's transaction: rolled back, everything is as before.
  void become(const object_ref& other);
  // For transactions: ends being a version of another object and is `handle`'s transient body.
  void return_to(object_handle& handle) noexcept;

  // Signals `when` once, when a commit has changed this stored object and its session has taken
  // that in; see cache_manager::signal_on_modification(), also for how to withdraw it. Throws usage
  // for an object that is not stored.
  void signal_on_modification(event* when) const;

  void pin() const { pins_.fetch_add(1, std::memory_order_relaxed); }
  bool is_pinned_once() const { return pins_.load(std::memory_order_acquire) == 1; }
  void unpin() const;  // destroys the body when it was the last

  // Ends writing to this version: it has been committed, or its transaction is over.
  void close() { closed_ = true; }
  bool is_closed() const { return closed_; }

  // Set by a change after which a path that led to some object may lead elsewhere (an entry
  // removed, an index exchanged); remembered paths are dropped when the change is published.
  void note_relinked() { relinked_ = true; }
  bool take_relinked() { return std::exchange(relinked_, false); }

 private:
  static void release_version_room(void* room);
  static void* allocate_with_handle(std::size_t size);
  object_handle* make_handle();
  void destroy() const;

  std::uint16_t handle_offset_ = 0;  // where a handle lies in this object's memory; 0: nowhere
  bool relinked_ = false;
  bool closed_ = false;
  mutable std::atomic<std::uint32_t> pins_{1};
  object_handle* handle_;
  class_descriptor* cls_;
};

}  // namespace goods
