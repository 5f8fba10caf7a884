// Looking at many objects at once.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/ref.h>

namespace goods {

class cache_manager;
class guest_list;
class transaction;

// Neighbours in one storage.
struct stored_neighbours {
  storage_number storage = 0;
  neighbours objects;
  object_id first() const { return make_object_id(storage, objects.group * neighbours::most); }
};

// The stored objects that were looked at: what the result depends on. Neighbours are kept together,
// in the order in which their groups were met.
class passed_objects {
 public:
  static constexpr std::size_t most = 20;  // groups

  // Empty when there were more.
  std::span<const stored_neighbours> all() const {
    return {groups_.data(), count_ <= most ? count_ : 0};
  }

  void add(object_id id) {
    const object_number group = neighbours::group_of(number_of(id));
    for (std::size_t i = std::min(count_, most); i-- > 0;) {
      stored_neighbours& known = groups_[i];
      if (known.objects.group != group || known.storage != storage_of(id)) continue;
      known.objects.members |= neighbours::member_of(number_of(id));
      return;
    }
    if (count_ > most) return;
    if (count_ < most) {
      groups_[count_] = {storage_of(id), {group, neighbours::member_of(number_of(id))}};
    }
    ++count_;
  }

 private:
  std::array<stored_neighbours, most> groups_;
  std::size_t count_ = 0;
};

// What a function that reads several objects works through; see cache_manager::read().
//
// Pointers that it hands out stay valid while the reader lives, are of the class asked for, and
// belong to one state of the database: outside a transaction one that some commit left, inside one
// the transaction's own. Within a guest_scope two looks at one object may give two bodies of the
// same content: compare words, not pointers.
// Reading through it allocates nothing, unless an object has to be loaded, and counts nothing.
// Threads: the one that made it.
class GOODS_API reader {
 public:
  reader();
  ~reader();
  reader(const reader&) = delete;
  reader& operator=(const reader&) = delete;

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

  // Within a guest_scope: loads at once what the next calls of look() will ask for and the session
  // does not have in memory. Only a hint; null references are allowed. No effect elsewhere.
  void prefetch(std::span<const ref_word> words);

  // Within a guest_scope: says what will be looked at some time after that, in about this order, so
  // that storages can begin to read it. Only a hint; null references are allowed.
  void expect(std::span<const ref_word> words);

  // Whether the reading happens inside a transaction.
  bool in_transaction() const { return transaction_ != nullptr; }

 private:
  friend class cache_manager;
  friend class guest_room;
  friend class guest_scope;
  friend class passing_scope;
  friend class read_round;
  const object* look_persistent(ref_word word);
  const object* look_in_passing(ref_word word);
  guest_list& guests();
  const object* look_in_cache(ref_word word, object_id id) const;

  cache_manager* session_ = nullptr;    // null: only transient objects can be looked at
  transaction* transaction_ = nullptr;  // the calling thread's, while one is open
  passed_objects* passed_ = nullptr;    // see passing_scope
  std::unique_ptr<guest_list> guests_;  // null until there is one
  bool invites_guests_ = false;         // see guest_scope
  bool keeps_second_looks_ = false;
  bool is_passing_ = false;
  bool keeps_what_it_loads_ = false;  // a round that was repeated too often
};

// While it lives, the reader looks at objects in passing: what is not in the session's cache is
// loaded as a guest of this reader, without handle and place in the cache, and goes with it. For
// what is read once among much, as in a walk: the cache keeps what is used again, and the cost of a
// handle, a place and their removal later is spared.
// Classes that may not be guests are looked at as always, and so is inside a transaction all but
// what is passed `at_first`, which is locked there as everything else.
class GOODS_API guest_scope {
 public:
  enum class policy : std::uint8_t {
    always,
    at_first,  // what was a guest lately gets its place in the cache
    once       // of very much: storages need not remember it either
  };

  explicit guest_scope(reader& in, policy how = policy::always)
      : in_(in),
        invited_before_(in.invites_guests_),
        kept_before_(in.keeps_second_looks_),
        passing_before_(in.is_passing_) {
    in.invites_guests_ = !in.keeps_what_it_loads_ && !in.in_transaction();
    in.keeps_second_looks_ = how == policy::at_first;
    in.is_passing_ = how == policy::once;
  }
  ~guest_scope() {
    in_.invites_guests_ = invited_before_;
    in_.keeps_second_looks_ = kept_before_;
    in_.is_passing_ = passing_before_;
  }
  guest_scope(const guest_scope&) = delete;
  guest_scope& operator=(const guest_scope&) = delete;

 private:
  reader& in_;
  const bool invited_before_;
  const bool kept_before_;
  const bool passing_before_;
};

// While it lives, guests go into a room of their own, which is emptied when it ends: for who looks
// at much in one round, some at a time. What is looked at meanwhile must not be used afterwards, as
// a walk through an index does that is moved on in here.
class GOODS_API guest_room {
 public:
  explicit guest_room(reader& in);
  ~guest_room();
  guest_room(const guest_room&) = delete;
  guest_room& operator=(const guest_room&) = delete;

 private:
  reader& in_;
  std::unique_ptr<guest_list> outside_;
};

// While it lives, `passed` receives what the reader looks at in a transaction (outside one
// nothing).
class GOODS_API passing_scope {
 public:
  passing_scope(reader& in, passed_objects& passed) : in_(in), before_(in.passed_) {
    in.passed_ = &passed;
  }
  ~passing_scope() { in_.passed_ = before_; }
  passing_scope(const passing_scope&) = delete;
  passing_scope& operator=(const passing_scope&) = delete;

 private:
  reader& in_;
  passed_objects* const before_;
};

}  // namespace goods
