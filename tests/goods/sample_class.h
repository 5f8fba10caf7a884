// A persistent class with members of every kind.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/class_descriptor.h>
#include <goods/metaobject.h>
#include <goods/object.h>
#include <goods/ref.h>

namespace goods {

struct body_deleter {
  void operator()(object* body) const { body->unpin(); }
};
using owned_body = std::unique_ptr<object, body_deleter>;

inline std::vector<std::byte> packed(const object& body, object_id self) {
  byte_writer out;
  body.cls().pack(body, out, self);
  return {out.bytes().begin(), out.bytes().end()};
}

class sample_object : public object {
 public:
  struct part {
    std::int16_t number = 0;
    object_ref link;
  };

  sample_object(object_handle* handle, class_descriptor& cls) : object(handle, cls) {}

  field_descriptor* describe_components() override {
    field_descriptor* list = nullptr;
    describe_member(list, "tiny", *this, tiny);
    describe_member(list, "flag", *this, flag);
    describe_member(list, "whole", *this, whole);
    describe_member(list, "wide", *this, wide);
    describe_member(list, "real", *this, real);
    describe_member(list, "single", *this, single);
    describe_member(list, "link", *this, link);
    describe_member(list, "back", *this, back, ref_kind::back);
    array(list, "numbers", numbers.data(), numbers.size());
    array(list, "letters", letters.data(), letters.size());
    field_descriptor* components = nullptr;
    describe_member(components, "number", parts[0], parts[0].number);
    describe_member(components, "link", parts[0], parts[0].link);
    (new field_descriptor("parts", sizeof(part), parts.size(), offset_of(parts.data()), components))
        ->append_to(list);
    return list;
  }

  std::int8_t tiny = 0;
  bool flag = false;
  std::int32_t whole = 0;
  std::uint64_t wide = 0;
  double real = 0;
  float single = 0;
  object_ref link;
  back_ref<object> back;
  std::array<std::uint32_t, 3> numbers{};
  std::array<char, 16> letters{};
  std::array<part, 2> parts;

 private:
  unsigned offset_of(const void* member) const {
    return static_cast<unsigned>(static_cast<const char*>(member) -
                                 reinterpret_cast<const char*>(this));
  }
  template <class T>
  void array(field_descriptor*& list, const char* name, const T* items, std::size_t count) {
    (new field_descriptor(name, sizeof(T), static_cast<unsigned>(count), offset_of(items)))
        ->set_type(field_type_of<T>())
        .append_to(list);
  }
};

// Descriptors of sample_object; `select` may take fields out of the list or rename them.
inline std::unique_ptr<class_descriptor> make_sample_class(
    const char* name = "sample_object",
    const std::function<void(field_descriptor*&)>& select = {}) {
  static class_descriptor helper("sample_object_t", sizeof(sample_object), &pessimistic_scheme,
                                 construct_object<sample_object>, nullptr, nullptr,
                                 class_descriptor::helper_class);
  sample_object prototype(nullptr, helper);
  field_descriptor* fields = prototype.describe_components();
  if (select) select(fields);
  return std::make_unique<class_descriptor>(name, sizeof(sample_object), &pessimistic_scheme,
                                            construct_object<sample_object>, fields,
                                            &object::self_class);
}

}  // namespace goods
