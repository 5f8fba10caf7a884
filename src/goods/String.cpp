#include <goods/String.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include <fmt/format.h>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/errors.h>
#include <goods/metaobject.h>

#include "goods/prototype.h"

namespace goods {
namespace {

// Never written: room_ is 0 while text_ points here.
char empty_text[1] = {'\0'};

void check_length(std::size_t length) {
  if (length <= String::max_length) return;
  throw_error(
      error_code::storage_full,
      fmt::format("A text of {} bytes is too long; the limit is {}.", length, String::max_length));
}

}  // namespace

object* String::construct(object_handle* handle, class_descriptor& cls, unsigned extra) {
  if (cls.is_unknown_class()) return new (extra_room{extra}) String(handle, cls, 0);
  void* const room = version_room(sizeof(String) + extra);
  return new (room) String(handle, cls, extra);
}

class_descriptor String::self_class(
    "String", sizeof(String), &pessimistic_scheme, construct,
    [] {
      String prototype(nullptr, prototype_class(), 0);
      return prototype.describe_components();
    }(),
    &object::self_class, 0, true);

String::String(object_handle* handle, class_descriptor& cls, unsigned varying)
    : object(handle, cls),
      text_(varying == 0 ? empty_text : reinterpret_cast<char*>(this) + sizeof(String)),
      room_(varying) {
  if (room_ != 0) *text_ = '\0';
}

String::String(class_descriptor& cls, unsigned varying)
    : object(cls), text_(reinterpret_cast<char*>(this) + sizeof(String)), room_(varying) {
  *text_ = '\0';
}

String::~String() { release_room(); }

ref<String> String::create(std::string_view text, std::size_t capacity) {
  check_length(text.size());
  const std::size_t room = text.size() + 1;
  auto* const body = new (room_behind{room}) String(self_class, static_cast<unsigned>(room));
  ref<String> made(body);
  body->put_text(0, text);
  body->reserve(capacity);
  return made;
}

bool String::is_inline() const {
  return text_ == reinterpret_cast<const char*>(this) + sizeof(String);
}

void String::release_room() {
  if (room_ != 0 && !is_inline()) delete[] text_;
}

// The first `kept` bytes and `text` (which may lie in the old text) become the text. The capacity
// stays what it is when that is enough.
void String::put_text(std::size_t kept, std::string_view text) {
  const std::size_t needed = kept + text.size() + 1;
  const std::size_t old_capacity = capacity();
  if (room_ < needed) {
    const std::size_t larger = std::max(needed, std::min(old_capacity, std::size_t{room_} * 2));
    char* const room = new char[larger];
    std::memcpy(room, text_, kept);
    text.copy(room + kept, text.size());
    release_room();
    text_ = room;
    room_ = static_cast<std::uint32_t>(larger);
  } else {
    if (!text.empty()) std::memmove(text_ + kept, text.data(), text.size());
  }
  length_ = static_cast<std::uint32_t>(needed - 1);
  text_[length_] = '\0';
  set_capacity(std::max(old_capacity, needed));
}

void String::set_capacity(std::size_t capacity) {
  const std::size_t spare = capacity - std::min(capacity, std::size_t{length_} + 1);
  spare_ = static_cast<std::uint32_t>(
      std::min(spare, std::size_t{std::numeric_limits<std::uint32_t>::max()}));
}

void String::reserve(std::size_t capacity) {
  if (capacity > this->capacity()) set_capacity(capacity);
}

void String::set(std::string_view text) {
  check_length(text.size());
  if (text.size() + 1 > capacity()) reserve(std::max(text.size() + 1, 2 * capacity()));
  put_text(0, text);
}

void String::append(std::string_view text) {
  const std::size_t length = length_ + text.size();
  check_length(length);
  if (length + 1 > capacity()) reserve(std::max(length + 1, 2 * capacity()));
  put_text(length_, text);
}

field_descriptor* String::describe_components() {
  field_descriptor* list = nullptr;
  describe_member(list, "spare", *this, spare_);
  (new field_descriptor("text", 1, 0, 0))->set_type(field_type::text).append_to(list);
  return list;
}

void String::pack_varying(byte_writer& out, object_id) const { out.put_text(text()); }

void String::unpack_varying(byte_reader& in, object_id) {
  const std::uint32_t spare = spare_;
  put_text(0, in.get_text());
  spare_ = spare;
}

void String::copy_varying(const object& from) {
  const auto& other = static_cast<const String&>(from);
  put_text(0, other.text());
  spare_ = other.spare_;
}

}  // namespace goods
