#include "storage/local/storage_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace goods {
namespace {

std::atomic<storage_disk*> replacement{nullptr};

class machine_file : public storage_file {
 public:
  machine_file(std::string path, int descriptor)
      : path_(std::move(path)), descriptor_(descriptor) {}
  ~machine_file() override { ::close(descriptor_); }
  machine_file(const machine_file&) = delete;
  machine_file& operator=(const machine_file&) = delete;

  std::uint64_t size() override {
    struct stat status;
    if (::fstat(descriptor_, &status) != 0) fail("looking at it");
    return static_cast<std::uint64_t>(status.st_size);
  }

  void read(std::uint64_t at, std::span<std::byte> into) override {
    while (!into.empty()) {
      const ssize_t got = ::pread(descriptor_, into.data(), into.size(), static_cast<off_t>(at));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EINVAL && use_cache()) continue;
      if (got < 0) fail("reading it");
      if (got == 0) throw_system_error("reading behind its end", path_, EIO);
      at += static_cast<std::uint64_t>(got);
      into = into.subspan(static_cast<std::size_t>(got));
    }
  }

  void write(std::uint64_t at, std::span<const std::byte> from) override {
    while (!from.empty()) {
      const ssize_t written =
          ::pwrite(descriptor_, from.data(), from.size(), static_cast<off_t>(at));
      if (written < 0 && errno == EINTR) continue;
      if (written < 0 && errno == EINVAL && use_cache()) continue;
      if (written < 0) fail("writing it");
      at += static_cast<std::uint64_t>(written);
      from = from.subspan(static_cast<std::size_t>(written));
    }
  }

  void sync() override {
    if (::fdatasync(descriptor_) != 0) fail("syncing it");
  }

  void bypass_cache() override {
    const int flags = ::fcntl(descriptor_, F_GETFL);
    if (flags >= 0) ::fcntl(descriptor_, F_SETFL, flags | O_DIRECT);  // fails where it cannot
  }

 private:
  // Whether it did not until now.
  bool use_cache() const {
    const int flags = ::fcntl(descriptor_, F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) != 0 &&
           ::fcntl(descriptor_, F_SETFL, flags & ~O_DIRECT) == 0;
  }

  [[noreturn]] void fail(std::string_view operation) const {
    throw_system_error(operation, path_, errno);
  }

  const std::string path_;
  const int descriptor_;
};

class machine_disk : public storage_disk {
 public:
  std::unique_ptr<storage_file> create(const std::string& path) override {
    const int descriptor =
        ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) throw_system_error("making it", path, errno);
    auto file = std::make_unique<machine_file>(path, descriptor);
    // Whatever the umask took away.
    if (::fchmod(descriptor, 0600) != 0) {
      const int error = errno;
      ::unlink(path.c_str());
      throw_system_error("changing its mode", path, error);
    }
    return file;
  }

  std::unique_ptr<storage_file> open(const std::string& path) override {
    const int descriptor =
        ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0 && errno == ENOENT) return nullptr;
    if (descriptor < 0) throw_system_error("opening it", path, errno);
    auto file = std::make_unique<machine_file>(path, descriptor);
    struct stat status;
    if (::fstat(descriptor, &status) != 0) throw_system_error("looking at it", path, errno);
    if (!S_ISREG(status.st_mode)) throw_system_error("opening it", path, EINVAL);
    return file;
  }

  bool remove(const std::string& path) override {
    if (::unlink(path.c_str()) == 0) return true;
    if (errno != ENOENT) throw_system_error("removing it", path, errno);
    return false;
  }

  void rename(const std::string& from, const std::string& to) override {
    if (::rename(from.c_str(), to.c_str()) != 0)
      throw_system_error("giving it its name", from, errno);
  }

  std::optional<std::uint64_t> size(const std::string& path) override {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0) return static_cast<std::uint64_t>(status.st_size);
    if (errno != ENOENT) throw_system_error("looking at it", path, errno);
    return std::nullopt;
  }

  bool make_directory(const std::string& path) override {
    if (::mkdir(path.c_str(), 0700) != 0) {
      if (errno == EEXIST) return false;
      throw_system_error("making the directory", path, errno);
    }
    if (::chmod(path.c_str(), 0700) != 0) throw_system_error("changing its mode", path, errno);
    return true;
  }

  void remove_directory(const std::string& path) override {
    if (::rmdir(path.c_str()) != 0) throw_system_error("removing it", path, errno);
  }

  std::vector<std::string> list(const std::string& path) override {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) throw_system_error("opening it", path, errno);
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(descriptor), ::closedir);
    if (!directory) {
      const int error = errno;
      ::close(descriptor);
      throw_system_error("opening it", path, error);
    }
    std::vector<std::string> names;
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a directory stream of our own
    while (const dirent* entry = ::readdir(directory.get())) {
      const std::string name(&entry->d_name[0]);
      if (name != "." && name != "..") names.push_back(name);
      errno = 0;
    }
    if (errno != 0) throw_system_error("reading it", path, errno);
    std::ranges::sort(names);
    return names;
  }

  bool is_there(const std::string& path) override {
    struct stat status;
    if (::lstat(path.c_str(), &status) == 0) return true;
    if (errno != ENOENT) throw_system_error("looking at it", path, errno);
    return false;
  }

  void rename_to_new(const std::string& from, const std::string& to) override {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
    // Not every file system can; a directory replaces nothing but an empty one then.
    if (errno != EINVAL && errno != ENOSYS) throw_system_error("making it", to, errno);
    if (is_there(to)) throw_system_error("making it", to, EEXIST);
    rename(from, to);
  }

  void sync_directory(const std::string& path) override {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) throw_system_error("opening it", path, errno);
    const int error = ::fsync(descriptor) == 0 ? 0 : errno;
    ::close(descriptor);
    if (error != 0) throw_system_error("syncing it", path, error);
  }

  int lock(const std::string& path) override {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) throw_system_error("opening it", path, errno);
    int result = ::fchmod(descriptor, 0600);  // whatever the umask took away
    while (result == 0 && (result = ::flock(descriptor, LOCK_EX | LOCK_NB)) != 0 && errno == EINTR)
      result = 0;
    if (result == 0) return descriptor;
    const int error = errno;
    ::close(descriptor);
    if (error != EWOULDBLOCK) throw_system_error("locking it", path, error);
    return -1;
  }
};

}  // namespace

storage_disk& storage_disk::machine() {
  static machine_disk disk;
  return disk;
}

storage_disk& storage_disk::instance() {
  storage_disk* other = replacement.load(std::memory_order_acquire);
  return other != nullptr ? *other : machine();
}

void storage_disk::replace(storage_disk* other) {
  replacement.store(other, std::memory_order_release);
}

void throw_system_error(std::string_view operation, const std::string& path, int error) {
  const error_code code =
      error == ENOSPC || error == EDQUOT ? error_code::storage_full : error_code::input_output;
  throw_error(code, fmt::format("The storage's \"{}\": {} failed: {}.", path, operation,
                                std::strerror(error)));  // NOLINT(concurrency-mt-unsafe): glibc
}

}  // namespace goods
