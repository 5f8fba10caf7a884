#include "storage/local/store_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "storage/local/storage_file.h"
#include "storage/local/store_schema.h"

namespace goods {
namespace {

// A descriptor that is closed at the end of its scope.
class descriptor {
 public:
  descriptor(const std::string& path, int flags, mode_t mode = 0)
      : path_(path), number_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {
    if (number_ < 0) throw_system_error("opening it", path, errno);
  }
  ~descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  int number() const { return number_; }
  int release() { return std::exchange(number_, -1); }
  void sync() const {
    if (::fsync(number_) != 0) throw_system_error("syncing it", path_, errno);
  }
  // Whatever the umask took away.
  void set_private() const {
    if (::fchmod(number_, 0600) != 0) throw_system_error("changing its mode", path_, errno);
  }

 private:
  std::string path_;
  int number_;
};

bool exists(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) == 0) return true;
  if (errno != ENOENT) throw_system_error("looking at it", path, errno);
  return false;
}

void remove_file(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    throw_system_error("removing it", path, errno);
}

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

void make_directory(const std::string& directory) {
  if (::mkdir(directory.c_str(), 0700) != 0) {
    if (errno == EEXIST) return;
    throw_system_error("making the directory", directory, errno);
  }
  if (::chmod(directory.c_str(), 0700) != 0)
    throw_system_error("changing its mode", directory, errno);
  descriptor(parent_of(directory), O_RDONLY | O_DIRECTORY).sync();
}

}  // namespace

directory_identity prepare_directory(const std::string& directory) {
  make_directory(directory);
  struct stat status;
  if (::stat(directory.c_str(), &status) != 0)
    throw_system_error("looking at it", directory, errno);
  if (!S_ISDIR(status.st_mode)) throw_system_error("opening it", directory, ENOTDIR);
  return {status.st_dev, status.st_ino};
}

directory_hold::directory_hold(const std::string& directory) {
  const std::string path = directory + "/lock";
  descriptor file(path, O_RDWR | O_CREAT, 0600);
  file.set_private();
  while (::flock(file.number(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) throw_system_error("locking it", path, errno);
    throw_error(error_code::database_in_use,
                fmt::format("The storage \"{}\" is in use by another process.", directory));
  }
  storage_process::instance().add_lock_descriptor(file.number());
  descriptor_ = file.release();
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
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) remove_file(unfinished_ + suffix);
}

bool store_files::exist() const {
  if (exists(database_)) return true;
  // A new store would take over the logs of the old one.
  for (const std::string& log :
       {database_ + "-wal", directory_ + "/commits.0", directory_ + "/commits.1"}) {
    if (!exists(log)) continue;
    throw_error(error_code::corrupt_data,
                fmt::format("The storage file \"{}\" is missing, but its log \"{}\" is there.",
                            database_, log));
  }
  return false;
}

void store_files::create_unfinished() const {
  descriptor(unfinished_, O_RDWR | O_CREAT | O_EXCL, 0600).set_private();
}

void store_files::finish() const {
  descriptor(unfinished_, O_RDWR).sync();
  if (::rename(unfinished_.c_str(), database_.c_str()) != 0)
    throw_system_error("giving it its name", unfinished_, errno);
  sync_directory();
}

void store_files::sync_directory() const { descriptor(directory_, O_RDONLY | O_DIRECTORY).sync(); }

void store_files::check_header() const {
  std::array<unsigned char, database_header_size> header{};
  descriptor file(database_, O_RDONLY);
  const ssize_t got = ::pread(file.number(), header.data(), header.size(), 0);
  struct stat status;
  if (got < 0 || ::fstat(file.number(), &status) != 0)
    throw_system_error("reading it", database_, errno);
  // With a log, the file is whatever a crash has left: only the two together are the store.
  struct stat log;
  const bool has_log = ::stat((database_ + "-wal").c_str(), &log) == 0 && log.st_size > 0;
  check_database_header(database_, {header.data(), static_cast<std::size_t>(got)},
                        has_log ? 0 : static_cast<std::uint64_t>(status.st_size));
}

std::uint64_t store_files::size() const {
  std::uint64_t total = 0;
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat status;
    if (::stat((database_ + suffix).c_str(), &status) == 0)
      total += static_cast<std::uint64_t>(status.st_size);
  }
  return total;
}

}  // namespace goods
