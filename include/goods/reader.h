// Looking at many objects at once.
#pragma once

#include <vector>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/ref.h>

namespace goods {

class cache_manager;
class transaction;

// What a function that reads several objects works through; see cache_manager::read().
//
// Pointers that it hands out stay valid while the reader lives, are of the class asked for, and
// belong to one state of the database: outside a transaction one that some commit left, inside one
// the transaction's own.
// Reading through it allocates nothing, unless an object has to be loaded, and counts nothing.
// Threads: the one that made it.
class GOODS_API reader {
 public:
  template <class T>
  const T* get(const ref<T>& reference) {
    return static_cast<const T*>(look(reference.word(), T::self_class));
  }
  template <class T>
  const T* get(const back_ref<T>& reference) {
    return static_cast<const T*>(look(reference.word(), T::self_class));
  }
  // The object behind `word`, checked to be a `cls`; null for the null reference. Throws
  // corrupt_data for another class, object_deleted for an identifier that nothing is stored under.
  const object* look(ref_word word, const class_descriptor& cls);

  // Whether the reading happens inside a transaction.
  bool in_transaction() const { return transaction_ != nullptr; }

 private:
  friend class cache_manager;
  friend class read_round;
  const object* look_persistent(ref_word word);
  const object* look_locked(ref_word word);

  cache_manager* session_ = nullptr;    // null: only transient objects can be looked at
  transaction* transaction_ = nullptr;  // the calling thread's, while one is open
  // What was read in a transaction: locks are waited for, and waiting in a section would keep all
  // threads' memory from being freed.
  struct pinned {
    object_ref keeps;  // the handle, which the body names without counting it
    const object* body;
  };
  std::vector<pinned> pinned_;
};

}  // namespace goods
