#include <goods/byte_writer.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include <goods/errors.h>
#include <goods/object_handle.h>

namespace goods {
namespace {

// The highest `width` bytes of a bit pattern without the zero bytes at its low end.
template <class Bits>
unsigned significant_bytes(Bits bits) {
  if (bits == 0) return 0;
  return static_cast<unsigned>(sizeof(Bits)) - static_cast<unsigned>(std::countr_zero(bits)) / 8;
}

}  // namespace

void byte_writer::grow(std::size_t bytes) {
  const std::size_t capacity = std::max({size_ + bytes, capacity_ * 2, std::size_t{256}});
  std::unique_ptr<std::byte[]> larger(new std::byte[capacity]);
  if (size_ != 0) std::memcpy(larger.get(), bytes_.get(), size_);
  bytes_ = std::move(larger);
  capacity_ = capacity;
}

void byte_writer::put_bytes(std::span<const std::byte> bytes) {
  if (bytes.empty()) return;
  std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
  size_ += bytes.size();
}

void byte_writer::put_unsigned(std::uint64_t value) {
  std::byte* at = room(10);
  const std::byte* begin = at;
  while (value >= 0x80) {
    *at++ = static_cast<std::byte>(value | 0x80);
    value >>= 7;
  }
  *at++ = static_cast<std::byte>(value);
  size_ += static_cast<std::size_t>(at - begin);
}

void byte_writer::put_signed(std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  put_unsigned((bits << 1) ^ static_cast<std::uint64_t>(value >> 63));
}

void byte_writer::put_double(double value) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const unsigned count = significant_bytes(bits);
  put_byte(static_cast<std::uint8_t>(count));
  for (unsigned i = 8 - count; i < 8; ++i) put_byte(static_cast<std::uint8_t>(bits >> (8 * i)));
}

void byte_writer::put_float(float value) {
  const auto bits = std::bit_cast<std::uint32_t>(value);
  const unsigned count = significant_bytes(bits);
  put_byte(static_cast<std::uint8_t>(count));
  for (unsigned i = 4 - count; i < 4; ++i) put_byte(static_cast<std::uint8_t>(bits >> (8 * i)));
}

void byte_writer::put_text(std::string_view text) {
  put_unsigned(text.size());
  put_bytes(std::as_bytes(std::span(text)));
}

void byte_writer::put_reference(object_id target, object_id self) {
  if (target == 0) return put_byte(0);
  const std::int64_t distance = std::int64_t{number_of(target)} - std::int64_t{number_of(self)};
  const auto zigzag =
      (static_cast<std::uint64_t>(distance) << 1) ^ static_cast<std::uint64_t>(distance >> 63);
  const bool is_elsewhere = storage_of(target) != storage_of(self);
  put_unsigned(1 + 2 * zigzag + (is_elsewhere ? 1 : 0));
  if (is_elsewhere) put_unsigned(storage_of(target));
}

void byte_writer::put_reference(ref_word target, ref_kind kind, object_id self) {
  if (!target.is_handle()) return put_reference(target.is_null() ? 0 : target.id(), self);
  const object_id id = target.handle()->id();
  if (id == 0 && kind == ref_kind::counted) {
    throw_error(error_code::usage, "A reference to an object that is not stored was packed.");
  }
  put_reference(id, self);
}

}  // namespace goods
