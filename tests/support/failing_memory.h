#pragma once

#include <cstdint>

// Memory that runs out, for C++ and for SQLite. A program that uses it lists
// support/failing_memory.cpp, which replaces what SQLite allocates with, and
// support/replaced_new.cpp.
//
// While one exists, the allocation after the first `after` ones fails, in whatever thread; and with
// `for_good` all later ones. Only one at a time; nothing of the test's own should allocate then.
class failing_memory {
 public:
  explicit failing_memory(std::uint64_t after, bool for_good = false);
  ~failing_memory();
  failing_memory(const failing_memory&) = delete;
  failing_memory& operator=(const failing_memory&) = delete;

  // Whether an allocation has failed since it was made; also of the last one that existed.
  static bool has_failed();
};
