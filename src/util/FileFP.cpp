#include <tarns/util/FileFP.h>
#include <tarns/util/TempFile.h>

#include "util/file_error.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace tarns {

namespace {

// An open file, closed again when this goes.
class Descriptor {
 public:
  Descriptor(const char* path, int flags) : number_(::open(path, flags | O_CLOEXEC)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  int get() const { return number_; }

 private:
  int number_;
};

// False, with errno set, when the file cannot be opened or read.
bool Read(const char* path, std::string& bytes) {
  const Descriptor file(path, O_RDONLY);
  if (file.get() < 0) return false;
  std::array<char, 65536> block;  // NOLINT(*-member-init): filled by read
  for (;;) {
    const ssize_t count = ::read(file.get(), block.data(), block.size());
    if (count == 0) return true;
    if (count > 0) {
      bytes.append(block.data(), static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return false;
    }
  }
}

// The directory that holds `path`.
std::string DirectoryOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

// Makes the renaming of a file in it survive a loss of power.
void SyncDirectory(const std::string& directory) {
  const Descriptor opened(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (opened.get() < 0 || ::fsync(opened.get()) != 0) {
    ThrowFileError("write to disk the directory", directory);
  }
}

}  // namespace

const char* FileFP::FindExtension(const char* path) {
  const std::string_view text = ViewOf(path);
  const std::size_t start = text.rfind('/') + 1;  // 0 when there is none
  const std::size_t point = text.rfind('.');
  if (point == std::string_view::npos || point < start) return nullptr;
  const bool isHidden = text.substr(start, point - start).find_first_not_of('.') ==
                        std::string_view::npos;  // nothing but points before it
  return isHidden ? nullptr : path + point + 1;
}

void FileFP::SetExtension(XString& path, const char* extension) {
  std::string text(path.view());
  if (const char* const found = FindExtension(path)) {
    text.resize(static_cast<std::size_t>(found - path.getText()) - 1);
  }
  if (extension != nullptr) text.append(".").append(extension);
  path = std::string_view(text);
}

bool FileFP::ReadFromFile(const char* path, XString& text, int mustExist) {
  if (path == nullptr) path = "";
  std::string bytes;
  if (!Read(path, bytes)) {
    if (mustExist != 0) ThrowFileError("read the file", path);
    return false;
  }
  text = std::string_view(bytes);
  return true;
}

std::string FileFP::ReadBytes(const char* path) {
  if (path == nullptr) path = "";
  std::string bytes;
  if (!Read(path, bytes)) ThrowFileError("read the file", path);
  return bytes;
}

void FileFP::WriteToFile(const char* path, std::string_view content, unsigned permissions) {
  TempFile fresh(DirectoryOf(ViewOf(path)), ".tarns-");
  fresh.write(content);
  ReplaceFile(path, fresh, permissions);
}

void FileFP::ReplaceFile(const char* path, TempFile& fresh, unsigned permissions) {
  if (path == nullptr) path = "";
  if (::fchmod(fresh.getDescriptor(), permissions) != 0) ThrowFileError("protect the file", path);
  fresh.sync();
  if (std::rename(fresh.getPath().c_str(), path) != 0) ThrowFileError("write the file", path);
  fresh.keep();
  SyncDirectory(DirectoryOf(path));
}

}  // namespace tarns
