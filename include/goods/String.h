// A persistent text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/ref.h>

namespace goods {

// Text of any bytes, zero-terminated in memory, up to max_length of them.
//
// Units: characters are bytes. length() is without the terminator, capacity() with it.
// The text that an object is loaded or made with lies in one piece of memory with it. text() stays
// valid until the text is changed or the access to the object ends. Errors: a text that is too long
// throws storage_full.
class GOODS_API String : public object {
 public:
  static class_descriptor self_class;
  static constexpr std::size_t max_length = max_state_size - 64;

  // A new transient String; its capacity is that of the text with its terminator, or `capacity`
  // when that is more.
  static ref<String> create(std::string_view text, std::size_t capacity = 0);

  String(object_handle* handle, class_descriptor& cls, unsigned varying);
  ~String() override;

  std::string_view text() const { return {text_, length_}; }
  const char* data() const { return text_; }  // zero-terminated
  std::size_t length() const { return length_; }
  std::size_t capacity() const { return std::size_t{length_} + 1 + spare_; }

  // A text that does not fit makes the capacity the larger of what it needs and twice the old one.
  // `text` may be part of this text.
  void set(std::string_view text);
  void append(std::string_view text);
  // Makes the capacity at least `capacity`.
  void reserve(std::size_t capacity);

  field_descriptor* describe_components() override;
  void pack_varying(byte_writer& out, object_id self) const override;
  void unpack_varying(byte_reader& in, object_id self) override;
  void copy_varying(const object& from) override;
  std::size_t varying_bytes() const override { return room_; }

 private:
  String(class_descriptor& cls, unsigned varying);  // new, varying > 0
  static object* construct(object_handle* handle, class_descriptor& cls, unsigned extra);
  bool is_inline() const;
  void release_room();
  void put_text(std::size_t kept, std::string_view text);
  void set_capacity(std::size_t capacity);

  char* text_;              // behind the instance, allocated, or an empty text that all share
  std::uint32_t room_ = 0;  // bytes that may be written at text_
  std::uint32_t length_ = 0;
  std::uint32_t spare_ = 0;  // capacity beyond the text; memory for it is taken when it is needed
};

}  // namespace goods
