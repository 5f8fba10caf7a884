#include "tools/JsonInput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tools/signals.h"

namespace tarns {

namespace {

[[noreturn]] void ThrowCannotRead(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "Cannot read \"" + path + "\"");
}

}  // namespace

JsonInput::JsonInput(const std::string& path) : path_(path) {
  file_ = path == "-" ? ::fcntl(0, F_DUPFD_CLOEXEC, 0) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file_ < 0) ThrowCannotRead(path_);
  struct stat info {};
  if (::fstat(file_, &info) == 0 && S_ISREG(info.st_mode)) {
    size_ = static_cast<std::uint64_t>(info.st_size);
  }
  fill();
}

JsonInput::~JsonInput() { ::close(file_); }

void JsonInput::fill() {
  before_ += buffer_.size();
  at_ = 0;
  buffer_.resize(kBufferSize);
  ssize_t got = 0;
  do {
    WaitUntilReadable(file_);
    got = ::read(file_, buffer_.data(), buffer_.size());
  } while (got < 0 && errno == EINTR);
  if (got < 0) ThrowCannotRead(path_);
  buffer_.resize(static_cast<std::size_t>(got));
}

}  // namespace tarns
