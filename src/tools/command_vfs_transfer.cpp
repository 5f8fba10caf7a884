// tarns vfs put, get: real files and directories.
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "tools/Progress.h"
#include "tools/VfsGetter.h"
#include "tools/VfsPutter.h"
#include "tools/signals.h"
#include "tools/storage_directories.h"
#include "tools/vfs_command.h"

namespace tarns {

namespace {

struct TransferOptions : VfsOptions {
  std::string real;
  bool hasPath = false;  // "" is one
  bool overwrite = false;
};

// A deep tree has one directory open for each level.
void AllowManyOpenFiles() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::string LastNameOf(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path.substr(path.rfind('/') + 1);
}

bool IsDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Runs `work`; what ends it early is passed on when `tell()` has been called, which an error before
// anything was done does not ask for.
template <class Work, class Count, class Tell>
void RunTelling(const Work& work, const Count& count, const Tell& tell) {
  try {
    work();
  } catch (const Interrupted&) {
    tell();
    throw;
  } catch (...) {
    if (count() > 0) tell();
    throw;
  }
}

std::string CountText(std::uint64_t count, const char* what, const std::string& last) {
  std::string text = std::to_string(count) + (count == 1 ? " file " : " files ") + what;
  if (!last.empty()) text += ", up to \"" + last + "\"";
  return text;
}

// Throws 7 when there is no such file; nothing has been made for it then.
void VerifyIsThere(const std::string& real) {
  struct stat status {};
  if (::lstat(real.c_str(), &status) == 0) return;
  const int error = errno;
  if (error != ENOENT && error != ENOTDIR) {
    throw std::system_error(error, std::generic_category(), "\"" + real + "\"");
  }
  throw TarnException(("\"" + real + "\": " + std::generic_category().message(error) + ".").c_str(),
                      ErrorID::NonExistentPath);
}

// The name in the tree of what is to be put.
std::string PutName(const TransferOptions& options) {
  std::string real = LastNameOf(options.real);
  std::error_code problem;
  if (!IsFileName(real)) real = std::filesystem::canonical(options.real, problem).filename();
  if (!options.hasPath && !IsFileName(real)) {
    throw UsageError{"\"" + options.real + "\" needs a PATH: it has no name."};
  }
  return NameInTree(real);
}

// Where a source goes: without a path under its own name; a file into a folder.
std::string PutPath(TarnVFS& files, const TransferOptions& options, const std::string& name) {
  if (!options.hasPath) return name;
  std::string path = WithoutMark(options.path);
  const bool isInto = NamesFolder(options.path) || files.isFolderExist(path);
  if (IsDirectory(options.real) || !isInto) return path;
  return path.empty() ? name : path + "~" + name;
}

int Put(const Invocation& invocation, const TransferOptions& options) {
  VerifyIsThere(options.real);
  VerifyPath(WithoutMark(options.path));
  const std::string name = PutName(options);
  AllowManyOpenFiles();
  OpenFiles files(invocation, options, true);
  const SignalWatch watch;
  Progress progress("put", 0, "files");
  VfsPutter putter(*files, [&](std::uint64_t count) { progress.show(0, count); });
  for (const std::string& directory : StorageDirectoriesOf(ConfigurationOf(invocation))) {
    putter.leaveOut(directory);
  }
  RunTelling([&] { putter.put(options.real, PutPath(*files, options, name)); },
             [&] { return putter.getNumStored(); },
             [&] {
               Complain("Ended early: " +
                        CountText(putter.getNumStored(), "are stored", putter.getLastStored()) +
                        "; what follows is not.");
             });
  return putter.getNumFailures() == 0 ? ExitStatus::kDone : ExitStatus::kFailure;
}

int Get(const Invocation& invocation, const TransferOptions& options) {
  AllowManyOpenFiles();
  OpenFiles files(invocation, options);
  const SignalWatch watch;
  const FoundFile found = FindFile(*files, options.path);
  const auto& item = found.item;
  const auto& folder = found.folder;
  const std::string name = NameOfFile(TarnBranches::LastOf(found.path));
  std::string target = options.real;
  const bool isInto = !item.is_null() && !target.empty() && IsDirectory(target);
  if ((target.empty() || isInto) && !IsFileName(name)) {
    throw UsageError{"\"" + options.path + "\" needs a TARGET" + (isInto ? " that is a file" : "") +
                     ": no file can have its name."};
  }
  if (isInto) {
    target += "/" + name;
  } else if (target.empty()) {
    target = name;
  }
  Progress progress("get", 0, "files");
  VfsGetter getter(options.overwrite, [&](std::uint64_t count) { progress.show(0, count); });
  RunTelling(
      [&] { item.is_null() ? getter.getFolder(folder, target) : getter.getItem(item, target); },
      [&] { return getter.getNumWritten(); },
      [&] {
        Complain("Ended early: " +
                 CountText(getter.getNumWritten(), "are written", getter.getLastWritten()) +
                 "; what follows is not.");
      });
  return getter.getNumFailures() == 0 ? ExitStatus::kDone : ExitStatus::kFailure;
}

}  // namespace

void AddVfsPut(CLI::App& vfs, Invocation& invocation) {
  auto options = std::make_shared<TransferOptions>();
  CLI::App& command = AddVfsCommand(
      vfs, *options, "put", "Copy a real file or directory into the file system",
      "tarns -d data vfs put /usr/share/doc doc", "tarns -d data vfs put letter.txt letters");
  command.add_option("SOURCE", options->real, "The file or directory")->required();
  const CLI::Option* const path = command.add_option(
      "PATH", options->path,
      "Where it goes; without it, to its own name; \"\" is the whole file system. A directory is "
      "merged with a folder that is there, a file goes into it; items are replaced");
  command.callback([&invocation, options, path] {
    options->hasPath = path->count() > 0;
    invocation.action = [&invocation, options] { return Put(invocation, *options); };
  });
}

void AddVfsGet(CLI::App& vfs, Invocation& invocation) {
  auto options = std::make_shared<TransferOptions>();
  CLI::App& command = AddVfsCommand(
      vfs, *options, "get", "Copy an item or a folder to a real file or directory",
      "tarns -d data vfs get doc /tmp/doc", "tarns -d data vfs get letters~january.txt");
  command.add_option("PATH", options->path, "The item or folder; \"\" is the whole file system")
      ->required();
  command.add_option("TARGET", options->real,
                     "Where it goes; without it, to its own name. A folder is merged with a "
                     "directory that is there, an item goes into it");
  command.add_flag("--overwrite", options->overwrite, "Replace files that are there");
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Get(invocation, *options); };
  });
}

}  // namespace tarns
