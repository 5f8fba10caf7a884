#include <tarns/util/TempFile.h>

#include "util/file_error.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace tarns {

namespace {

std::string DefaultDirectory() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here changes the environment
  const char* set = std::getenv("TMPDIR");
  return set != nullptr && *set != '\0' ? set : "/tmp";
}

}  // namespace

TempFile::TempFile(std::string_view directory, std::string_view prefix)
    : path_(directory.empty() ? DefaultDirectory() : std::string(directory)) {
  const std::string where = path_;
  path_.append("/").append(prefix).append("XXXXXX");
  // Creates with O_EXCL and permissions 0600.
  descriptor_ = ::mkostemp(path_.data(), O_CLOEXEC);
  if (descriptor_ < 0) ThrowFileError("create a temporary file in", where);
}

TempFile::~TempFile() {
  ::close(descriptor_);
  if (!kept_) ::unlink(path_.c_str());
}

void TempFile::write(std::string_view bytes) { WriteAll(descriptor_, bytes, path_); }

void TempFile::sync() {
  if (::fsync(descriptor_) != 0) ThrowFileError("write to disk the file", path_);
}

}  // namespace tarns
