#pragma once

#include <tarns/vfs/TarnVFS.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/unique_file.h"

namespace tarns {

// Copies folders and items of a file system to real directories and files.
//
// Nothing is written outside of the target, whatever names and links the file system or the target
// holds: names that no file can have (".", "..", with "/") are passed over with a message, and what
// is a link in the target is not followed. A file that could not be written whole is removed, and
// what it was to replace stays.
// Links are made as links; permissions and times are set.
// Errors: std::system_error when the target cannot be opened at all or the disk is full;
// what the database reports, and Interrupted. Then getNumWritten() says what is there.
class VfsGetter {
 public:
  // `overwrite`: files and links that are there are replaced. `done(files)`: called for each file.
  VfsGetter(bool overwrite, std::function<void(std::uint64_t files)> done);
  ~VfsGetter();

  // Writes the content of a folder to the directory `target`, made when it is missing.
  void getFolder(const xcptref<TarnVFSFolder>& folder, const std::string& target);
  // Writes an item to the file `target`.
  void getItem(const xcptref<TarnVFSItem>& item, const std::string& target);

  std::uint64_t getNumWritten() const { return written_; }
  std::uint64_t getNumFailures() const { return failures_; }
  const std::string& getLastWritten() const { return lastWritten_; }  // its path; or ""

 private:
  struct Directory;

  void enter(Directory directory, const TarnVFSInfo& info);
  void leave();
  void getItems(const Directory& directory);
  void getBelow(const std::string& name);
  void getEntry(int directory, const std::string& name, const TarnVFSEntry& entry,
                const std::string& path);
  bool replace(int directory, const std::string& name, const TarnVFSEntry& entry);
  bool make(int directory, const std::string& name, const TarnVFSEntry& entry);
  bool writeFile(int directory, const std::string& name, const TarnVFSEntry& entry);
  bool writeContent(int file, const TarnVFSEntry& entry);
  bool makeLink(int directory, const std::string& name, const TarnVFSEntry& entry);
  void fail(const std::string& path, const char* what);
  void failWithError(const std::string& path);

  const bool overwrite_;
  const std::function<void(std::uint64_t files)> done_;
  std::vector<Directory> open_;  // the innermost last
  std::uint64_t written_ = 0, failures_ = 0, temporaries_ = 0;
  std::string lastWritten_;
};

}  // namespace tarns
