#include <goods/object.h>

#include <goods/access.h>
#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/errors.h>
#include <goods/object_handle.h>

#include "goods/transaction.h"

namespace goods {

object::object(class_descriptor& cls) : handle_(new object_handle(this)), cls_(&cls) {}

object::object(object_handle* handle, class_descriptor& cls) : handle_(handle), cls_(&cls) {}

object::~object() { cls_->release_extra(*this); }

void object::pack_varying(byte_writer&, object_id) const {}
void object::unpack_varying(byte_reader&, object_id) {}
void object::copy_varying(const object&) {}
void object::visit_varying(ref_visitor&) {}

void object::unpin() const {
  if (pins_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

void object::attach_to_storage(database*, std::uint32_t storage) {
  if (handle_ != nullptr && handle_->is_transient()) {
    handle_->set_wanted_storage(static_cast<storage_number>(storage));
  }
}

void object::cluster_with(const object_ref& other) {
  if (handle_ == nullptr || !handle_->is_transient() || other.is_null()) return;
  const object_id beside = other.id();
  handle_->set_wanted_storage(beside != 0 ? storage_of(beside) : other.handle()->wanted_storage());
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
    handle_ = place;
    replaced->unpin();
    return;
  }
  cache_manager::require().atomically([&] {
    transaction& running = transaction::running();
    running.replace(*place, *this);
    old_self->set_body(nullptr);
    handle_ = place;
  });
}

}  // namespace goods
