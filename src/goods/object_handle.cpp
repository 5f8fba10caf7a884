#include <goods/object_handle.h>

#include <limits>
#include <new>
#include <vector>

#include <goods/class_descriptor.h>
#include <goods/object.h>

#include "goods/collection_claim.h"
#include "goods/new_objects.h"

namespace goods {

namespace {

constexpr std::int32_t retired_count = std::numeric_limits<std::int32_t>::min() / 2;

// Lets everything that a dying transient object held forget the way back to it.
class back_reference_clearer : public ref_visitor {
 public:
  explicit back_reference_clearer(object_handle* target) : target_(target) {}
  void visit(ref_word& word, ref_kind kind) override {
    if (kind == ref_kind::back && word.is_handle() && word.handle() == target_) word = ref_word();
  }

 private:
  object_handle* target_;
};

class held_object_visitor : public ref_visitor {
 public:
  explicit held_object_visitor(object_handle* dying) : clearer_(dying) {}
  void visit(ref_word& word, ref_kind kind) override {
    if (kind != ref_kind::counted || !word.is_handle()) return;
    object_handle* held = word.handle();
    object* body = held->is_transient() ? held->body() : nullptr;
    if (body != nullptr) body->cls().visit_references(*body, clearer_);
  }

 private:
  back_reference_clearer clearer_;
};

void destroy_transient(object_handle* handle) {
  if (object* body = handle->exchange_body(nullptr)) {
    held_object_visitor visitor(handle);
    body->cls().visit_references(*body, visitor);
    const std::size_t bytes =
        body->lies_with_handle() ? handle->memory() : body->cls().body_bytes(*body);
    new_object_bytes::add(-static_cast<std::int64_t>(bytes));
    body->unpin();
  }
  object_handle::destroy(handle);
}

// Destroying an object may drop the last reference to others, and those to more: a chain of any
// length is worked off here instead of on the stack.
void destroy_iteratively(object_handle* handle) {
  thread_local std::vector<object_handle*>* pending = nullptr;
  if (pending != nullptr) {
    pending->push_back(handle);
    return;
  }
  std::vector<object_handle*> list{handle};
  pending = &list;
  while (!list.empty()) {
    object_handle* next = list.back();
    list.pop_back();
    destroy_transient(next);
  }
  pending = nullptr;
}

}  // namespace

object_handle* object_handle::construct_in(object* body, std::size_t offset) {
  auto* const handle = new (reinterpret_cast<char*>(body) + offset) object_handle(body);
  handle->offset_ = static_cast<std::uint16_t>(offset);
  handle->sharers_.store(shared_by_handle | shared_by_body, std::memory_order_relaxed);
  return handle;
}

void object_handle::destroy(object_handle* handle) noexcept {
  if (handle->offset_ == 0) {
    delete handle;
    return;
  }
  void* const room = reinterpret_cast<char*>(handle) - handle->offset_;
  if (handle->sharers_.load(std::memory_order_acquire) == shared_by_handle ||
      handle->sharers_.fetch_and(shared_by_body, std::memory_order_acq_rel) == shared_by_handle) {
    ::operator delete(room);
  }
}

void object_handle::leave_to_handle(void* room, std::size_t offset) noexcept {
  auto* const handle =
      std::launder(reinterpret_cast<object_handle*>(static_cast<char*>(room) + offset));
  if (handle->sharers_.fetch_and(shared_by_handle, std::memory_order_acq_rel) == shared_by_body) {
    ::operator delete(room);
  }
}

bool object_handle::try_add_reference() {
  std::int32_t count = references_.load(std::memory_order_relaxed);
  while (count >= 0) {
    // Sequentially consistent with the look at the claims: when there is none yet, the first scan
    // of a collection that begins now sees the count.
    if (!references_.compare_exchange_weak(count, count + 1)) continue;
    if (collection_claim::is_any_taken()) noted_.store(true);
    return true;
  }
  return false;
}

void object_handle::remove_reference() {
  // A persistent handle belongs to its session's table, which may free it once nobody counts it:
  // nothing of the handle may be looked at after the count has gone down.
  if (!is_transient()) {
    references_.fetch_sub(1, std::memory_order_acq_rel);
    return;
  }
  // Another thread's commit may make it persistent just now, but counts it before and to the end:
  // whoever holds the only count of a transient object sees it stay transient.
  std::int32_t count = references_.load(std::memory_order_acquire);
  while (count > 1) {
    if (references_.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) return;
  }
  if (!is_transient()) {
    references_.fetch_sub(1, std::memory_order_acq_rel);
    return;
  }
  references_.store(0, std::memory_order_relaxed);
  destroy_iteratively(this);
}

bool object_handle::try_retire() {
  std::int32_t none = 0;
  return references_.compare_exchange_strong(none, retired_count, std::memory_order_acq_rel);
}

void object_handle::become_persistent(database& owner, object_id id) {
  being_made_.store(true, std::memory_order_relaxed);
  database_.store(&owner, std::memory_order_release);
  id_.store(id, std::memory_order_release);
}

void object_handle::become_transient() {
  id_.store(0, std::memory_order_release);
  database_.store(nullptr, std::memory_order_release);
  being_made_.store(false, std::memory_order_release);
}

}  // namespace goods
