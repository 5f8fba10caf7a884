// An object held for reading or writing, for as long as the access lives.
#pragma once

#include <exception>
#include <utility>

#include <goods/object.h>
#include <goods/object_ref.h>

namespace goods {

// Reads one object: the version current when the access began stays unchanged and in memory until
// the access ends. Usually a temporary made by ref<T>::operator->.
// Threads: made and destroyed by the same thread.
class GOODS_API read_access_base {
 public:
  explicit read_access_base(object_handle* handle);  // requires a non-null handle
  // Outside an explicit transaction the end of the outermost access may have to commit (a read of
  // one object during which another was written) and throws when that fails.
  ~read_access_base() noexcept(false);
  read_access_base(const read_access_base&) = delete;
  read_access_base& operator=(const read_access_base&) = delete;

 protected:
  const object* body() const { return body_; }

 private:
  object_ref reference_;
  int exceptions_ = std::uncaught_exceptions();
  const object* body_;
};

// Writes one object: locks it exclusively and hands out the transaction's private copy.
class GOODS_API write_access_base {
 public:
  explicit write_access_base(object_handle* handle);
  ~write_access_base() noexcept(false);
  write_access_base(const write_access_base&) = delete;
  write_access_base& operator=(const write_access_base&) = delete;

 protected:
  object* body() const { return body_; }

 private:
  object_ref reference_;
  int exceptions_ = std::uncaught_exceptions();
  object* body_;
};

template <class T>
class read_access : public read_access_base {
 public:
  using read_access_base::read_access_base;
  const T* operator->() const { return static_cast<const T*>(body()); }
  const T& operator*() const { return *static_cast<const T*>(body()); }
};

template <class T>
class write_access : public write_access_base {
 public:
  using write_access_base::write_access_base;
  T* operator->() const { return static_cast<T*>(body()); }
  T& operator*() const { return *static_cast<T*>(body()); }
};

// Throws bad_typecast unless the object behind `handle` (loaded for it when need be) is a `target`.
GOODS_API void check_class(object_handle* handle, const class_descriptor& target);

}  // namespace goods
