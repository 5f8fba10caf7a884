// References between persistent objects, without the type of what they refer to.
#pragma once

#include <cstdint>
#include <utility>

#include <goods/dbs_storage.h>
#include <goods/goods_api.h>

namespace goods {

class object_handle;

// Identifies an object within a session: bits 0-31 number in its storage, bits 32-47 storage. 0:
// none.
using object_id = std::uint64_t;

constexpr object_id make_object_id(storage_number storage, object_number number) {
  return (object_id{storage} << 32) | number;
}
constexpr object_number number_of(object_id id) { return static_cast<object_number>(id); }
constexpr storage_number storage_of(object_id id) { return static_cast<storage_number>(id >> 32); }

// The one machine word that a reference is: nothing, an identifier, or the address of a handle.
//
// A plain value that counts nothing; object_ref and back_ref below give it a meaning. Committed
// bodies hold identifiers only, so that any thread may read them and dropping one frees nothing
// else.
class ref_word {
 public:
  constexpr ref_word() = default;
  static constexpr ref_word of(object_id id) { return ref_word((id << 1) | 1); }
  static ref_word of(object_handle* handle) {
    return ref_word(reinterpret_cast<std::uintptr_t>(handle));
  }

  constexpr bool is_null() const { return bits_ == 0; }
  constexpr bool is_id() const { return (bits_ & 1) != 0; }
  bool is_handle() const { return bits_ != 0 && (bits_ & 1) == 0; }
  constexpr object_id id() const { return bits_ >> 1; }  // requires is_id()
  object_handle* handle() const {                        // requires is_handle()
    return reinterpret_cast<object_handle*>(bits_);
  }
  friend constexpr bool operator==(ref_word, ref_word) = default;

 private:
  constexpr explicit ref_word(std::uintptr_t bits) : bits_(bits) {}
  std::uintptr_t bits_ = 0;
};
static_assert(sizeof(std::uintptr_t) == 8, "object identifiers need a 64-bit word");

// How a class's member holds a reference: `counted` keeps a transient target alive, `back` does not
// (see back_ref).
enum class ref_kind : std::uint8_t { counted, back };

// A counted reference to an object of any class.
//
// Copying one out of a committed object finds or makes the target's handle in the session that the
// calling thread is attached to; the target itself is loaded when somebody looks at it.
// Threads: a reference is used by one thread at a time; what it refers to may be shared.
// Errors: copying an identifier on a thread without a session throws thread_not_attached.
class GOODS_API object_ref {
 public:
  object_ref() = default;
  // NOLINTBEGIN(google-explicit-constructor): null is a reference, a handle what one refers to
  object_ref(std::nullptr_t) {}
  // Counts; null is allowed. In a reader section (or read()) the handle need not be counted by
  // anybody: when the session has just dropped it, this is a reference to the object's new one.
  object_ref(object_handle* handle);
  // NOLINTEND(google-explicit-constructor)
  object_ref(const object_ref& other);
  object_ref(object_ref&& other) noexcept : word_(std::exchange(other.word_, ref_word())) {}
  object_ref& operator=(const object_ref& other);
  object_ref& operator=(object_ref&& other) noexcept;
  ~object_ref() {
    if (word_.is_handle()) release();
  }

  bool is_null() const { return word_.is_null(); }
  explicit operator bool() const { return !word_.is_null(); }
  void clear() { object_ref().swap(*this); }
  void swap(object_ref& other) noexcept { std::swap(word_, other.word_); }

  // The handle; null for the null reference. Only for references outside of committed objects,
  // which hold identifiers: copy such a member first.
  object_handle* handle() const { return word_.is_handle() ? word_.handle() : nullptr; }

  // The identifier; 0 for the null reference and for an object that is not stored yet.
  object_id id() const;

  // Whether both refer to the same object (or both to none).
  friend GOODS_API bool operator==(const object_ref& a, const object_ref& b);
  friend bool operator==(const object_ref& a, std::nullptr_t) { return a.is_null(); }

  ref_word word() const { return word_; }

  // Makes this null and leaves its count to the caller. Requires word().is_handle().
  object_handle* detach() { return std::exchange(word_, ref_word()).handle(); }

 private:
  void release();
  ref_word word_;
};

}  // namespace goods
