#include "support/allocation_count.h"

#include "support/replaced_new.h"

namespace {

thread_local std::size_t count = 0;

}  // namespace

bool may_allocate() noexcept {
  ++count;
  return true;
}

std::size_t allocation_count() { return count; }
