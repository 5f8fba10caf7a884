#include "support/faulty_vfs.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
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

  std::atomic<bool> recording{false};
  disk_trace trace;
  std::map<std::string, std::uint64_t> files;  // by their names now; 0: a directory
  std::uint64_t last_file = 0;
};

disk the_disk;

// ---- writing down: nothing of it may throw out of what SQLite calls, so that none of it allocates
// unless somebody records

using kind = disk_event::kind;

std::string directory_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Under the lock.
void add(disk_event event) { the_disk.trace.events.push_back(std::move(event)); }

bool is_recorded(const std::string& path) {
  return the_disk.recording && path.starts_with(the_disk.trace.root + '/');
}

// The number of the file that has been opened; notes it when it is new. 0: of no interest.
std::uint64_t note_open(const std::string& path) {
  const std::lock_guard guard(the_disk.lock);
  if (!is_recorded(path)) return 0;
  const auto [place, is_new] = the_disk.files.try_emplace(path, the_disk.last_file + 1);
  if (!is_new) return place->second;
  ++the_disk.last_file;
  add({kind::create, path, {}, place->second, 0, {}});
  return place->second;
}

void note_directory(const std::string& path) {
  const std::lock_guard guard(the_disk.lock);
  if (is_recorded(path) && the_disk.files.try_emplace(path, 0).second)
    add({kind::make_directory, path, {}, 0, 0, {}});
}

void note_remove(const std::string& path) {
  const std::lock_guard guard(the_disk.lock);
  if (is_recorded(path) && the_disk.files.erase(path) != 0) add({kind::remove, path, {}, 0, 0, {}});
}

void note_rename(const std::string& from, const std::string& to) {
  const std::lock_guard guard(the_disk.lock);
  if (!is_recorded(from)) return;
  auto node = the_disk.files.extract(from);
  the_disk.files.erase(to);
  node.key() = to;
  the_disk.files.insert(std::move(node));
  add({kind::rename, from, to, 0, 0, {}});
}

void note_write(std::uint64_t file, std::uint64_t at, std::span<const std::byte> from) {
  if (file == 0) return;
  const std::lock_guard guard(the_disk.lock);
  if (the_disk.recording) add({kind::write, {}, {}, file, at, {from.begin(), from.end()}});
}

void note_truncate(std::uint64_t file, std::uint64_t size) {
  if (file == 0) return;
  const std::lock_guard guard(the_disk.lock);
  if (the_disk.recording) add({kind::truncate, {}, {}, file, size, {}});
}

void note_sync(std::uint64_t file, const std::string& path, bool failed = false) {
  if (file == 0) return;
  const std::lock_guard guard(the_disk.lock);
  if (the_disk.recording) add({failed ? kind::failed_sync : kind::sync, path, {}, file, 0, {}});
}

void note_sync_directory(const std::string& path) {
  const std::lock_guard guard(the_disk.lock);
  if (is_recorded(path + '/')) add({kind::sync_directory, path, {}, 0, 0, {}});
}

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
  std::uint64_t number;
  const char* name;      // SQLite keeps it; null for a temporary file
  bool syncs_directory;  // with the first sync of the file
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
    const int result = real(file)->pMethods->xWrite(real(file), from, bytes, at);
    note_write(shim(file)->number, static_cast<std::uint64_t>(at),
               {static_cast<const std::byte*>(from), static_cast<std::size_t>(bytes)});
    return result;
  };
  const auto failure = fault_of(operation::write);
  if (!failure) return write(size);
  if (*failure == fault::torn) write(size / 2);
  if (*failure == fault::lost_sync) write(size);
  return error_for(*failure, SQLITE_IOERR_WRITE);
}

int truncate_file(sqlite3_file* file, sqlite3_int64 size) {
  if (fault_of(operation::truncate)) return SQLITE_IOERR_TRUNCATE;
  const int result = real(file)->pMethods->xTruncate(real(file), size);
  note_truncate(shim(file)->number, static_cast<std::uint64_t>(size));
  return result;
}

int sync_file(sqlite3_file* file, int) {
  const auto failure = fault_of(operation::sync);
  const bool recorded = the_disk.recording && shim(file)->name != nullptr;
  if (recorded) note_sync(shim(file)->number, shim(file)->name, failure.has_value());
  if (failure) return error_for(*failure, SQLITE_IOERR_FSYNC);
  if (!recorded) return SQLITE_OK;
  if (std::exchange(shim(file)->syncs_directory, false))
    note_sync_directory(directory_of(shim(file)->name));
  return SQLITE_OK;
}

int file_size(sqlite3_file* file, sqlite3_int64* size) {
  if (fault_of(operation::read)) return SQLITE_IOERR_FSTAT;
  return real(file)->pMethods->xFileSize(real(file), size);
}
int lock_file(sqlite3_file* file, int level) {
  if (fault_of(operation::lock)) return SQLITE_IOERR_LOCK;
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
  if (fault_of(operation::lock)) return SQLITE_IOERR_SHMMAP;
  return real(file)->pMethods->xShmMap(real(file), page, size, extend, result);
}
int lock_shared(sqlite3_file* file, int offset, int count, int flags) {
  if ((flags & SQLITE_SHM_LOCK) != 0 && fault_of(operation::lock)) return SQLITE_IOERR_SHMLOCK;
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
  if (result != SQLITE_OK) return result;
  file->pMethods = &shim_methods;
  shim(file)->name = name;
  shim(file)->number = the_disk.recording && name != nullptr ? note_open(name) : 0;
  // As SQLite does with its own files.
  constexpr int logs = SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL;
  shim(file)->syncs_directory = (flags & SQLITE_OPEN_CREATE) != 0 && (flags & logs) != 0;
  return SQLITE_OK;
}

