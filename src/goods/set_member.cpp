#include <goods/set_member.h>

#include <fmt/format.h>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/errors.h>
#include <goods/metaobject.h>

#include "goods/prototype.h"

namespace goods {
namespace {

void check_key(std::string_view key) {
  if (key.size() <= set_member::max_key_length) return;
  throw_error(error_code::usage,
              fmt::format("The name \"{}...\" has {} bytes; the limit is {}.", key.substr(0, 40),
                          key.size(), set_member::max_key_length));
}

}  // namespace

class_descriptor set_member::self_class("set_member", sizeof(set_member), &pessimistic_scheme,
                                        construct_object<set_member>,
                                        prototype_fields<set_member>(), &object::self_class);

set_member::set_member(object_ref target, std::string_view key)
    : object(self_class), target_(std::move(target)), key_(key) {}

ref<set_member> set_member::create(object_ref target, std::string_view key) {
  check_key(key);
  return ref<set_member>(new set_member(std::move(target), key));
}

void set_member::set_key(std::string_view key) {
  check_key(key);
  key_ = key;
}

field_descriptor* set_member::describe_components() {
  field_descriptor* list = nullptr;
  describe_member(list, "owner", *this, owner_, ref_kind::back);
  describe_member(list, "object", *this, target_);
  (new field_descriptor("key", 1, 0, 0))->set_type(field_type::text).append_to(list);
  return list;
}

void set_member::pack_varying(byte_writer& out, object_id) const { out.put_text(key_); }

void set_member::unpack_varying(byte_reader& in, object_id) {
  const std::string_view key = in.get_text();
  if (key.size() > max_key_length) in.fail("holds a name that is too long");
  key_ = key;
}

void set_member::copy_varying(const object& from) {
  key_ = static_cast<const set_member&>(from).key_;
}

}  // namespace goods
