// A persistent set and its members.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/ref.h>

namespace goods {

class set_member;

// What members of sets belong to; see B_tree.
//
// Threads: as for every body: a committed one is never changed.
class GOODS_API set_owner : public object {
 public:
  static class_descriptor self_class;

  // The number of members; costs nothing.
  std::uint64_t count() const { return count_; }
  // The object whose set this is, or null.
  ref<object> owner() const { return owner_.get(); }
  ref_word owner_word() const { return owner_.word(); }

  field_descriptor* describe_components() override;

 protected:
  set_owner(class_descriptor& cls, const object_ref& owner);
  set_owner(object_handle* handle, class_descriptor& cls) : object(handle, cls) {}
  void set_count(std::uint64_t count) { count_ = count; }
  void set_owner_object(const ref<object>& owner) { owner_.set(owner); }

 private:
  back_ref<object> owner_;
  std::uint64_t count_ = 0;
};

}  // namespace goods
