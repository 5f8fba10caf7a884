#pragma once

#include <concepts>
#include <utility>

namespace tarns {

// -1, 0 or 1 as `left` is less than, equal to or greater than `right`, by value: signed and
// unsigned integers of any width compare as the numbers they are (-1 is less than 2^63).
template <std::integral L, std::integral R>
constexpr int leCompare(L left, R right) noexcept {
  return std::cmp_less(left, right) ? -1 : static_cast<int>(std::cmp_less(right, left));
}

// The same for real numbers. One that is not a number is neither less nor greater: 0.
template <std::floating_point T>
constexpr int leCompare(T left, T right) noexcept {
  return left < right ? -1 : static_cast<int>(right < left);
}

}  // namespace tarns
