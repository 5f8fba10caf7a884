#include <goods/object_ref.h>

#include <goods/cache_manager.h>
#include <goods/object_handle.h>
#include <goods/ref.h>

namespace goods {

object_ref::object_ref(object_handle* handle) {
  if (handle == nullptr) return;
  if (handle->try_add_reference()) {
    word_ = ref_word::of(handle);
  } else {  // just dropped by the session, whose reader the caller is
    *this = cache_manager::require().find(handle->id());
  }
}

object_ref::object_ref(const object_ref& other) {
  if (other.word_.is_handle()) {
    other.word_.handle()->add_reference();
    word_ = other.word_;
  } else if (!other.is_null()) {
    *this = cache_manager::require().find(other.word_.id());
  }
}

object_ref& object_ref::operator=(const object_ref& other) {
  if (word_ != other.word_) object_ref(other).swap(*this);
  return *this;
}

object_ref& object_ref::operator=(object_ref&& other) noexcept {
  if (this != &other) {
    object_ref taken(std::move(other));
    taken.swap(*this);
  }
  return *this;
}

void object_ref::release() { word_.handle()->remove_reference(); }

object_id object_ref::id() const {
  if (is_null()) return 0;
  return word_.is_id() ? word_.id() : word_.handle()->id();
}

bool operator==(const object_ref& a, const object_ref& b) {
  if (a.word_ == b.word_) return true;
  const object_id id = a.id();
  return id != 0 && id == b.id();
}

object_ref to_reference(ref_word word) {
  if (word.is_null()) return nullptr;
  if (word.is_handle()) return word.handle();
  return cache_manager::require().find(word.id());
}

}  // namespace goods