int delete_file(sqlite3_vfs*, const char* name, int sync_directory) {
  if (fault_of(operation::name)) return SQLITE_IOERR_DELETE;
  const int result = the_disk.real->xDelete(the_disk.real, name, 0);
  if (the_disk.recording) note_remove(name);
  if (result != SQLITE_OK || sync_directory == 0) return result;
  if (fault_of(operation::sync)) return SQLITE_IOERR_DIR_FSYNC;
  if (the_disk.recording) note_sync_directory(directory_of(name));
  return SQLITE_OK;
}

sqlite3_vfs shim_vfs;

// ---- under the files that the storage writes by itself

[[noreturn]] void fail(fault what, const std::string& path) {
  goods::throw_system_error("a test's operation", path, what == fault::full ? ENOSPC : EIO);
}

class faulty_file : public goods::storage_file {
 public:
  faulty_file(std::string path, std::unique_ptr<goods::storage_file> file)
      : path_(std::move(path)), real_(std::move(file)), number_(note_open(path_)) {}

  std::uint64_t size() override {
    if (const auto failure = fault_of(operation::read)) fail(*failure, path_);
    return real_->size();
  }

  void read(std::uint64_t at, std::span<std::byte> into) override {
    if (const auto failure = fault_of(operation::read)) fail(*failure, path_);
    real_->read(at, into);
  }

  void write(std::uint64_t at, std::span<const std::byte> from) override {
    const auto failure = fault_of(operation::write);
    if (!failure) return write_through(at, from);
    if (*failure == fault::torn) write_through(at, from.first(from.size() / 2));
    if (*failure == fault::lost_sync) write_through(at, from);
    fail(*failure, path_);
  }

  void sync() override {
    const auto failure = fault_of(operation::sync);
    note_sync(number_, path_, failure.has_value());
    if (failure) fail(*failure, path_);
  }

  void bypass_cache() override { real_->bypass_cache(); }

 private:
  void write_through(std::uint64_t at, std::span<const std::byte> from) {
    real_->write(at, from);
    note_write(number_, at, from);
  }

  const std::string path_;
  const std::unique_ptr<goods::storage_file> real_;
  const std::uint64_t number_;
};

class faulty_disk : public goods::storage_disk {
 public:
  std::unique_ptr<goods::storage_file> create(const std::string& path) override {
    check(operation::name, path);
    return std::make_unique<faulty_file>(path, machine().create(path));
  }
  std::unique_ptr<goods::storage_file> open(const std::string& path) override {
    check(operation::open, path);
    auto file = machine().open(path);
    return file ? std::make_unique<faulty_file>(path, std::move(file)) : nullptr;
  }
  bool remove(const std::string& path) override {
    check(operation::name, path);
    const bool removed = machine().remove(path);
    note_remove(path);
    return removed;
  }
  void rename(const std::string& from, const std::string& to) override {
    check(operation::name, from);
    machine().rename(from, to);
    note_rename(from, to);
  }
  std::optional<std::uint64_t> size(const std::string& path) override {
    check(operation::read, path);
    return machine().size(path);
  }
  bool make_directory(const std::string& path) override {
    check(operation::name, path);
    if (!machine().make_directory(path)) return false;
    note_directory(path);
    return true;
  }
  void remove_directory(const std::string& path) override {
    check(operation::name, path);
    machine().remove_directory(path);
    note_remove(path);
  }
  std::vector<std::string> list(const std::string& path) override {
    check(operation::open, path);
    return machine().list(path);
  }
  bool is_there(const std::string& path) override {
    check(operation::read, path);
    return machine().is_there(path);
  }
  void rename_to_new(const std::string& from, const std::string& to) override {
    check(operation::name, from);
    machine().rename_to_new(from, to);
    note_rename(from, to);
  }
  void sync_directory(const std::string& path) override {
    check(operation::sync, path);
    note_sync_directory(path);
  }
  int lock(const std::string& path) override {
    check(operation::lock, path);
    const int descriptor = machine().lock(path);
    if (descriptor >= 0) note_open(path);
    return descriptor;
  }

 private:
  static void check(operation what, const std::string& path) {
    if (const auto failure = fault_of(what)) fail(*failure, path);
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
  shim_vfs.xDelete = delete_file;
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

void faulty_vfs::record(const std::string& directory) {
  {
    const std::lock_guard guard(the_disk.lock);
    the_disk.trace = {directory, {}, 0};
    the_disk.files.clear();
    the_disk.last_file = 0;
    the_disk.recording = true;
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    const std::string path = entry.path().string();
    if (entry.is_directory()) {
      note_directory(path);
      continue;
    }
    const std::uint64_t file = note_open(path);
    std::ifstream in(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(in), {}};
    note_write(file, 0, std::as_bytes(std::span(content)));
    note_sync(file, path);
  }
  const auto files = the_disk.files;
  note_sync_directory(directory);
  for (const auto& [path, file] : files)
    if (file == 0) note_sync_directory(path);
  the_disk.trace.begin = the_disk.trace.events.size();
}

void faulty_vfs::note(std::uint64_t what) {
  const std::lock_guard guard(the_disk.lock);
  if (the_disk.recording) add({kind::note, {}, {}, 0, what, {}});
}

disk_trace faulty_vfs::stop_recording() {
  const std::lock_guard guard(the_disk.lock);
  the_disk.recording = false;
  return std::move(the_disk.trace);
}
