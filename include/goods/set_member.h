// One entry of a persistent set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/ref.h>
#include <goods/set_owner.h>

namespace goods {

// Links an object into a set under a key. The set keeps a copy of key and object, so that looking
// something up needs no members; whoever changes a member that is in a set tells the set
// (B_tree::update(), or remove and insert for another key).
class GOODS_API set_member : public object {
 public:
  static class_descriptor self_class;
  static constexpr std::size_t max_key_length = 65'535;  // bytes

  // A new transient member of no set. A key that is too long throws usage.
  static ref<set_member> create(object_ref target, std::string_view key);

  set_member(object_handle* handle, class_descriptor& cls) : object(handle, cls) {}

  std::string_view key() const { return key_; }
  object_ref target() const { return target_; }
  ref_word target_word() const { return target_.word(); }
  // The set that this is a member of, or null. (A set that was emptied as a whole does not tell its
  // former members.)
  ref<set_owner> owner() const { return owner_.get(); }
  ref_word owner_word() const { return owner_.word(); }

  // While the member is in no set; the set's own copy would stay behind.
  void set_key(std::string_view key);
  void set_target(object_ref target) { target_ = std::move(target); }

  // For sets.
  void join(const ref<set_owner>& owner) { owner_.set(owner); }
  void leave() { owner_.clear(); }

  field_descriptor* describe_components() override;
  void pack_varying(byte_writer& out, object_id self) const override;
  void unpack_varying(byte_reader& in, object_id self) override;
  void copy_varying(const object& from) override;
  std::size_t varying_bytes() const override { return key_.capacity(); }

 private:
  set_member(object_ref target, std::string_view key);

  back_ref<set_owner> owner_;
  object_ref target_;
  std::string key_;
};

}  // namespace goods
