#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

// Tells whoever started this program, which is going to be killed, what it has made durable.
inline void acknowledge(std::string line) {
  line += '\n';
  if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    std::_Exit(1);
  }
}
