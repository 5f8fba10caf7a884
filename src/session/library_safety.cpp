#include "session/library_safety.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "session/library_file.h"

namespace tarns {

namespace {

namespace fs = std::filesystem;

std::string SystemProblem() { return std::generic_category().message(errno); }

void VerifyOwner(const struct stat& status) {
  if (status.st_uid == 0 || status.st_uid == geteuid()) return;
  throw LibraryProblem("belongs to another user");
}

}  // namespace

OpenLibraryFile::OpenLibraryFile(const fs::path& path)
    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
  if (file_ >= 0) return;
  if (errno == ELOOP) throw LibraryProblem("is a symbolic link");
  throw LibraryProblem(fmt::format("cannot be opened: {}", SystemProblem()));
}

OpenLibraryFile::~OpenLibraryFile() { close(file_); }

struct stat OpenLibraryFile::status() const {
  struct stat status {};
  if (fstat(file_, &status) != 0) {
    throw LibraryProblem(fmt::format("cannot be looked at: {}", SystemProblem()));
  }
  return status;
}

void VerifyLibraryAccess(const struct stat& status) {
  VerifyOwner(status);
  if ((status.st_mode & S_IWOTH) != 0) throw LibraryProblem("is writable for all users");
}

void VerifyLibraryFolder(const fs::path& folder) {
  for (fs::path at = folder;; at = at.parent_path()) {
    const bool isAbove = at != folder;
    try {
      struct stat status {};
      if (stat(at.c_str(), &status) != 0) {
        throw LibraryProblem(fmt::format("cannot be looked at: {}", SystemProblem()));
      }
      if (!S_ISDIR(status.st_mode)) throw LibraryProblem("is no directory");
      VerifyOwner(status);
      if ((status.st_mode & S_IWOTH) != 0 && !(isAbove && (status.st_mode & S_ISVTX) != 0)) {
        throw LibraryProblem("is writable for all users");
      }
    } catch (const LibraryProblem& problem) {
      if (!isAbove) throw;
      throw LibraryProblem(fmt::format("lies in \"{}\", which {}", at.string(), problem.what()));
    }
    if (at == at.root_path() || at.empty()) return;
  }
}

}  // namespace tarns
