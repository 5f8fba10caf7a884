#include "tools/Output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace tarns {

namespace {

constexpr std::size_t kUsualColumns = 80;

[[noreturn]] void ThrowSystemError(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Output::Output(const std::string& path) {
  if (path == "-") return;
  path_ = path;
  partPath_ = path + ".part" + std::to_string(::getpid());
  file_ = ::open(partPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (file_ < 0) {
    const std::string refused = std::exchange(partPath_, std::string());
    ThrowSystemError("Cannot write \"" + refused + "\"");
  }
}

Output::~Output() {
  if (path_.empty()) return;
  if (file_ >= 0) ::close(file_);
  if (!partPath_.empty()) ::unlink(partPath_.c_str());
}

void Output::flush() {
  std::string_view rest = buffer_;
  while (!rest.empty()) {
    const ssize_t written = ::write(file_, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EPIPE) throw OutputClosed();
    if (written < 0) {
      ThrowSystemError(path_.empty() ? "Cannot write the output"
                                     : "Cannot write \"" + path_ + "\"");
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  buffer_.clear();
}

void Output::finish() {
  flush();
  if (path_.empty()) return;
  const int file = std::exchange(file_, -1);
  const bool isStored = ::fsync(file) == 0 || errno == EINVAL;
  if (::close(file) != 0 || !isStored || ::rename(partPath_.c_str(), path_.c_str()) != 0) {
    ThrowSystemError("Cannot write \"" + path_ + "\"");
  }
  partPath_.clear();
}

bool Output::isTerminal() const { return ::isatty(file_) == 1; }

std::size_t Output::getColumns() const {
  winsize size{};
  if (::ioctl(file_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualColumns;
  return size.ws_col;
}

bool TalksToTerminal() { return ::isatty(2) == 1; }

}  // namespace tarns
