#pragma once

#include <cstddef>

// How often the calling thread has called new so far, for tests that something allocates nothing.
// A program that uses it lists support/allocation_count.cpp and support/replaced_new.cpp.
std::size_t allocation_count();
