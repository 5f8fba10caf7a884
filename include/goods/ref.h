// Typed references and the two ways through them.
#pragma once

#include <type_traits>

#include <goods/access.h>
#include <goods/errors.h>
#include <goods/object_ref.h>

namespace goods {

// A counted reference to a T.
//
//   r->name()            reads: const members of T, see read_access
//   modify(r)->rename()  writes: any member of T, see write_access
//
// The class of a referenced object is checked when the object is looked at, so copying is cheap.
// Making a ref<T> from a reference to something else than a T or a class derived from T takes
// checked_cast<T>() or tarns::xcptref.
template <class T>
class ref : public object_ref {
 public:
  using element_type = T;
  ref() = default;
  // NOLINTBEGIN(google-explicit-constructor): null is a reference, `new T` goes into its first one,
  // a reference to a derived class is one to the base
  ref(std::nullptr_t) {}
  ref(T* body) : object_ref(body == nullptr ? nullptr : body->handle()) {}
  ref(const ref&) = default;
  ref(ref&&) noexcept = default;
  ref& operator=(const ref&) = default;
  ref& operator=(ref&&) noexcept = default;
  template <class D>
  requires std::is_base_of_v<T, D> ref(const ref<D>& other) : object_ref(other) {}
  template <class D>
  requires std::is_base_of_v<T, D> ref(ref<D>&& other) : object_ref(std::move(other)) {}
  // NOLINTEND(google-explicit-constructor)

  // The caller vouches for the class (it is checked again at every look through reader).
  static ref trusted(object_ref other) {
    ref result;
    result.swap(other);
    return result;
  }

  read_access<T> operator->() const { return read_access<T>(checked()); }
  read_access<T> operator*() const { return read_access<T>(checked()); }
  write_access<T> modify() const { return write_access<T>(checked()); }

 private:
  object_ref checked() const {
    if (is_null()) throw_error(error_code::null_reference, "A null reference was dereferenced.");
    return *this;
  }
};

template <class T>
write_access<T> modify(const ref<T>& reference) {
  return reference.modify();
}

// Loads the object and checks its class; throws bad_typecast.
template <class T>
ref<T> checked_cast(object_ref reference) {
  check_class(reference, T::self_class);
  return ref<T>::trusted(std::move(reference));
}

// The calling thread's transaction refers back to a stored object: that stays where it is to the
// end of the transaction, whose commit is refused when it is gone already.
GOODS_API void note_back_reference(const object_ref& target);

// A member that points back to what holds its object (the entry that links a node into an index,
// the index an entry stands in). Stored like any reference, but it keeps nothing alive: a transient
// tree would otherwise never be freed. When a transient target goes away it clears the back
// references of what it held.
template <class T>
class back_ref {
 public:
  back_ref() = default;
  back_ref(const back_ref&) = delete;
  back_ref& operator=(const back_ref&) = delete;
  // In a transaction that is open it is checked by the commit as other references are, also when it
  // is cleared again. A member of a new object that is set before does not keep its target: whether
  // there is one of that number is checked when the object is stored.
  void set(const ref<T>& target) {
    const object_id id = target.id();
    if (id != 0) note_back_reference(target);
    word_ = id != 0 ? ref_word::of(id) : target.word();
  }
  void clear() { word_ = ref_word(); }
  bool is_null() const { return word_.is_null(); }
  ref_word word() const { return word_; }
  // A counted reference to the target, or null.
  ref<T> get() const;

 private:
  ref_word word_;
};

// Turns a word found in a body into a counted reference.
GOODS_API object_ref to_reference(ref_word word);

template <class T>
ref<T> back_ref<T>::get() const {
  return ref<T>::trusted(to_reference(word_));
}

}  // namespace goods
