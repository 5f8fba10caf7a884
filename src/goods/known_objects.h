// What a transaction has read lately.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <goods/object.h>
#include <goods/object_ref.h>

namespace goods {

// Bodies of objects that the thread's transaction has locked, by identifier: while the lock is
// held, the version that was read stays the one to be read until the transaction writes the object.
// Looking here costs one look into memory, without counting, locking or pinning anything.
//
// One place for each of some values of a hash, and some megabytes for all; what has to leave stays
// in memory until the reads that may have seen it are over (release_displaced()).
// Ownership: pins the bodies and counts their handles. Threads: the one that runs the transaction.
class known_objects {
 public:
  known_objects() = default;
  known_objects(const known_objects&) = delete;
  known_objects& operator=(const known_objects&) = delete;
  ~known_objects() { clear(); }

  // Null when it is not known.
  const object* find(object_id id) const {
    if (places_ == nullptr) return nullptr;
    const known& at = (*places_)[place_of(id)];
    return at.id == id ? at.body : nullptr;
  }

  // Takes over the caller's pin of `body`, the version of `handle` to be read; also when it throws
  // std::bad_alloc.
  void keep(object_ref handle, const object* body);
  // The object is going to be written: find() does not know it any more.
  void forget(object_id id) noexcept;
  // When no read is in progress that may have seen what was displaced.
  void release_displaced() noexcept {
    if (!displaced_.empty()) displaced_.clear();
  }
  // At the end of the transaction.
  void clear() noexcept;

 private:
  static constexpr std::size_t places = 512;
  // Of all bodies. One that is larger alone is kept as long as it is the last.
  static constexpr std::size_t most_bytes = std::size_t{4} << 20;

  struct unpinner {
    void operator()(const object* body) const { body->unpin(); }
  };
  // A body that is pinned names its handle, which must be counted until after that.
  struct displaced {
    object_ref keeps;
    std::unique_ptr<const object, unpinner> body;
  };
  struct known {
    object_id id = 0;
    const object* body = nullptr;
    std::size_t bytes = 0;
    displaced owned = {};
  };

  static std::size_t place_of(object_id id) { return (id * 0x9E3779B97F4A7C15U) >> 55; }
  static_assert(places == std::size_t{1} << (64 - 55));

  std::unique_ptr<std::array<known, places>> places_;
  std::vector<std::uint16_t> used_;  // places that hold something
  void displace_all();

  std::size_t bytes_ = 0;  // of the bodies, when they came; not of what was displaced
  std::vector<displaced> displaced_;
};

}  // namespace goods
