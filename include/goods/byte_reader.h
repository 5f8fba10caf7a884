// How packed states are read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include <goods/goods_api.h>
#include <goods/object_ref.h>

namespace goods {

// Reads what byte_writer wrote, front to back, and trusts nothing: whatever cannot have been
// written throws corrupt_data naming the object. Threads: one at a time. The bytes are not owned.
class GOODS_API byte_reader {
 public:
  // `self`: the object whose state is read; references are stored relative to it.
  byte_reader(std::span<const std::byte> bytes, object_id self)
      : next_(bytes.data()), end_(bytes.data() + bytes.size()), self_(self) {}
  byte_reader() : byte_reader({}, 0) {}

  object_id self() const { return self_; }
  // Whether the bytes stay as long as the object that is read from them, which may then read the
  // rest when it is asked for it.
  bool is_lasting() const { return is_lasting_; }
  void set_lasting(bool lasting) { is_lasting_ = lasting; }
  std::size_t left() const { return static_cast<std::size_t>(end_ - next_); }
  bool at_end() const { return next_ == end_; }
  const std::byte* position() const { return next_; }

  std::uint8_t get_byte() {
    if (next_ == end_) fail("ends too early");
    return static_cast<std::uint8_t>(*next_++);
  }
  std::span<const std::byte> get_bytes(std::size_t count) {
    if (count > left()) fail("ends too early");
    const std::span<const std::byte> bytes(next_, count);
    next_ += count;
    return bytes;
  }
  std::uint64_t get_unsigned() {
    if (next_ != end_ && *next_ < std::byte{0x80}) return static_cast<std::uint64_t>(*next_++);
    return get_long_unsigned();
  }
  std::int64_t get_signed();
  double get_double();
  float get_float();
  std::string_view get_text() {  // points into the bytes
    const std::span<const std::byte> bytes = get_bytes(get_count());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  object_id get_reference();  // 0 for none
  void skip_reference() {     // without looking where it leads
    const std::uint64_t code = get_unsigned();
    if (code != 0 && ((code - 1) & 1) != 0) get_unsigned();
  }

  // A number of elements that each take at least one byte: never more than there are bytes left, so
  // that it may be used to reserve memory.
  std::size_t get_count() {
    const std::uint64_t count = get_unsigned();
    if (count > left()) fail("ends too early");
    return static_cast<std::size_t>(count);
  }

  // Throws corrupt_data: "The stored object S:N WHAT."
  [[noreturn]] void fail(const char* what) const;

 private:
  std::uint64_t get_long_unsigned();

  const std::byte* next_;
  const std::byte* end_;
  object_id self_;
  bool is_lasting_ = false;
};

}  // namespace goods
