#include "support/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t count = 0;

void* counted(std::size_t size) noexcept {
  ++count;
  return std::malloc(size != 0 ? size : 1);
}

}  // namespace

std::size_t allocation_count() { return count; }

// All forms but those for over-aligned types: in programs with a sanitizer, the forms that are left
// out do not call these.
void* operator new(std::size_t size) {
  if (void* memory = counted(size)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
