#include "support/faulty_vfs.h"

#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>
#include <cerrno>

#include <mutex>
#include <optional>
#include <utility>

#include "storage/local/storage_file.h"

namespace {

using operation = faulty_vfs::operation;
using fault = faulty_vfs::fault;

// One disk for all files.
struct disk {
  sqlite3_vfs* real = nullptr;
  std::mutex lock;  // of all that follows
  bool armed = false;
  faulty_vfs::plan plan;
  std::uint64_t count = 0;
  bool failed = false;
};

disk the_disk;

// How this operation is to fail, if at all.
std::optional<fault> fault_of(operation what) {
  const std::lock_guard guard(the_disk.lock);
  if (!the_disk.armed || (the_disk.plan.operations & faulty_vfs::bit(what)) == 0) return {};
  const std::uint64_t number = the_disk.count++;
  if (number < the_disk.plan.after) return {};
  if (number > the_disk.plan.after && !the_disk.plan.for_good) return {};
  the_disk.failed = true;
  if (the_disk.plan.what == fault::kill) ::kill(::getpid(), SIGKILL);
  return the_disk.plan.what;
}

// ---- under SQLite

int error_for(fault what, int io_error) { return what == fault::full ? SQLITE_FULL : io_error; }

// SQLite reserves memory for this and, behind it, for the real file.
struct shim_file {
  sqlite3_file base;
  sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

shim_file* shim(sqlite3_file* file) { return reinterpret_cast<shim_file*>(file); }
sqlite3_file* real(sqlite3_file* file) { return shim(file)->real(); }

int close_file(sqlite3_file* file) { return real(file)->pMethods->xClose(real(file)); }

int read_file(sqlite3_file* file, void* into, int size, sqlite3_int64 at) {
  if (fault_of(operation::read)) return SQLITE_IOERR_READ;
  return real(file)->pMethods->xRead(real(file), into, size, at);
}

int write_file(sqlite3_file* file, const void* from, int size, sqlite3_int64 at) {
  const auto write = [&](int bytes) {
    return real(file)->pMethods->xWrite(real(file), from, bytes, at);
  };
  const auto failure = fault_of(operation::write);
  if (!failure) return write(size);
  if (*failure == fault::torn) write(size / 2);
  if (*failure == fault::lost_sync) write(size);
  return error_for(*failure, SQLITE_IOERR_WRITE);
}

int truncate_file(sqlite3_file* file, sqlite3_int64 size) {
  if (fault_of(operation::truncate)) return SQLITE_IOERR_TRUNCATE;
  return real(file)->pMethods->xTruncate(real(file), size);
}

int sync_file(sqlite3_file*, int) {
  const auto failure = fault_of(operation::sync);
  return failure ? error_for(*failure, SQLITE_IOERR_FSYNC) : SQLITE_OK;
}

int file_size(sqlite3_file* file, sqlite3_int64* size) {
  return real(file)->pMethods->xFileSize(real(file), size);
}
int lock_file(sqlite3_file* file, int level) {
  return real(file)->pMethods->xLock(real(file), level);
}
int unlock_file(sqlite3_file* file, int level) {
  return real(file)->pMethods->xUnlock(real(file), level);
}
int check_reserved(sqlite3_file* file, int* result) {
  return real(file)->pMethods->xCheckReservedLock(real(file), result);
}
int control(sqlite3_file* file, int what, void* argument) {
  return real(file)->pMethods->xFileControl(real(file), what, argument);
}
int sector_size(sqlite3_file* file) { return real(file)->pMethods->xSectorSize(real(file)); }
int characteristics(sqlite3_file* file) {
  return real(file)->pMethods->xDeviceCharacteristics(real(file));
}
int map_shared(sqlite3_file* file, int page, int size, int extend, void volatile** result) {
  return real(file)->pMethods->xShmMap(real(file), page, size, extend, result);
}
int lock_shared(sqlite3_file* file, int offset, int count, int flags) {
  return real(file)->pMethods->xShmLock(real(file), offset, count, flags);
}
void barrier(sqlite3_file* file) { real(file)->pMethods->xShmBarrier(real(file)); }
int unmap_shared(sqlite3_file* file, int remove) {
  return real(file)->pMethods->xShmUnmap(real(file), remove);
}
int fetch(sqlite3_file* file, sqlite3_int64 at, int size, void** result) {
  return real(file)->pMethods->xFetch(real(file), at, size, result);
}
int unfetch(sqlite3_file* file, sqlite3_int64 at, void* page) {
  return real(file)->pMethods->xUnfetch(real(file), at, page);
}

const sqlite3_io_methods shim_methods = {
    3,         close_file,   read_file,       write_file,  truncate_file,
    sync_file, file_size,    lock_file,       unlock_file, check_reserved,
    control,   sector_size,  characteristics, map_shared,  lock_shared,
    barrier,   unmap_shared, fetch,           unfetch};

int open_file(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  if (fault_of(operation::open)) return SQLITE_CANTOPEN;
  const int result = the_disk.real->xOpen(the_disk.real, name, real(file), flags, out_flags);
  if (result == SQLITE_OK) file->pMethods = &shim_methods;
  return result;
}

sqlite3_vfs shim_vfs;

// ---- under the files that the storage writes by itself

[[noreturn]] void fail(fault what, const std::string& path) {
  goods::throw_system_error("a test's operation", path, what == fault::full ? ENOSPC : EIO);
}

class faulty_file : public goods::storage_file {
 public:
  faulty_file(std::string path, std::unique_ptr<goods::storage_file> file)
      : path_(std::move(path)), real_(std::move(file)) {}

