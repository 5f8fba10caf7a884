#include "storage/local/unfinished_directory.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "storage/local/storage_file.h"
#include "storage/local/store_directory.h"
#include "storage/storage_process.h"

namespace goods {
namespace {

constexpr const char* mark_name = "unfinished-copy";
constexpr const char* store_file_names[] = {"store.db",         "store.db-wal",  "store.db-shm",
                                            "store.new",        "store.new-wal", "store.new-shm",
                                            "store.new-journal"};

[[noreturn]] void throw_no_name(const std::string& directory) {
  throw_error(error_code::usage, fmt::format("\"{}\" is no name for a new directory.", directory));
}

std::string full_path(const std::string& directory) {
  if (directory.empty() || directory.find('\0') != std::string::npos) throw_no_name(directory);
  const std::filesystem::path full = std::filesystem::absolute(directory).lexically_normal();
  std::string path = full.has_filename() ? full.string() : full.parent_path().string();
  if (path == "/") throw_no_name(directory);
  return path;
}

// A directory with nothing in it but files of a store.
void remove_store(const std::string& directory) {
  storage_disk& disk = storage_disk::instance();
  for (const char* name : store_file_names) disk.remove(fmt::format("{}/{}", directory, name));
  disk.remove_directory(directory);
}

}  // namespace

unfinished_directory::unfinished_directory(const std::string& directory)
    : directory_(full_path(directory)),
      path_(directory_ + ".unfinished"),
      mark_(fmt::format("{}/{}", path_, mark_name)) {
  storage_disk& disk = storage_disk::instance();
  if (disk.is_there(directory_))
    throw_error(error_code::usage,
                fmt::format("There is something at \"{}\" already.", directory_));
  make();
  try {
    lock_ = disk.lock(mark_);
    if (lock_ < 0)
      throw_error(error_code::database_in_use,
                  fmt::format("\"{}\" is being made already.", directory_));
    storage_process::instance().add_lock_descriptor(lock_);
    empty();
    // The mark comes before all else, also after a loss of power.
    disk.sync_directory(path_);
  } catch (...) {
    end();
    throw;
  }
}

unfinished_directory::~unfinished_directory() { end(); }

// Makes the directory, or finds a leftover there.
void unfinished_directory::make() {
  storage_disk& disk = storage_disk::instance();
  if (disk.make_directory(path_)) return;
  const auto names = disk.list(path_);
  if (names.empty() || std::ranges::count(names, mark_name) != 0) return;
  throw_error(error_code::usage,
              fmt::format("There is something at \"{}\" already, which is not left from making "
                          "\"{}\".",
                          path_, directory_));
}

// Removes everything but the mark.
void unfinished_directory::empty() {
  storage_disk& disk = storage_disk::instance();
  for (const std::string& name : disk.list(path_)) {
    if (name == mark_name) continue;
    const std::string path = fmt::format("{}/{}", path_, name);
    if (name == copied_configuration)
      disk.remove(path);
    else
      remove_store(path);
  }
}

void unfinished_directory::end() noexcept {
  if (lock_ < 0) return;  // somebody else's
  if (!finished_) {
    try {
      empty();
      storage_disk::instance().remove(mark_);
      storage_disk::instance().remove_directory(path_);
    } catch (...) {  // NOLINT(bugprone-empty-catch): a leftover, see the class comment
    }
  }
  storage_process::instance().remove_lock_descriptor(lock_);
  ::close(lock_);
}

void unfinished_directory::finish() {
  storage_disk& disk = storage_disk::instance();
  disk.sync_directory(path_);
  disk.rename_to_new(path_, directory_);
  finished_ = true;
  disk.sync_directory(parent_of(directory_));
  // From here on it is only an empty file.
  try {
    disk.remove(fmt::format("{}/{}", directory_, mark_name));
  } catch (const error_info&) {  // NOLINT(bugprone-empty-catch)
  }
}

}  // namespace goods
