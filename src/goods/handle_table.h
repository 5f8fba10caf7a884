// Finds a session's handles by identifier.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include <goods/object_handle.h>

namespace goods {

// Finding takes no lock: it needs a reader_section, and so do the handles it returns unless they
// are counted. Changing takes the lock of one of the shards; the same lock orders what loads and
// commits do to the bodies of a shard's handles.
class handle_table {
 public:
  static constexpr std::size_t shard_count = 64;

  handle_table();
  ~handle_table();  // retires all handles and their bodies; nobody may use them any more
  handle_table(const handle_table&) = delete;
  handle_table& operator=(const handle_table&) = delete;

  object_handle* find(object_id id) const;
  // find() will look for it soon. In a reader_section.
  void prefetch(object_id id) const;

  std::mutex& lock_of(object_id id) const { return shard_of(id).lock; }

  // These require lock_of(id) to be held.
  object_handle* find_locked(object_id id) const { return find(id); }
  void insert(object_handle* handle);  // its identifier must not be present
  void erase(object_handle* handle);
  // Puts `next`, which has the same identifier, in the place of `handle`. Needs no memory.
  void exchange(object_handle* handle, object_handle* next);

  // Calls visit(handle) for up to `count` slots of a shard, from `position` on, with the shard's
  // lock held; `visit` may erase the handle that it is shown. Returns the position to go on from, 0
  // after the last one.
  template <class Visit>
  std::size_t sweep(std::size_t shard, std::size_t position, std::size_t count,
                    Visit&& visit) const;

  // Gives back slots that a shard no longer needs.
  void tighten(std::size_t shard);

  std::size_t memory() const { return memory_.load(std::memory_order_relaxed); }  // bytes of slots

 private:
  // The identifier stands beside the handle so that passing over other objects' slots touches no
  // handle. A reader may meet a slot that is just given to another object: the handle tells.
  struct slot {
    std::atomic<object_id> id{0};                 // 0: never used
    std::atomic<object_handle*> handle{nullptr};  // null: erased
  };
  // Open addressing with linear probing; never more than five eighths full.
  struct slot_array {
    explicit slot_array(std::size_t size);
    std::size_t mask;
    std::unique_ptr<slot[]> slots;
  };
  struct alignas(64) shard {
    mutable std::mutex lock;
    std::atomic<slot_array*> slots;
    std::size_t occupied = 0;  // under lock; erased slots included
    std::size_t handles = 0;   // under lock
  };

  static std::size_t hash(object_id id);
  shard& shard_of(object_id id) const { return shards_[hash(id) % shard_count]; }
  bool rebuild(shard& in);  // false, and nothing changed, when there is no memory
  static std::atomic<object_handle*>& place_of(shard& in, const object_handle* handle);
  static void place(slot_array& array, object_handle* handle, object_id id);

  mutable std::array<shard, shard_count> shards_;
  std::atomic<std::size_t> memory_{0};
};

template <class Visit>
std::size_t handle_table::sweep(std::size_t shard_index, std::size_t position, std::size_t count,
                                Visit&& visit) const {
  shard& in = shards_[shard_index];
  const std::lock_guard guard(in.lock);
  const slot_array& array = *in.slots.load();
  position = std::min(position, array.mask + 1);  // the shard may have shrunk since
  const std::size_t end = position + std::min(count, array.mask + 1 - position);
  for (std::size_t i = position; i < end; ++i) {
    if (object_handle* handle = array.slots[i].handle.load()) visit(*handle);
  }
  return end > array.mask ? 0 : end;
}

}  // namespace goods
