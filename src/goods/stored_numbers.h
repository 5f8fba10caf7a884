// Numbers on their way from the type that they were stored as to the one that a member has now.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>
#include <variant>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/field_descriptor.h>

namespace goods {

using stored_number = std::variant<std::int64_t, std::uint64_t, double>;

inline bool is_number(field_type type) {
  return type == field_type::signed_integer || type == field_type::unsigned_integer ||
         type == field_type::real || type == field_type::text;
}

// The nearest T; 0 for not-a-number.
template <class T>
T nearest(const stored_number& number) {
  return std::visit(
      []<class From>(From value) {
        using limits = std::numeric_limits<T>;
        if constexpr (std::is_floating_point_v<T>) {
          return static_cast<T>(value);
        } else if constexpr (std::is_floating_point_v<From>) {
          if (std::isnan(value)) return T{0};
          if (value <= static_cast<double>(limits::min())) return limits::min();
          if (value >= static_cast<double>(limits::max())) return limits::max();
          return static_cast<T>(value);
        } else {
          if (std::cmp_less(value, limits::min())) return limits::min();
          if (std::cmp_greater(value, limits::max())) return limits::max();
          return static_cast<T>(value);
        }
      },
      number);
}

// One item of a number member; not for arrays of one-byte integers, which are stored as text.
inline stored_number read_number(const dbs_field_descriptor& field, byte_reader& in) {
  switch (field.type) {
    case field_type::real:
      return field.size == 4 ? double{in.get_float()} : in.get_double();
    case field_type::signed_integer:
      if (field.size == 1) return std::int64_t{static_cast<std::int8_t>(in.get_byte())};
      return in.get_signed();
    default:
      if (field.size == 1) return std::uint64_t{in.get_byte()};
      return in.get_unsigned();
  }
}

template <class T>
void store_nearest(char* at, const stored_number& number) {
  const T value = nearest<T>(number);
  std::memcpy(at, &value, sizeof(T));
}

// What a number becomes where only true and false are: neither 0 nor not-a-number is true.
inline bool is_true(const stored_number& number) {
  return std::visit([](auto value) { return value != 0 && value == value; }, number);
}

// Into a member's item in memory; for booleans see the next one.
inline void store_number(field_type type, unsigned size, char* at, const stored_number& number) {
  const bool is_signed = type == field_type::signed_integer;
  if (type == field_type::real) {
    return size == 4 ? store_nearest<float>(at, number) : store_nearest<double>(at, number);
  }
  switch (size) {
    case 1:
      return is_signed ? store_nearest<std::int8_t>(at, number)
                       : store_nearest<std::uint8_t>(at, number);
    case 2:
      return is_signed ? store_nearest<std::int16_t>(at, number)
                       : store_nearest<std::uint16_t>(at, number);
    case 4:
      return is_signed ? store_nearest<std::int32_t>(at, number)
                       : store_nearest<std::uint32_t>(at, number);
    default:
      return is_signed ? store_nearest<std::int64_t>(at, number)
                       : store_nearest<std::uint64_t>(at, number);
  }
}

inline void store_number(const field_descriptor& member, char* at, const stored_number& number) {
  if (member.is_boolean()) {
    *at = is_true(number) ? 1 : 0;
  } else {
    store_number(member.type(), member.size(), at, number);
  }
}

}  // namespace goods
