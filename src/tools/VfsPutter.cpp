#include "tools/VfsPutter.h"

#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/vfs/TarnVFSWriter.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "tools/signals.h"
#include "tools/unique_file.h"
#include "tools/vfs_command.h"

namespace tarns {

namespace {

// What one transaction takes: enough that syncing does not count, little enough to be kept in
// memory.
constexpr std::size_t kMostChanges = 2000;
constexpr std::uint64_t kMostBytes = std::uint64_t{8} << 20;
constexpr std::size_t kBufferSize = TarnVFSContent::kPieceSize + 1;

TarnVFSTime TimeOf(const timespec& time) {
  return {time.tv_sec, static_cast<std::uint32_t>(time.tv_nsec)};
}

// Reads up to the end or until the buffer is full; -1 for an error.
ssize_t ReadAll(int file, char* into, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = ::read(file, into + done, size - done);
    if (count == 0) break;
    if (count > 0) {
      done += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

// A directory whose entries are being put.
struct VfsPutter::Directory {
  std::string real, path;            // paths there and here
  std::shared_ptr<Directory> above;  // null for the first one
  std::string name;                  // in `above`, as in the tree
  std::string onlyName;              // of the single file that is put, as in the tree
  struct stat status = {};
  UniqueFile file;                // while its entries are gone through
  std::vector<std::string> left;  // entries to be put, the next one last
  xcptref<TarnVFSFolder> folder;  // null until it is made
  bool wasThere = false;          // before this

  std::string nameInTree(const std::string& entry) const {
    return onlyName.empty() ? NameInTree(entry) : onlyName;
  }
  std::string pathOf(const std::string& inTree) const {
    return path.empty() ? inTree : path + "~" + inTree;
  }
};

// A folder, a small file or a link to be stored.
struct VfsPutter::Change {
  std::shared_ptr<Directory> directory;
  std::string name;  // of a file or link, as in the tree; empty: the directory itself
  std::string bytes = {};
  TarnVFSInfo info = {};
};

VfsPutter::VfsPutter(TarnVFS& files, std::function<void(std::uint64_t)> done)
    : files_(files), done_(std::move(done)), buffer_(kBufferSize, '\0') {}

VfsPutter::~VfsPutter() = default;

void VfsPutter::fail(const std::string& path, const char* what) {
  ++failures_;
  Complain("\"" + path + "\": " + what);
}

void VfsPutter::leaveOut(const std::string& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) == 0) leftOut_.emplace(status.st_dev, status.st_ino);
}

void VfsPutter::put(const std::string& source, const std::string& path) {
  struct stat status {};
  if (::lstat(source.c_str(), &status) != 0) ThrowPathError(source);
  auto directory = std::make_shared<Directory>();
  if (S_ISDIR(status.st_mode)) {
    directory->real = source;
    directory->path = path;
    directory->status = status;
    directory->file = UniqueFile(::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory->file.get() < 0) ThrowPathError(source);
    if (!path.empty() && files_.isItemExist(path)) {
      throw UsageError{"\"" + path + "\" is an item, \"" + source + "\" a directory."};
    }
    VerifyNoItemOnTheWay(files_, path);
    if (!files_.createFolder(path)) {
      throw UsageError{"Folders are not allowed at \"" + path + "\"."};
    }
    directory->folder = files_.getFolder(path);
    directory->wasThere = true;
    putDirectory(std::move(directory));
  } else {
    // A single file: its directory stands for the folder.
    const std::size_t slash = source.rfind('/');
    directory->real = slash == std::string::npos ? "." : source.substr(0, slash + 1);
    directory->path = TarnBranches::ParentOf(path);
    directory->file =
        UniqueFile(::open(directory->real.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory->file.get() < 0) ThrowPathError(directory->real);
    VerifyNoItemOnTheWay(files_, directory->path);
    if (!files_.createFolder(directory->path)) {
      throw UsageError{"Folders are not allowed at \"" + directory->path + "\"."};
    }
    directory->folder = files_.getFolder(directory->path);
    directory->wasThere = true;
    const std::string real = slash == std::string::npos ? source : source.substr(slash + 1);
    directory->onlyName = TarnBranches::LastOf(path);
    putEntry(directory, real);
  }
  while (!open_.empty()) {
    const std::shared_ptr<Directory> at = open_.back();
    if (at->left.empty()) {
      at->file = UniqueFile();
      open_.pop_back();
      continue;
    }
    const std::string name = std::move(at->left.back());
    at->left.pop_back();
    ThrowIfInterrupted();
    putEntry(at, name);
  }
  commit();
}

// --- Going through real files -------------------------------------------------------------------

void VfsPutter::putDirectory(std::shared_ptr<Directory> directory) {
  struct stat status {};
  if (::fstat(directory->file.get(), &status) == 0 &&
      leftOut_.contains({status.st_dev, status.st_ino})) {
    return fail(directory->real, "This directory holds the open database; skipped.");
  }
  // The stream closes the file that it is given.
  const int copy = ::fcntl(directory->file.get(), F_DUPFD_CLOEXEC, 0);
  DIR* const stream = copy < 0 ? nullptr : ::fdopendir(copy);
  if (stream == nullptr) {
    fail(directory->real, std::generic_category().message(errno).c_str());
    const UniqueFile closes(copy);
    return;
  }
  errno = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else has this stream
  while (const dirent* entry = ::readdir(stream)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") directory->left.emplace_back(name);
    errno = 0;
  }
  const int error = errno;
  ::closedir(stream);
  if (error != 0) fail(directory->real, std::generic_category().message(error).c_str());
  // In the order in which they will stand in the tree.
  std::sort(directory->left.begin(), directory->left.end(), std::greater<>());
  add({directory, {}});
  open_.push_back(std::move(directory));
}

void VfsPutter::putEntry(const std::shared_ptr<Directory>& directory, const std::string& name) {
  struct stat status {};
  const std::string real = Joined(directory->real, name);
  if (::fstatat(directory->file.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return fail(real, std::generic_category().message(errno).c_str());
  }
  if (S_ISDIR(status.st_mode)) {
    auto below = std::make_shared<Directory>();
    below->real = real;
    below->above = directory;
    below->name = NameInTree(name);
    below->path = directory->pathOf(below->name);
    below->status = status;
    if (!directory->folder.is_null()) {
      if (!directory->folder->getItem(below->name).is_null()) {
        return fail(real, "An item of this name is there.");
      }
      below->folder = directory->folder->getFolder(below->name);
      below->wasThere = !below->folder.is_null();
      const bool isRefused =
          (directory->folder->getFolderType() & TarnVFSFolder::kNoSubFolders) != 0;
      if (!below->wasThere && isRefused) return fail(real, "The folder takes no sub-folders.");
    }
    below->file = UniqueFile(::openat(directory->file.get(), name.c_str(),
                                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (below->file.get() < 0) return fail(real, std::generic_category().message(errno).c_str());
    return putDirectory(std::move(below));
  }
  if (isFolderThere(*directory, name)) return fail(real, "A folder of this name is there.");
  if (S_ISLNK(status.st_mode)) return putLink(directory, name);
  if (S_ISREG(status.st_mode)) return putFile(directory, name);
  fail(real, "Neither a file nor a directory nor a link; skipped.");
}

// A folder cannot be there when its own folder was not.
bool VfsPutter::isFolderThere(Directory& directory, const std::string& name) {
  return directory.wasThere && !directory.folder->getFolder(directory.nameInTree(name)).is_null();
}

void VfsPutter::putLink(const std::shared_ptr<Directory>& directory, const std::string& name) {
  struct stat status {};
  const ssize_t size =
      ::readlinkat(directory->file.get(), name.c_str(), buffer_.data(), buffer_.size());
  if (size < 0 ||
      ::fstatat(directory->file.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return fail(Joined(directory->real, name), std::generic_category().message(errno).c_str());
  }
  Change change{directory, directory->nameInTree(name),
                buffer_.substr(0, static_cast<std::size_t>(size))};
  change.info.kind = TarnVFSInfo::Kind::kLink;
  change.info.permissions = TarnVFSInfo::kNoPermissions;
  change.info.modified = TimeOf(status.st_mtim);
  add(std::move(change));
}

void VfsPutter::putFile(const std::shared_ptr<Directory>& directory, const std::string& name) {
  struct stat status {};
  // What has become something else by now does not block.
  const UniqueFile file(::openat(directory->file.get(), name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    return fail(Joined(directory->real, name), std::generic_category().message(errno).c_str());
  }
  const ssize_t size = ReadAll(file.get(), buffer_.data(), buffer_.size());
  if (size < 0)
    return fail(Joined(directory->real, name), std::generic_category().message(errno).c_str());
  if (static_cast<std::size_t>(size) == buffer_.size()) {
    // What grows meanwhile would be read for ever. Some files do not tell their size.
    const auto limit = status.st_size == 0 ? std::numeric_limits<std::uint64_t>::max()
                                           : static_cast<std::uint64_t>(status.st_size);
    return putLarge(directory, name, file.get(), std::max<std::uint64_t>(limit, buffer_.size()));
  }
  Change change{directory, directory->nameInTree(name),
                buffer_.substr(0, static_cast<std::size_t>(size))};
  change.info.permissions = status.st_mode & 07777;
  change.info.modified = TimeOf(status.st_mtim);
  add(std::move(change));
}

// `file` has been read to the end of the buffer; `limit` bytes of it are put at most.
void VfsPutter::putLarge(const std::shared_ptr<Directory>& directory, const std::string& name,
                         int file, std::uint64_t limit) {
  commit();  // makes the folder
  const std::string path = directory->pathOf(directory->nameInTree(name));
  TarnVFSWriter writer(files_, path);
  auto size = static_cast<ssize_t>(buffer_.size());
  while (size > 0) {
    writer.write(std::string_view(buffer_.data(), static_cast<std::size_t>(size)));
    limit -= static_cast<std::uint64_t>(size);
    ThrowIfInterrupted();
    size = ReadAll(file, buffer_.data(), std::min<std::uint64_t>(buffer_.size(), limit));
  }
  struct stat status {};
  if (size < 0 || ::fstat(file, &status) != 0) {
    return fail(Joined(directory->real, name), std::generic_category().message(errno).c_str());
  }
  writer.setKind(TarnVFSInfo::Kind::kFile);  // a link may be there
  writer.setPermissions(status.st_mode & 07777);
  writer.setModified(TimeOf(status.st_mtim));
  writer.finish();
  lastFound_ = lastStored_ = path;
  ++found_;
  ++stored_;
  done_(found_);
}

// --- Storing ------------------------------------------------------------------------------------

void VfsPutter::add(Change change) {
  if (!change.name.empty()) {
    ++found_;
    lastFound_ = change.directory->pathOf(change.name);
    done_(found_);
  }
  changedBytes_ += change.bytes.size();
  changes_.push_back(std::move(change));
  if (changes_.size() >= kMostChanges || changedBytes_ >= kMostBytes) commit();
}

void VfsPutter::commit() {
  if (changes_.empty()) return;
  files_.getManager().transaction([&] {
    for (Change& change : changes_) apply(change);
  });
  for (const Change& change : changes_) stored_ += change.name.empty() ? 0 : 1;
  lastStored_ = lastFound_;
  changes_.clear();
  changedBytes_ = 0;
}

void VfsPutter::apply(Change& change) {
  Directory& directory = *change.directory;
  if (change.name.empty()) return makeFolder(directory);
  const auto there = directory.wasThere ? directory.folder->getItem(change.name) : nullptr;
  const bool isFile = there.isA<TarnVFSFile>();
  if (!isFile && !there.is_null()) return writeOver(directory.pathOf(change.name), change);
  const xcptref<TarnVFSFile> file = isFile ? xcptref<TarnVFSFile>(there) : TarnVFSFile::Create();
  {
    auto body = modify(file);
    body->setContent(TarnVFSContent(change.bytes));
    body->setKind(change.info.kind);
    body->setPermissions(change.info.permissions);
    body->setModified(change.info.modified);
    if (!isFile) body->setCreated(TarnVFSTime::Now());
  }
  if (!isFile) modify(directory.folder)->addItem(change.name.c_str(), file, false);
}

// Gives an item without content, which is there already, content.
void VfsPutter::writeOver(const std::string& path, const Change& change) {
  TarnVFSWriter writer(files_, path);
  writer.write(std::string_view(change.bytes));
  writer.setKind(change.info.kind);
  writer.setPermissions(change.info.permissions);
  writer.setModified(change.info.modified);
  writer.finish();
}

// Also when this is repeated after its transaction was rolled back.
void VfsPutter::makeFolder(Directory& directory) {
  if (!directory.wasThere) {
    directory.folder = TarnVFSFolder::Create();
    const bool isMade =
        modify(directory.above->folder)->addFolder(directory.name.c_str(), directory.folder, false);
    if (!isMade) {
      throw TarnException(("The folder \"" + directory.path + "\" cannot be made.").c_str(),
                          ErrorID::BadUsage);
    }
  }
  auto folder = modify(directory.folder);
  folder->setPermissions(directory.status.st_mode & 07777);
  folder->setModified(TimeOf(directory.status.st_mtim));
}

}  // namespace tarns
