// A store's directory: made when missing, held by one process at a time.
#pragma once

#include <cstdint>
#include <string>

#include "storage/storage_process.h"

namespace goods {

// The directory above an absolute path.
std::string parent_of(const std::string& path);

// Makes the directory when it is missing (0700, under any umask; its parent must exist) and tells
// which one it is; that it was made is durable once there is a store in it. Throws input_output
// naming it.
directory_identity prepare_directory(const std::string& directory);

// The exclusive hold on a directory, by a lock on its file "lock". The kernel lets go of it when
// the process ends in whatever way; a forked child does not inherit it.
class directory_hold {
 public:
  // Throws database_in_use when another process has it, input_output naming the file otherwise.
  explicit directory_hold(const std::string& directory);
  ~directory_hold();
  directory_hold(const directory_hold&) = delete;
  directory_hold& operator=(const directory_hold&) = delete;

 private:
  int descriptor_;
};

// The files of a store. Only their holder changes them.
class store_files {
 public:
  explicit store_files(const std::string& directory);

  const std::string& directory() const { return directory_; }
  const std::string& database() const { return database_; }
  // Where a new store is put together, beside the final name.
  const std::string& unfinished() const { return unfinished_; }

  // Removes what a crash while making a store has left.
  void remove_unfinished() const;
  // Whether the store is there. Throws corrupt_data when only its write-ahead log is.
  bool exist() const;
  // Makes the unfinished file, empty and 0600 under any umask.
  void create_unfinished() const;
  // Syncs it and gives it its final name, durably; so becomes the directory's.
  void finish() const;
  // Compares the database file's size with what its header says, before it is opened.
  // Throws corrupt_data when it is cut or is no database, newer_version for a later format.
  void check_header() const;
  // Bytes of all files.
  std::uint64_t size() const;

 private:
  std::string directory_;
  std::string database_;
  std::string unfinished_;
};

}  // namespace goods
