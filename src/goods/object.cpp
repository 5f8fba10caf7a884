#include <goods/object.h>

#include <fmt/format.h>

#include <goods/access.h>
#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/errors.h>
#include <goods/object_handle.h>

#include "goods/body_arena.h"
#include "goods/new_objects.h"
#include "goods/transaction.h"

namespace goods {

namespace {

ref_word back_word_to(object_handle& handle) {
  return handle.is_transient() ? ref_word::of(&handle) : ref_word::of(handle.id());
}

// In the versions that may be changed of what an object holds: what refers back to one handle, to
// that of the object until now, refers to another one.
class back_reference_mover : public ref_visitor {
 public:
  back_reference_mover(object_handle& from, ref_word to)
      : from_(back_word_to(from)), from_handle_(&from), to_(to) {}

  void visit(ref_word& word, ref_kind kind) override {
    if (is_inside_) {
      const bool is_it = word == from_ || (word.is_handle() && word.handle() == from_handle_);
      if (kind == ref_kind::back && is_it) word = to_;
      return;
    }
    if (kind != ref_kind::counted || !word.is_handle()) return;
    object_handle& held = *word.handle();
    object* const body = held.is_transient() ? held.body() : transaction::copy_of(held);
    if (body == nullptr) return;
    is_inside_ = true;
    body->cls().visit_references(*body, *this);
    is_inside_ = false;
  }

 private:
  const ref_word from_;
  const object_handle* const from_handle_;
  const ref_word to_;
  bool is_inside_ = false;
};

void move_back_references(object& held_by, object_handle& from, ref_word to) {
  back_reference_mover mover(from, to);
  held_by.cls().visit_references(held_by, mover);
}

// A handle keeps the memory that it lies in: only a small body may stay in memory for that.
constexpr std::size_t most_shared_bytes = 1024;

// The memory that `new` took last on this thread, until the object in it is constructed.
struct memory_for_two {
  void* room = nullptr;
  std::size_t handle_offset = 0;
};
[[gnu::tls_model("initial-exec")]] thread_local memory_for_two taken_last;

}  // namespace

void* object::allocate_with_handle(std::size_t size) {
  constexpr std::size_t step = alignof(object_handle);
  const std::size_t offset = (size + step - 1) / step * step;
  taken_last = {};
  new_object_bytes::add(static_cast<std::int64_t>(offset + sizeof(object_handle)));
  if (offset + sizeof(object_handle) > most_shared_bytes) return ::operator new(size);
  taken_last = {::operator new(offset + sizeof(object_handle)), offset};
  return taken_last.room;
}

// When another object was made between taking memory and getting here, the handle gets memory of
// its own.
object_handle* object::make_handle() {
  if (taken_last.room != this) return new object_handle(this);
  taken_last.room = nullptr;
  handle_offset_ = static_cast<std::uint16_t>(taken_last.handle_offset);
  return object_handle::construct_in(this, handle_offset_);
}

object::object(class_descriptor& cls) : handle_(make_handle()), cls_(&cls) {}

object::object(object_handle* handle, class_descriptor& cls) : handle_(handle), cls_(&cls) {
  if (taken_last.room == this) taken_last.room = nullptr;
}

void* object::version_room(std::size_t bytes) {
  void* const room = body_arena::next_body::take(bytes);
  return room != nullptr ? room : ::operator new(bytes);
}

void object::release_version_room(void* room) {
  if (!body_arena::next_body::was_taken(room)) ::operator delete(room);
}

object::~object() { cls_->release_extra(*this); }

void object::pack_varying(byte_writer&, object_id) const {}
void object::unpack_varying(byte_reader&, object_id) {}
void object::copy_varying(const object&) {}
void object::visit_varying(ref_visitor&) {}

void object::unpin() const {
  if (pins_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
}

void object::destroy() const {
  const std::size_t handle_offset = handle_offset_;
  if (handle_offset == 0) {
    delete this;
    return;
  }
  this->~object();
  object_handle::leave_to_handle(const_cast<object*>(this), handle_offset);
}

void object::attach_to_storage(database*, std::uint32_t storage) {
  if (storage >= object_handle::no_storage) {
    throw_error(error_code::usage, fmt::format("{} is no storage's number.", storage));
  }
  if (handle_ != nullptr && handle_->is_transient()) {
    handle_->set_wanted_storage(static_cast<storage_number>(storage));
  }
}

void object::signal_on_modification(event* when) const {
  if (handle_ == nullptr || handle_->is_transient()) {
    throw_error(error_code::usage, "An object that is not stored cannot be watched.");
  }
  handle_->owner()->session().signal_on_modification(handle_->id(), when);
}

void object::cluster_with(const object_ref& other) {
  if (handle_ == nullptr || !handle_->is_transient() || other.is_null()) return;
  const object_id beside = other.id();
  handle_->set_wanted_storage(beside != 0 ? storage_of(beside) : other.handle()->wanted_storage());
}

void object::return_to(object_handle& handle) noexcept {
  move_back_references(*this, *handle_, back_word_to(handle));
  handle_ = &handle;
  closed_ = false;
  handle.set_body(this);
}

void object::become(const object_ref& other) {
  object_handle* old_self = handle_;
  if (old_self == nullptr || !old_self->is_transient() || other.is_null()) {
    throw_error(error_code::usage, "Only a new object can take the place of another one.");
  }
  object_ref target(other);
  object_handle* place = target.handle();
  if (place == old_self) return;
  if (&class_of(target) != cls_) {
    throw_error(error_code::usage, "An object can only take the place of one of its own class.");
  }
  note_relinked();
  if (place->is_transient()) {
    object* replaced = place->exchange_body(this);
    old_self->set_body(nullptr);
    move_back_references(*replaced, *place, ref_word());
    move_back_references(*this, *old_self, back_word_to(*place));
    handle_ = place;
    replaced->unpin();
    return;
  }
  cache_manager::require().atomically([&] {
    transaction::running().replace(*place, *this);
    old_self->set_body(nullptr);
    move_back_references(*this, *old_self, back_word_to(*place));
    handle_ = place;
  });
}

}  // namespace goods
