// Files that the embedded backend writes by itself, beside those of SQLite.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <goods/errors.h>

namespace goods {

// An open file. Everything that reaches the disk past SQLite goes through here and storage_disk, so
// that a test can put a failing disk in its place (tests/support/faulty_vfs.h).
//
// Units: bytes. Ownership: whoever opened it destroys it, which does not sync.
// Threads: any; what overlaps is the caller's business.
// Errors: storage_full and input_output naming file, operation and reason. After a failed sync()
// nothing written since the last good one may be trusted.
class storage_file {
 public:
  virtual ~storage_file() = default;

  virtual std::uint64_t size() = 0;

  // Fills all of `into`; a file that ends earlier is an error, not a short read.
  virtual void read(std::uint64_t at, std::span<std::byte> into) = 0;

  // Grows the file when it ends earlier. When this fails, any part may have been written.
  virtual void write(std::uint64_t at, std::span<const std::byte> from) = 0;

  // Returns once every earlier write, and the size, survives a loss of power.
  virtual void sync() = 0;

  // From now on writes go past the system's cache where its file system can do that: for a file
  // that is synced after every write. Only whole file_blocks gain; the first write or read of
  // anything else is as before, and ends it.
  virtual void bypass_cache() = 0;
};

// What is written past the system's cache consists of these, in memory and in the file.
struct alignas(4096) file_block {
  static constexpr std::size_t bytes = 4096;
  std::array<std::byte, bytes> content{};
};

// Where files are.
// Threads: any. Errors: as above.
class storage_disk {
 public:
  virtual ~storage_disk() = default;

  // Makes a file that is not there yet, 0600 under any umask; never through a symbolic link.
  virtual std::unique_ptr<storage_file> create(const std::string& path) = 0;
  // Null when there is none. Refuses all but plain files.
  virtual std::unique_ptr<storage_file> open(const std::string& path) = 0;
  // Whether there was one.
  virtual bool remove(const std::string& path) = 0;
  // Replaces what has that name.
  virtual void rename(const std::string& from, const std::string& to) = 0;
  // Bytes of the file; nothing when there is none.
  virtual std::optional<std::uint64_t> size(const std::string& path) = 0;
  // 0700 under any umask. False, and nothing is done, when there is something of that name.
  virtual bool make_directory(const std::string& path) = 0;
  // An empty one.
  virtual void remove_directory(const std::string& path) = 0;
  // The names in a directory, in order; refuses a symbolic link to one.
  virtual std::vector<std::string> list(const std::string& path) = 0;
  // Whether there is anything of that name; a symbolic link is something.
  virtual bool is_there(const std::string& path) = 0;
  // Fails when there is something of the new name.
  virtual void rename_to_new(const std::string& from, const std::string& to) = 0;
  // Returns once names given and taken in the directory are so after a loss of power.
  virtual void sync_directory(const std::string& path) = 0;
  // Opens the file, or makes it as create() does, and locks it exclusively until the descriptor is
  // closed, which is up to the caller; -1 when another process has locked it.
  virtual int lock(const std::string& path) = 0;

  // The machine's own, unless a test has put another one in its place.
  static storage_disk& instance();
  // For tests: from now on `other`, which outlives its use; null for the machine's own.
  static void replace(storage_disk* other);
  static storage_disk& machine();
};

// Throws the error that belongs to the system's error number.
[[noreturn]] void throw_system_error(std::string_view operation, const std::string& path,
                                     int error);

}  // namespace goods
