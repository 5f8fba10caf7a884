// Libraries of which no code may run: it would end the process.
#include <cstdlib>

extern "C" {
#ifdef ABI
__attribute__((visibility("default"))) extern const char tarns_library_abi[];
const char tarns_library_abi[] = ABI;
#endif
}

namespace {
[[maybe_unused]] const bool hasRun = [] {
  std::abort();
  return true;
}();
}  // namespace
