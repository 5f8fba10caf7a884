// What the fuzzers share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Ends the process, which is a finding.
inline void require(bool isTrue) {
  if (!isTrue) std::abort();
}

// Reads it, so that the sanitizers see the access.
template <class T>
void use(const T& value) {
  [[maybe_unused]] const volatile T copy = value;
}

// The input was found to be damaged, which is an answer.
inline void refused() {}

}  // namespace fuzz
