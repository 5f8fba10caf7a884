// Expecting errors of goods by their code.
#pragma once

#include <optional>

#include <goods/errors.h>

namespace goods {

// The code of the error that `work` throws; none when it throws nothing.
template <class Work>
std::optional<error_code> code_of(const Work& work) {
  try {
    work();
  } catch (const error_info& error) {
    return error.code();
  }
  return std::nullopt;
}

}  // namespace goods
