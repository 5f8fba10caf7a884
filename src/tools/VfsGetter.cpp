#include "tools/VfsGetter.h"

#include <tarns/vfs/TarnVFSReader.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

#include "tools/signals.h"
#include "tools/vfs_command.h"

namespace tarns {

namespace {

constexpr std::size_t kPage = 500;  // items at a time

// Errors that concern everything that is still to be written.
bool IsHopeless(int error) { return error == ENOSPC || error == EDQUOT || error == EROFS; }

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

void RemoveKeepingError(int directory, const std::string& name) {
  const int error = errno;
  ::unlinkat(directory, name.c_str(), 0);
  errno = error;
}

std::array<timespec, 2> TimesOf(const TarnVFSInfo& info) {
  timespec modified{};
  modified.tv_sec = info.modified.seconds;
  modified.tv_nsec = info.modified.nanoseconds;
  timespec accessed{};
  accessed.tv_nsec = UTIME_NOW;
  return {accessed, modified};
}

// Sets what is known; whether that succeeded.
bool SetAttributes(int file, const TarnVFSInfo& info) {
  const bool hasPermissions = info.permissions != TarnVFSInfo::kNoPermissions;
  if (hasPermissions && ::fchmod(file, info.permissions & 07777) != 0) return false;
  return info.modified == TarnVFSInfo::kNoTime || ::futimens(file, TimesOf(info).data()) == 0;
}

}  // namespace

struct VfsGetter::Directory {
  xcptref<TarnVFSFolder> folder;
  std::string path;  // of the real one
  UniqueFile file;
  TarnVFSInfo info = {};
  std::vector<std::string> left =
      {};  // sub-folders that are still to be written, the next one last
};

VfsGetter::VfsGetter(bool overwrite, std::function<void(std::uint64_t)> done)
    : overwrite_(overwrite), done_(std::move(done)) {}

VfsGetter::~VfsGetter() = default;

void VfsGetter::fail(const std::string& path, const char* what) {
  ++failures_;
  Complain("\"" + path + "\": " + what);
}

void VfsGetter::failWithError(const std::string& path) {
  if (IsHopeless(errno)) ThrowPathError(path);
  fail(path, std::generic_category().message(errno).c_str());
}

// --- Directories --------------------------------------------------------------------------------

void VfsGetter::getFolder(const xcptref<TarnVFSFolder>& folder, const std::string& target) {
  const bool isNew = ::mkdir(target.c_str(), 0777) == 0;
  if (!isNew && errno != EEXIST) ThrowPathError(target);
  UniqueFile file(::open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (file.get() < 0) ThrowPathError(target);
  enter({folder, target, std::move(file)}, folder->getInfo());
  while (!open_.empty()) {
    ThrowIfInterrupted();
    if (open_.back().left.empty()) {
      leave();
      continue;
    }
    const std::string name = std::move(open_.back().left.back());
    open_.back().left.pop_back();
    getBelow(name);
  }
}

// While its entries are made a directory can be written to, whatever its permissions will be.
void VfsGetter::enter(Directory directory, const TarnVFSInfo& info) {
  directory.info = info;
  if (info.permissions != TarnVFSInfo::kNoPermissions) {
    ::fchmod(directory.file.get(), (info.permissions & 0777) | 0700);  // errors show later
  }
  getItems(directory);
  directory.left = directory.folder->getFolderNames();
  std::reverse(directory.left.begin(), directory.left.end());
  open_.push_back(std::move(directory));
}

void VfsGetter::leave() {
  const Directory directory = std::move(open_.back());
  open_.pop_back();
  if (!SetAttributes(directory.file.get(), directory.info)) failWithError(directory.path);
}

void VfsGetter::getBelow(const std::string& name) {
  const Directory& above = open_.back();
  const xcptref<TarnVFSFolder> folder = above.folder->getFolder(name);
  if (folder.is_null()) return;  // removed meanwhile
  const std::string real = NameOfFile(name);
  const std::string path = Joined(above.path, real);
  const auto isSame = [&](const Directory& directory) { return directory.folder == folder; };
  if (std::any_of(open_.begin(), open_.end(), isSame)) {
    return fail(path, "The folder is within itself; skipped.");
  }
  if (!IsFileName(real)) return fail(path, "No directory can have this name; skipped.");
  if (::mkdirat(above.file.get(), real.c_str(), 0777) != 0 && errno != EEXIST) {
    return failWithError(path);
  }
  UniqueFile file(
      ::openat(above.file.get(), real.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (file.get() < 0) return failWithError(path);
  enter({folder, path, std::move(file)}, folder->getInfo());
}

void VfsGetter::getItems(const Directory& directory) {
  std::vector<TarnVFSEntry> page;
  std::string after;
  do {
    page = directory.folder->listItems(after, kPage);
    for (const TarnVFSEntry& entry : page) {
      ThrowIfInterrupted();
      const std::string name = NameOfFile(entry.name);
      getEntry(directory.file.get(), name, entry, Joined(directory.path, name));
    }
    if (!page.empty()) after = page.back().name;
  } while (page.size() == kPage);
}

// --- Files --------------------------------------------------------------------------------------

void VfsGetter::getItem(const xcptref<TarnVFSItem>& item, const std::string& target) {
  const std::size_t slash = target.rfind('/');
  const std::string above = slash == std::string::npos ? "." : target.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
  const UniqueFile directory(::open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0) ThrowPathError(above);
  getEntry(directory.get(), name, {name, item, item->getInfo()}, target);
}

void VfsGetter::getEntry(int directory, const std::string& name, const TarnVFSEntry& entry,
                         const std::string& path) {
  if (!IsFileName(name)) return fail(path, "No file can have this name; skipped.");
  if (!(overwrite_ ? replace(directory, name, entry) : make(directory, name, entry))) {
    return failWithError(path);
  }
  lastWritten_ = path;
  done_(++written_);
}

// Puts what is whole in the place of what is there; that stays when the new one cannot be made.
bool VfsGetter::replace(int directory, const std::string& name, const TarnVFSEntry& entry) {
  std::string fresh;
  for (bool isMade = false; !isMade;) {
    fresh = ".tarns-" + std::to_string(::getpid()) + "-" + std::to_string(++temporaries_);
    isMade = make(directory, fresh, entry);
    if (!isMade && errno != EEXIST) return false;
  }
  if (::renameat(directory, fresh.c_str(), directory, name.c_str()) == 0) return true;
  RemoveKeepingError(directory, fresh);
  return false;
}

bool VfsGetter::make(int directory, const std::string& name, const TarnVFSEntry& entry) {
  const bool isLink = entry.info.kind == TarnVFSInfo::Kind::kLink;
  return isLink ? makeLink(directory, name, entry) : writeFile(directory, name, entry);
}

bool VfsGetter::writeFile(int directory, const std::string& name, const TarnVFSEntry& entry) {
  const bool isPrivate = entry.info.permissions != TarnVFSInfo::kNoPermissions;
  UniqueFile file(::openat(directory, name.c_str(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           isPrivate ? 0600 : 0666));
  if (file.get() < 0) return false;
  try {
    if (writeContent(file.get(), entry) && SetAttributes(file.get(), entry.info) && file.close()) {
      return true;
    }
  } catch (...) {
    ::unlinkat(directory, name.c_str(), 0);
    throw;
  }
  RemoveKeepingError(directory, name);
  return false;
}

bool VfsGetter::writeContent(int file, const TarnVFSEntry& entry) {
  TarnVFSReader reader(entry.item);
  while (reader.tell() < reader.getSize()) {
    if (!WriteAll(file, reader.nextPiece())) return false;
    if (reader.tell() < reader.getSize()) ThrowIfInterrupted();
  }
  return true;
}

bool VfsGetter::makeLink(int directory, const std::string& name, const TarnVFSEntry& entry) {
  TarnVFSReader reader(entry.item);
  if (reader.getSize() >= PATH_MAX) {
    errno = ENAMETOOLONG;
    return false;
  }
  const std::string target = reader.readAll();
  if (target.find('\0') != std::string::npos) {
    errno = EINVAL;
    return false;
  }
  if (::symlinkat(target.c_str(), directory, name.c_str()) != 0) return false;
  if (entry.info.modified == TarnVFSInfo::kNoTime ||
      ::utimensat(directory, name.c_str(), TimesOf(entry.info).data(), AT_SYMLINK_NOFOLLOW) == 0) {
    return true;
  }
  RemoveKeepingError(directory, name);
  return false;
}

}  // namespace tarns
