#include "goods/handle_table.h"

#include <new>

#include <goods/object.h>

#include "goods/epoch.h"

namespace goods {

namespace {

constexpr std::size_t smallest_array = 64;

}  // namespace

handle_table::slot_array::slot_array(std::size_t size)
    : mask(size - 1), slots(std::make_unique<slot[]>(size)) {}

handle_table::handle_table() {
  for (shard& s : shards_) s.slots.store(new slot_array(smallest_array));
  memory_ = shard_count * smallest_array * sizeof(slot);
}

handle_table::~handle_table() {
  for (shard& s : shards_) {
    const std::unique_ptr<slot_array> array(s.slots.load());
    for (std::size_t i = 0; i <= array->mask; ++i) {
      object_handle* handle = array->slots[i].handle.load(std::memory_order_relaxed);
      if (handle == nullptr) continue;
      if (object* body = handle->exchange_body(nullptr)) body->unpin();
      if (handle->try_retire()) {
        object_handle::destroy(handle);
      } else {
        handle->become_transient();  // goes with the last reference that an application holds
      }
    }
  }
}

std::size_t handle_table::hash(object_id id) {
  std::uint64_t mixed = id * 0x9E3779B97F4A7C15u;
  return mixed ^ (mixed >> 32);
}

object_handle* handle_table::find(object_id id) const {
  const std::size_t hashed = hash(id);
  const slot_array& array = *shards_[hashed % shard_count].slots.load();
  for (std::size_t i = hashed / shard_count;; ++i) {
    const slot& at = array.slots[i & array.mask];
    const object_id found = at.id.load();
    if (found == 0) return nullptr;
    if (found != id) continue;
    object_handle* handle = at.handle.load();
    if (handle != nullptr && handle->id() == id) return handle;
  }
}

void handle_table::prefetch(object_id id) const {
  const std::size_t hashed = hash(id);
  const slot_array& array = *shards_[hashed % shard_count].slots.load();
  __builtin_prefetch(&array.slots[(hashed / shard_count) & array.mask]);
}

void handle_table::place(slot_array& array, object_handle* handle, object_id id) {
  std::size_t i = (hash(id) / shard_count) & array.mask;
  while (array.slots[i].id.load(std::memory_order_relaxed) != 0) i = (i + 1) & array.mask;
  array.slots[i].handle.store(handle);
  array.slots[i].id.store(id);
}

bool handle_table::rebuild(shard& in) {
  slot_array* old = in.slots.load();
  std::size_t size = smallest_array;
  while (size < in.handles * 2 + 2) size *= 2;
  std::unique_ptr<slot_array> rebuilt;
  try {
    rebuilt = std::make_unique<slot_array>(size);
  } catch (const std::bad_alloc&) {
    return false;
  }
  for (std::size_t i = 0; i <= old->mask; ++i) {
    object_handle* handle = old->slots[i].handle.load(std::memory_order_relaxed);
    if (handle != nullptr)
      place(*rebuilt, handle, old->slots[i].id.load(std::memory_order_relaxed));
  }
  in.occupied = in.handles;
  memory_ += rebuilt->mask * sizeof(slot);
  memory_ -= old->mask * sizeof(slot);
  in.slots.store(rebuilt.release());
  retire(
      old, [](void* array) { delete static_cast<slot_array*>(array); },
      (old->mask + 1) * sizeof(slot));
  return true;
}

void handle_table::tighten(std::size_t shard_index) {
  shard& in = shards_[shard_index];
  const std::lock_guard guard(in.lock);
  const std::size_t size = in.slots.load()->mask + 1;
  if (size > smallest_array && in.handles * 8 < size) rebuild(in);
}

void handle_table::insert(object_handle* handle) {
  shard& in = shard_of(handle->id());
  const bool is_full = (in.occupied + 1) * 8 > (in.slots.load()->mask + 1) * 5;
  // Without memory it gets fuller, up to the one unused slot that every search needs.
  if (is_full && !rebuild(in) && in.occupied == in.slots.load()->mask) throw std::bad_alloc();
  place(*in.slots.load(), handle, handle->id());
  ++in.occupied;
  ++in.handles;
}

std::atomic<object_handle*>& handle_table::place_of(shard& in, const object_handle* handle) {
  slot_array& array = *in.slots.load();
  std::size_t i = (hash(handle->id()) / shard_count) & array.mask;
  while (array.slots[i].handle.load(std::memory_order_relaxed) != handle) i = (i + 1) & array.mask;
  return array.slots[i].handle;
}

void handle_table::erase(object_handle* handle) {
  shard& in = shard_of(handle->id());
  place_of(in, handle).store(nullptr);
  --in.handles;
}

void handle_table::exchange(object_handle* handle, object_handle* next) {
  place_of(shard_of(handle->id()), handle).store(next);
}

}  // namespace goods
