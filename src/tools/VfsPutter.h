#pragma once

#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarns {

// Copies real files and directories into a file system.
//
// Directories are merged with folders that are there, files take the place of the content of items.
// Symbolic links become links; what is neither file, directory nor link is passed over with a
// message, and so is what cannot be read. Many small files go into one transaction. Names: see
// NameInTree().
// Errors: std::system_error when the source cannot be opened at all; what the database reports,
// and Interrupted: then getNumStored() says what is there.
class VfsPutter {
 public:
  // `done(files)`: called for each file.
  VfsPutter(TarnVFS& files, std::function<void(std::uint64_t files)> done);
  ~VfsPutter();

  // Passes over the directory, wherever it is met, with a message.
  void leaveOut(const std::string& directory);
  // Puts `source` at `path`.
  void put(const std::string& source, const std::string& path);

  std::uint64_t getNumStored() const { return stored_; }  // files and links
  std::uint64_t getNumFailures() const { return failures_; }
  const std::string& getLastStored() const { return lastStored_; }  // the last file's path; or ""

 private:
  struct Directory;
  struct Change;

  void putDirectory(std::shared_ptr<Directory> directory);
  void putEntry(const std::shared_ptr<Directory>& directory, const std::string& name);
  void putLink(const std::shared_ptr<Directory>& directory, const std::string& name);
  void putFile(const std::shared_ptr<Directory>& directory, const std::string& name);
  void putLarge(const std::shared_ptr<Directory>& directory, const std::string& name, int file,
                std::uint64_t limit);
  void add(Change change);
  void commit();
  void apply(Change& change);
  void writeOver(const std::string& path, const Change& change);
  void makeFolder(Directory& directory);
  bool isFolderThere(Directory& directory, const std::string& name);
  void fail(const std::string& path, const char* what);

  TarnVFS& files_;
  const std::function<void(std::uint64_t files)> done_;
  std::vector<std::shared_ptr<Directory>> open_;  // the next one last
  std::vector<Change> changes_;                   // not stored yet
  std::uint64_t changedBytes_ = 0;
  std::set<std::pair<dev_t, ino_t>> leftOut_;  // directories
  std::uint64_t found_ = 0, stored_ = 0, failures_ = 0;
  std::string lastFound_, lastStored_;
  std::string buffer_;
};

}  // namespace tarns
