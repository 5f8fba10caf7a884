// Where packed states are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include <goods/goods_api.h>
#include <goods/object_ref.h>

namespace goods {

// A buffer that grows at its end; one serves all objects of a commit.
//
// The stored form of each kind of value stands at the function that writes it; byte_reader has the
// inverse. Everything is little-endian and independent of the compiler.
// Threads: one at a time. Errors: std::bad_alloc.
class GOODS_API byte_writer {
 public:
  byte_writer() = default;
  byte_writer(byte_writer&&) noexcept = default;
  byte_writer& operator=(byte_writer&&) noexcept = default;

  std::size_t size() const { return size_; }
  const std::byte* data() const { return bytes_.get(); }  // moves when the buffer grows
  std::span<const std::byte> bytes(std::size_t from = 0) const {
    return {bytes_.get() + from, size_ - from};
  }
  void clear() { size_ = 0; }                        // keeps the room
  void truncate(std::size_t size) { size_ = size; }  // requires size <= size()

  void put_byte(std::uint8_t value) {
    *room(1) = std::byte{value};
    ++size_;
  }
  void put_bytes(std::span<const std::byte> bytes);

  // Seven bits a byte, low ones first, the high bit set on all but the last: 1 to 10 bytes.
  void put_unsigned(std::uint64_t value);
  // Zigzag (0, -1, 1, -2, ...), then as put_unsigned().
  void put_signed(std::int64_t value);
  // A byte with the number n of bytes that follow, then the highest n bytes of the IEEE form, high
  // ones last; the others are zero. 0.0 takes one byte, 1.0 three, 0.1 nine. Bit for bit.
  void put_double(double value);
  void put_float(float value);
  // Length as put_unsigned(), then the bytes.
  void put_text(std::string_view text);
  // 0 for none. Otherwise 1 + 2 * zigzag(number - number of self) (+ 1 and the storage behind it
  // when that is not the one of self) as put_unsigned(): a neighbour takes one or two bytes.
  void put_reference(object_id target, object_id self);
  // A word met in a body. A handle counts as its identifier; one without is an error (usage) when
  // counted, and is stored as none when it is a back reference.
  void put_reference(ref_word target, ref_kind kind, object_id self);

 private:
  std::byte* room(std::size_t bytes) {
    if (size_ + bytes > capacity_) grow(bytes);
    return bytes_.get() + size_;
  }
  void grow(std::size_t bytes);

  std::unique_ptr<std::byte[]> bytes_;
  std::size_t size_ = 0, capacity_ = 0;
};

}  // namespace goods
