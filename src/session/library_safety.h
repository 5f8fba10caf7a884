// Whether a library may be run: who can have written it.
#pragma once

#include <sys/stat.h>

#include <filesystem>

namespace tarns {

// A file of a library folder, open for reading. Errors: LibraryProblem, here and below.
class OpenLibraryFile {
 public:
  // Refuses links.
  explicit OpenLibraryFile(const std::filesystem::path& path);
  ~OpenLibraryFile();
  OpenLibraryFile(const OpenLibraryFile&) = delete;
  OpenLibraryFile& operator=(const OpenLibraryFile&) = delete;

  int get() const { return file_; }
  struct stat status() const;

 private:
  const int file_;
};

// Throws unless only the user, root and groups can change the file.
void VerifyLibraryAccess(const struct stat& status);
// The same of a folder and all directories above it; its path must be one without links.
void VerifyLibraryFolder(const std::filesystem::path& folder);

}  // namespace tarns
