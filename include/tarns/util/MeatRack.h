#pragma once

#include <type_traits>
#include <utility>

namespace tarns {

// Small helpers for any type.
class MeatRack {
 public:
  // Exchanges two values through the swap that their type offers.
  template <typename T>
  // NOLINTNEXTLINE(readability-identifier-naming): the name that callers know
  static void trade(T& left, T& right) noexcept(std::is_nothrow_swappable_v<T>) {
    using std::swap;
    swap(left, right);
  }
};

}  // namespace tarns
