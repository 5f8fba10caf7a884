// What makes a shared library one that TarnLibraries loads; see docs/libraries.md.
#pragma once

// The interface that a library was compiled for. Raised with every version of tarns whose classes
// have another layout or other virtual functions.
#define TARNS_LIBRARY_ABI "tarns 0.1"

// In one source file of the library, outside of any namespace. Its classes are registered as in a
// program, by TARN_REGISTER.
#define TARN_LIBRARY()                                                          \
  extern "C" {                                                                  \
  __attribute__((visibility("default"))) extern const char tarns_library_abi[]; \
  const char tarns_library_abi[] = TARNS_LIBRARY_ABI;                           \
  }                                                                             \
  static_assert(sizeof(TARNS_LIBRARY_ABI) > 1)
