#include "tools/InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "tools/compression.h"
#include "tools/signals.h"

namespace tarns {

namespace {

[[noreturn]] void ThrowCannotRead(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "Cannot read \"" + path + "\"");
}

}  // namespace

InputFile::InputFile(const std::string& file) : path_(file) {
  file_ = file == "-" ? ::fcntl(0, F_DUPFD_CLOEXEC, 0) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (file_ < 0) ThrowCannotRead(path_);
  struct stat info {};
  if (::fstat(file_, &info) == 0 && S_ISREG(info.st_mode)) {
    size_ = static_cast<std::uint64_t>(info.st_size);
  }
  if (!IsCompressed(file)) return;
  decompressor_ = std::make_unique<Decompressor>(
      [this](char* into, std::size_t size) { return readBytes(into, size); });
}

InputFile::~InputFile() { ::close(file_); }

std::size_t InputFile::read(char* into, std::size_t size) {
  if (decompressor_ == nullptr) return readBytes(into, size);
  try {
    return decompressor_->read(into, size);
  } catch (const CompressionError& error) {
    throw std::runtime_error("Cannot decompress \"" + path_ + "\": " + error.what() + ".");
  }
}

std::size_t InputFile::readBytes(char* into, std::size_t size) {
  ssize_t got = 0;
  do {
    WaitUntilReadable(file_);
    got = ::read(file_, into, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) ThrowCannotRead(path_);
  position_ += static_cast<std::uint64_t>(got);
  return static_cast<std::size_t>(got);
}

}  // namespace tarns
