#include "storage/local/store_directory.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "storage/local/storage_file.h"
#include "storage/local/store_schema.h"

namespace goods {

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

directory_identity prepare_directory(const std::string& directory) {
  storage_disk::instance().make_directory(directory);
  struct stat status;
  if (::stat(directory.c_str(), &status) != 0)
    throw_system_error("looking at it", directory, errno);
  if (!S_ISDIR(status.st_mode)) throw_system_error("opening it", directory, ENOTDIR);
  return {status.st_dev, status.st_ino};
}

directory_hold::directory_hold(const std::string& directory)
    : descriptor_(storage_disk::instance().lock(directory + "/lock")) {
  if (descriptor_ < 0)
    throw_error(error_code::database_in_use,
                fmt::format("The storage \"{}\" is in use by another process.", directory));
  try {
    storage_process::instance().add_lock_descriptor(descriptor_);
  } catch (...) {  // out of memory
    ::close(descriptor_);
    throw;
  }
}

directory_hold::~directory_hold() {
  storage_process::instance().remove_lock_descriptor(descriptor_);
  ::close(descriptor_);
}

store_files::store_files(const std::string& directory)
    : directory_(directory),
      database_(directory + "/store.db"),
      unfinished_(directory + "/store.new") {}

void store_files::remove_unfinished() const {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"})
    storage_disk::instance().remove(unfinished_ + suffix);
}

bool store_files::exist() const {
  storage_disk& disk = storage_disk::instance();
  if (disk.size(database_)) return true;
  // A new store would take over the logs of the old one.
  for (const std::string& log :
       {database_ + "-wal", directory_ + "/commits.0", directory_ + "/commits.1"}) {
    if (!disk.size(log)) continue;
    throw_error(error_code::corrupt_data,
                fmt::format("The storage file \"{}\" is missing, but its log \"{}\" is there.",
                            database_, log));
  }
  return false;
}

void store_files::create_unfinished() const { storage_disk::instance().create(unfinished_); }

// Whoever finds the store under its final name need not care about the directory's own.
void store_files::finish() const {
  storage_disk& disk = storage_disk::instance();
  const auto unfinished = disk.open(unfinished_);
  if (!unfinished) throw_system_error("opening it", unfinished_, ENOENT);
  unfinished->sync();
  disk.sync_directory(parent_of(directory_));
  disk.rename(unfinished_, database_);
  disk.sync_directory(directory_);
}

void store_files::check_header() const {
  storage_disk& disk = storage_disk::instance();
  const auto file = disk.open(database_);
  if (!file) throw_system_error("opening it", database_, ENOENT);
  const std::uint64_t size = file->size();
  std::array<unsigned char, database_header_size> header{};
  const auto there = std::span(header).first(std::min<std::uint64_t>(size, header.size()));
  file->read(0, std::as_writable_bytes(there));
  // With a log, the file is whatever a crash has left: only the two together are the store.
  const bool has_log = disk.size(database_ + "-wal").value_or(0) > 0;
  check_database_header(database_, there, has_log ? 0 : size);
}

std::uint64_t store_files::size() const {
  std::uint64_t total = 0;
  for (const char* suffix : {"", "-wal", "-shm"})
    total += storage_disk::instance().size(database_ + suffix).value_or(0);
  return total;
}

}  // namespace goods
