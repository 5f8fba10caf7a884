// Numbers as stored bytes: fixed ones little-endian, counts as variable-length numbers.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "storage/local/row_format.h"

namespace goods {

static_assert(std::endian::native == std::endian::little, "stored numbers are copied as they are");

template <std::unsigned_integral Number>
void store_number(std::byte* at, Number value) {
  std::memcpy(at, &value, sizeof value);
}

template <std::unsigned_integral Number>
Number load_number(const std::byte* at) {
  Number value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// Seven bits a byte, low ones first, the eighth bit set on all but the last.
inline constexpr std::size_t longest_varint = 10;

inline std::size_t varint_size(std::uint64_t value) {
  return static_cast<std::size_t>(std::bit_width(value | 1) + 6) / 7;
}

inline std::byte* store_varint(std::byte* at, std::uint64_t value) {
  for (; value >= 0x80; value >>= 7) *at++ = static_cast<std::byte>(value | 0x80);
  *at++ = static_cast<std::byte>(value);
  return at;
}

// Takes contents apart from front to back. Whatever does not fit throws damaged_bytes.
class row_reader {
 public:
  explicit row_reader(std::span<const std::byte> bytes) : rest_(bytes) {}

  template <std::unsigned_integral Number>
  Number number() {
    return load_number<Number>(take(sizeof(Number)).data());
  }

  std::uint64_t varint() {
    if (!rest_.empty() && rest_[0] < std::byte{0x80}) {  // nearly all are short
      const auto value = static_cast<std::uint64_t>(rest_[0]);
      rest_ = rest_.subspan(1);
      return value;
    }
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const auto byte = static_cast<std::uint64_t>(take(1)[0]);
      value |= (byte & 0x7f) << shift;
      if (byte < 0x80) {
        if (shift == 63 && byte > 1) break;
        return value;
      }
    }
    throw damaged_bytes("a number has more than 64 bits");
  }

  std::span<const std::byte> take(std::size_t size) {
    if (size > rest_.size()) throw damaged_bytes("it ends too early");
    const auto taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }

  std::size_t left() const { return rest_.size(); }
  void expect_end() const {
    if (!rest_.empty()) throw damaged_bytes("it is longer than its parts");
  }

 private:
  std::span<const std::byte> rest_;
};

// Puts contents together. For rows that are written seldom; segments are laid out in place.
class row_writer {
 public:
  template <std::unsigned_integral Number>
  row_writer& number(Number value) {
    bytes_.resize(bytes_.size() + sizeof value);
    store_number(bytes_.data() + bytes_.size() - sizeof value, value);
    return *this;
  }

  row_writer& varint(std::uint64_t value) {
    std::byte encoded[longest_varint];
    bytes_.insert(bytes_.end(), encoded, store_varint(encoded, value));
    return *this;
  }

  row_writer& append(std::span<const std::byte> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }

  // Room for so many bytes, to be filled before anything else is added.
  std::byte* extend(std::size_t size) {
    bytes_.resize(bytes_.size() + size);
    return bytes_.data() + (bytes_.size() - size);
  }

  std::span<const std::byte> view() const { return bytes_; }
  std::vector<std::byte> release() { return std::move(bytes_); }

 private:
  std::vector<std::byte> bytes_;
};

}  // namespace goods
