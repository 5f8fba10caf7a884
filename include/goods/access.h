// An object held for reading or writing, for as long as the access lives.
#pragma once

#include <cstdint>
#include <exception>
#include <utility>

#include <goods/errors.h>
#include <goods/object.h>
#include <goods/object_ref.h>

namespace goods {

class metaobject;
class thread_attachment;

// Throws corrupt_data unless `body` is an `expected`: what a stored reference leads to may be of
// any class.
GOODS_API void check_body(const object& body, const class_descriptor& expected);
[[noreturn]] GOODS_API void throw_written_too_late(const object& body);

// A call that changes several things which belong together, while it lives; write accesses are such
// calls, too. When an exception leaves it after something has been changed, the transaction that is
// open must not be committed with that half: it is rolled back and gives up its locks at once. It
// stays open until its scope ends, and whatever is called in it until then, and its end, throws an
// error that tells why. Its code is that of the failure as far as the storage reported that, else
// usage. A call that fails before it has changed anything leaves the transaction as it was.
// "Changed" means that a write access has ended without an exception, or was left by one when the
// stored object that it wrote was not what is committed: with half of a change, perhaps, that could
// not be told from what an earlier access had changed. Changes to transient objects count when such
// an access has ended well, if the transaction had changed something before.
// Threads: made and destroyed by the same thread.
class GOODS_API changing_call {
 public:
  changing_call();
  ~changing_call();
  changing_call(const changing_call&) = delete;
  changing_call& operator=(const changing_call&) = delete;

  // Says in a handler which exception is leaving the call.
  void failed(const error_info& error) const noexcept;

 private:
  bool has_changed() const;

  const int exceptions_ = std::uncaught_exceptions();
  const thread_attachment* thread_;
  std::uint32_t stored_before_ = 0;
  std::uint32_t transient_before_ = 0;
  bool counts_transient_ = false;
};

// Reads one object: the version current when the access began stays unchanged and in memory until
// the access ends. Usually a temporary made by ref<T>::operator->.
// Threads: made and destroyed by the same thread.
class GOODS_API read_access_base {
 public:
  explicit read_access_base(object_ref reference);  // not null
  // Outside an explicit transaction the end of the outermost access may have to commit (a read of
  // one object during which another was written) and throws when that fails.
  ~read_access_base() noexcept(false);
  read_access_base(const read_access_base&) = delete;
  read_access_base& operator=(const read_access_base&) = delete;

 protected:
  const object* body() const { return body_; }
  void check(const class_descriptor& expected) const { check_body(*body_, expected); }

 private:
  object_ref reference_;
  int exceptions_ = std::uncaught_exceptions();
  metaobject* scheme_ = nullptr;  // null for an access to a transient object
  const object* body_;
};

// Writes one object: locks it exclusively and hands out the transaction's private copy.
// An access may outlive the explicit transaction that it was made in, but not be used any more:
// what it would change is committed, or dropped. That throws usage.
class GOODS_API write_access_base {
 public:
  explicit write_access_base(object_ref reference);  // not null
  ~write_access_base() noexcept(false);
  write_access_base(const write_access_base&) = delete;
  write_access_base& operator=(const write_access_base&) = delete;

 protected:
  object* body() const {
    if (body_->is_closed()) throw_written_too_late(*body_);
    return body_;
  }
  void check(const class_descriptor& expected) const { check_body(*body_, expected); }

 private:
  const changing_call call_;
  object_ref reference_;
  int exceptions_ = std::uncaught_exceptions();
  metaobject* scheme_ = nullptr;  // null for an access to a transient object
  object* body_;
};

template <class T>
class read_access : public read_access_base {
 public:
  // Throws corrupt_data when the reference leads to something else than a T.
  explicit read_access(object_ref reference) : read_access_base(std::move(reference)) {
    check(T::self_class);
  }
  const T* operator->() const { return static_cast<const T*>(body()); }
  const T& operator*() const { return *static_cast<const T*>(body()); }
};

template <class T>
class write_access : public write_access_base {
 public:
  // Throws corrupt_data when the reference leads to something else than a T.
  explicit write_access(object_ref reference) : write_access_base(std::move(reference)) {
    check(T::self_class);
  }
  T* operator->() const { return static_cast<T*>(body()); }
  T& operator*() const { return *static_cast<T*>(body()); }
};

// The class of the object (loaded for it when need be), which must not be null.
GOODS_API class_descriptor& class_of(const object_ref& reference);

// Throws bad_typecast unless the object is a `target`; null is one of every class.
GOODS_API void check_class(const object_ref& reference, const class_descriptor& target);

}  // namespace goods
