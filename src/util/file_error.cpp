#include "util/file_error.h"

#include <tarns/util/XException.h>

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tarns {

void ThrowFileError(std::string_view what, std::string_view path) {
  const int reason = errno;
  XException error;
  error << "Cannot " << what << " \"" << path << "\": " << std::generic_category().message(reason)
        << ".";
  throw error;
}

void WriteAll(int descriptor, std::string_view bytes, std::string_view path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      ThrowFileError("write the file", path);
    }
  }
}

}  // namespace tarns
