#pragma once

#include <goods/ref.h>
#include <tarns/core/TarnException.h>
#include <tarns/tarns_api.h>

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace goods {
class class_descriptor;
class object_handle;
}  // namespace goods

namespace tarns {

class TarnObject;

// Throws TarnException 12, which names the class of the object behind `handle` (not null), its path
// (or "<not a TarnObject>") and the class that it was to be used as.
[[noreturn]] TARNS_API void ThrowBadXcptRefTypecast(goods::object_handle* handle,
                                                    const goods::class_descriptor& target);

// Throws as above unless the object is a `target`, for which it is loaded when need be. Null is one
// of every class.
TARNS_API void VerifyRefClass(const goods::object_ref& reference,
                              const goods::class_descriptor& target);

// A counted reference to a persistent object of class T or of one derived from it.
//
//   node->getName(text)           reads: const members; the object stays in memory and unchanged
//                                 to the end of the expression
//   modify(node)->setName("b")    writes: any member; locks the object for the transaction, or is a
//   node.modify()->setName("b")   transaction of its own, committed at the end of the expression
//
// Conversion: to the same class or a base for free; to any other class the object is looked at.
// Errors: TarnException 0 for an access through null, 12 for an object of the wrong class, from 100
// on what the database reports. Hold no access (a named result of * or modify()) longer than
// needed. Threads: a reference is used by one thread at a time; what it refers to may be shared.
template <class T>
class xcptref : public goods::ref<T> {
 public:
  xcptref() = default;
  // NOLINTNEXTLINE(google-explicit-constructor): null is a reference
  xcptref(std::nullptr_t) {}
  // NOLINTNEXTLINE(google-explicit-constructor): `new T` goes into its first reference
  xcptref(T* body) : goods::ref<T>(body) {}
  xcptref(const xcptref&) = default;
  xcptref(xcptref&&) noexcept = default;
  xcptref& operator=(const xcptref&) = default;
  xcptref& operator=(xcptref&&) noexcept = default;
  ~xcptref() = default;

  template <class D>
  requires std::is_base_of_v<T, D>
  // NOLINTNEXTLINE(google-explicit-constructor): a reference to a derived class is one to the base
  xcptref(const goods::ref<D>& other) : goods::ref<T>(other) {}
  // Moving makes no handle for a reference that holds an identifier, which copying does.
  template <class D>
  requires std::is_base_of_v<T, D>
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  xcptref(goods::ref<D>&& other) : goods::ref<T>(std::move(other)) {}

  template <class U>
  requires(!std::is_base_of_v<T, U>)
      // NOLINTNEXTLINE(google-explicit-constructor): checked at once
      xcptref(const goods::ref<U>& other)
      : goods::ref<T>(Checked(other)) {}

  // From a reference without a type; checked at once.
  explicit xcptref(const goods::object_ref& other) : goods::ref<T>(Checked(other)) {}

  // The caller vouches for the class.
  static xcptref Trusted(goods::object_ref other) {
    return xcptref(goods::ref<T>::trusted(std::move(other)));
  }

  goods::read_access<T> operator->() const { return read(); }
  goods::read_access<T> operator*() const { return read(); }
  goods::read_access<T> read() const {
    if (this->is_null()) ThrowBadRef("NULL TarnRef read dereference");
    return goods::ref<T>::operator->();
  }
  goods::write_access<T> modify() const {
    if (this->is_null()) ThrowBadRef("NULL TarnRef write dereference");
    return goods::ref<T>::modify();
  }

  // Whether the object is a D; false for null. Never throws for a wrong class.
  template <class D>
  bool isA() const {
    return !this->is_null() && D::self_class.is_superclass_for(goods::class_of(*this));
  }

  bool isNull() const { return this->is_null(); }

 private:
  static goods::ref<T> Checked(const goods::object_ref& other) {
    goods::object_ref counted(other);
    VerifyRefClass(counted, T::self_class);
    return goods::ref<T>::trusted(std::move(counted));
  }
};

template <class T>
goods::write_access<T> modify(const xcptref<T>& reference) {
  return reference.modify();
}

// The name that messages use.
using TarnRef = xcptref<TarnObject>;

}  // namespace tarns

// By the identity of the object; for references that are used in one session.
template <class T>
struct std::hash<tarns::xcptref<T>> {
  std::size_t operator()(const tarns::xcptref<T>& reference) const {
    const goods::object_ref counted(reference);
    return std::hash<const void*>()(counted.handle());
  }
};