  std::uint64_t size() override { return real_->size(); }

  void read(std::uint64_t at, std::span<std::byte> into) override {
    if (const auto failure = fault_of(operation::read)) fail(*failure, path_);
    real_->read(at, into);
  }

  void write(std::uint64_t at, std::span<const std::byte> from) override {
    const auto failure = fault_of(operation::write);
    if (!failure) return real_->write(at, from);
    if (*failure == fault::torn) real_->write(at, from.first(from.size() / 2));
    if (*failure == fault::lost_sync) real_->write(at, from);
    fail(*failure, path_);
  }

  void sync() override {
    if (const auto failure = fault_of(operation::sync)) fail(*failure, path_);
  }

 private:
  const std::string path_;
  const std::unique_ptr<goods::storage_file> real_;
};

class faulty_disk : public goods::storage_disk {
 public:
  std::unique_ptr<goods::storage_file> create(const std::string& path) override {
    if (const auto failure = fault_of(operation::open)) fail(*failure, path);
    return std::make_unique<faulty_file>(path, machine().create(path));
  }
  std::unique_ptr<goods::storage_file> open(const std::string& path) override {
    if (const auto failure = fault_of(operation::open)) fail(*failure, path);
    auto file = machine().open(path);
    return file ? std::make_unique<faulty_file>(path, std::move(file)) : nullptr;
  }
  bool remove(const std::string& path) override {
    if (const auto failure = fault_of(operation::truncate)) fail(*failure, path);
    return machine().remove(path);
  }
  void sync_directory(const std::string& path) override {
    if (const auto failure = fault_of(operation::sync)) fail(*failure, path);
  }
};

faulty_disk shim_disk;

}  // namespace

faulty_vfs::faulty_vfs() {
  the_disk.real = ::sqlite3_vfs_find(nullptr);
  shim_vfs = *the_disk.real;
  shim_vfs.pNext = nullptr;
  shim_vfs.zName = "faulty";
  shim_vfs.szOsFile = static_cast<int>(sizeof(shim_file)) + the_disk.real->szOsFile;
  shim_vfs.xOpen = open_file;
  ::sqlite3_vfs_register(&shim_vfs, 1);
  goods::storage_disk::replace(&shim_disk);
  disarm();
}

faulty_vfs::~faulty_vfs() {
  goods::storage_disk::replace(nullptr);
  ::sqlite3_vfs_register(the_disk.real, 1);
  ::sqlite3_vfs_unregister(&shim_vfs);
}

void faulty_vfs::arm(const plan& next) {
  const std::lock_guard guard(the_disk.lock);
  the_disk.plan = next;
  the_disk.count = 0;
  the_disk.failed = false;
  the_disk.armed = true;
}

void faulty_vfs::disarm() {
  const std::lock_guard guard(the_disk.lock);
  the_disk.armed = false;
}

bool faulty_vfs::has_failed() const {
  const std::lock_guard guard(the_disk.lock);
  return the_disk.failed;
}

std::uint64_t faulty_vfs::count() const {
  const std::lock_guard guard(the_disk.lock);
  return the_disk.count;
}
