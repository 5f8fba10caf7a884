// Files of the system.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace tarns {

// An open file, closed when this goes.
class UniqueFile {
 public:
  UniqueFile() = default;
  explicit UniqueFile(int file) : file_(file) {}  // -1: none
  ~UniqueFile() {
    if (file_ >= 0) ::close(file_);
  }
  UniqueFile(UniqueFile&& other) noexcept : file_(std::exchange(other.file_, -1)) {}
  UniqueFile& operator=(UniqueFile&& other) noexcept {
    std::swap(file_, other.file_);
    return *this;
  }
  UniqueFile(const UniqueFile&) = delete;
  UniqueFile& operator=(const UniqueFile&) = delete;

  int get() const { return file_; }
  // Closes the file now; whether that succeeded, errno says why not.
  bool close() { return ::close(std::exchange(file_, -1)) == 0; }

 private:
  int file_ = -1;
};

// Throws what errno says at the time of the call.
[[noreturn]] inline void ThrowSystemError(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace tarns
