#include "tools/Output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

namespace tarns {

namespace {

constexpr std::size_t kUsualColumns = 80;
constexpr int kMostLinks = 40;

// Where a path leads through symbolic links, of which the last may lead to nothing yet.
std::string BehindLinks(std::filesystem::path path) {
  std::error_code error;
  for (int links = 0; std::filesystem::is_symlink(path, error); ++links) {
    const std::filesystem::path next = std::filesystem::read_symlink(path, error);
    if (error || links == kMostLinks) break;
    path = path.parent_path() / next;
  }
  return path.string();
}

}  // namespace

Output::Output(const std::string& path) {
  if (path == "-") return;
  path_ = path;
  if (IsCompressed(path)) compressor_ = std::make_unique<Compressor>();
  const std::string target = BehindLinks(path);
  struct stat info {};
  const bool exists = ::stat(target.c_str(), &info) == 0;
  if (exists && !S_ISREG(info.st_mode)) {
    file_ = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    if (file_ < 0) throwCannotWrite();
    return;
  }
  if (exists && ::access(target.c_str(), W_OK) != 0) throwCannotWrite();
  openPart(target);
  if (!exists) return;
  // Who may read the file goes on to be able to, and nobody else: without its group that means us.
  const bool hasOwners = ::fchown(file_, info.st_uid, info.st_gid) == 0;
  [[maybe_unused]] const int kept = ::fchmod(file_, info.st_mode & (hasOwners ? 0777 : 0700));
}

void Output::openPart(const std::string& target) {
  watch_.emplace();
  targetPath_ = target;
  partPath_ = target + ".part" + std::to_string(::getpid());
  file_ = ::open(partPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file_ >= 0) return;
  partPath_.clear();
  throwCannotWrite();
}

Output::~Output() {
  if (path_.empty()) return;
  if (file_ >= 0) ::close(file_);
  if (!partPath_.empty()) ::unlink(partPath_.c_str());
}

void Output::throwCannotWrite() const {
  throw std::system_error(
      errno, std::generic_category(),
      path_.empty() ? "Cannot write the output" : "Cannot write \"" + path_ + "\"");
}

void Output::flush() { pass(false); }

// Writes what is in the buffer.
void Output::pass(bool isEnd) {
  if (compressor_ == nullptr) {
    writeAll(buffer_);
  } else {
    std::string compressed;
    compressor_->write(buffer_, isEnd, compressed);
    writeAll(compressed);
  }
  buffer_.clear();
}

void Output::writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EPIPE) throw OutputClosed();
    if (written < 0) throwCannotWrite();
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void Output::finish() {
  pass(true);
  if (path_.empty()) return;
  const int file = std::exchange(file_, -1);
  const bool isStored = ::fsync(file) == 0 || errno == EINVAL;
  if (::close(file) != 0 || !isStored) throwCannotWrite();
  if (partPath_.empty()) return;
  if (::rename(partPath_.c_str(), targetPath_.c_str()) != 0) throwCannotWrite();
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
