#include <goods/byte_reader.h>

#include <bit>
#include <limits>

#include <fmt/format.h>

#include <goods/errors.h>

namespace goods {
namespace {

template <class Bits>
Bits read_high_bytes(byte_reader& in) {
  const unsigned count = in.get_byte();
  if (count > sizeof(Bits)) in.fail("holds a real number of impossible size");
  Bits bits = 0;
  for (unsigned i = sizeof(Bits) - count; i < sizeof(Bits); ++i) {
    bits |= Bits{in.get_byte()} << (8 * i);
  }
  return bits;
}

}  // namespace

void byte_reader::fail(const char* what) const {
  throw_error(error_code::corrupt_data, fmt::format("The stored object {}:{} {}.",
                                                    storage_of(self_), number_of(self_), what));
}

std::uint64_t byte_reader::get_long_unsigned() {
  std::uint64_t value = 0;
  for (unsigned shift = 0; shift < 64; shift += 7) {
    const std::uint64_t byte = get_byte();
    if (shift == 63 && byte > 1) break;
    value |= (byte & 0x7F) << shift;
    if (byte < 0x80) return value;
  }
  fail("holds a number that is too long");
}

std::int64_t byte_reader::get_signed() {
  const std::uint64_t zigzag = get_unsigned();
  return static_cast<std::int64_t>((zigzag >> 1) ^ (~(zigzag & 1) + 1));
}

double byte_reader::get_double() {
  return std::bit_cast<double>(read_high_bytes<std::uint64_t>(*this));
}

float byte_reader::get_float() {
  return std::bit_cast<float>(read_high_bytes<std::uint32_t>(*this));
}

object_id byte_reader::get_reference() {
  const std::uint64_t code = get_unsigned();
  if (code == 0) return 0;
  const std::uint64_t zigzag = (code - 1) >> 1;
  if (zigzag >> 33 != 0) fail("holds a reference that leads nowhere");
  const auto distance = static_cast<std::int64_t>((zigzag >> 1) ^ (~(zigzag & 1) + 1));
  const std::int64_t number = std::int64_t{number_of(self_)} + distance;
  std::uint64_t storage = storage_of(self_);
  if (((code - 1) & 1) != 0) storage = get_unsigned();
  if (number < std::int64_t{first_object_number} ||
      number > std::int64_t{std::numeric_limits<object_number>::max()} ||
      storage > std::numeric_limits<storage_number>::max()) {
    fail("holds a reference that leads nowhere");
  }
  return make_object_id(static_cast<storage_number>(storage), static_cast<object_number>(number));
}

}  // namespace goods
