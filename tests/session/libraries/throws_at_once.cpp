// A library whose static initialiser throws outside of all that tarns could catch.
#include <tarns/session/TarnLibrary.h>

#include <stdexcept>

TARN_LIBRARY();

namespace {
[[maybe_unused]] const bool hasThrown = [] {
  throw std::runtime_error("too early");
  return true;
}();
}  // namespace
