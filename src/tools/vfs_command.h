// What the sub-commands of `tarns vfs` share.
#pragma once

#include <tarns/vfs/TarnVFS.h>

#include <string>
#include <string_view>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"

namespace tarns {

// Options of every sub-command.
struct VfsOptions {
  std::string base = "files";  // the node below which the file system is
  std::string path;
};

// Adds a sub-command of `vfs` that has the options in common.
CLI::App& AddVfsCommand(CLI::App& vfs, VfsOptions& options, const char* name,
                        const char* description, const char* firstExample,
                        const char* secondExample);

// A database and a file system in it.
class OpenFiles {
 public:
  // Throws 7 when there is no file system below the base, unless `make` says to make one.
  OpenFiles(const Invocation& invocation, const VfsOptions& options, bool make = false);

  TarnVFS* operator->() { return &files_; }
  TarnVFS& operator*() { return files_; }

 private:
  OpenDatabase database_;
  TarnVFS files_;
};

// Throws 7, naming the path.
[[noreturn]] void ThrowNoSuchEntry(std::string_view path);

// Whether a path ends with a "~", which says that it names a folder.
bool NamesFolder(std::string_view path);
// The path without that.
std::string WithoutMark(std::string_view path);
// Throws 8 unless the path has names that can be given.
void VerifyPath(std::string_view path);

// A folder and an item of one name would be two things at one path. Throw 0, the second one where a
// folder that is to be made, or one above it, would be the second of both.
void VerifyNoItemAt(TarnVFS& files, const std::string& path);
void VerifyNoItemOnTheWay(TarnVFS& files, const std::string& folder);

// What a path names: the item or, where there is none or the path ends with "~", the folder.
struct FoundFile {
  std::string path;                     // without "~" at its end
  xcptref<TarnVFSItem> item = nullptr;  // one of both
  xcptref<TarnVFSFolder> folder = nullptr;
};
// Throws what ThrowNoSuchEntry() throws.
FoundFile FindFile(TarnVFS& files, const std::string& path);
// Writes "tarns: " and the message to standard error.
void Complain(std::string_view message);

// "-rw-r--r--"; question marks where permissions were never told.
std::string ModeText(const TarnVFSInfo& info);
// In UTC, as 2026-11-22T05:00:00.123456789Z; empty for a time that was never told.
std::string TimeText(TarnVFSTime time);
const char* KindText(TarnVFSInfo::Kind kind);

// Names of real files may contain "~", which names in the tree may not: "~" is written as "%7E",
// and a "%" before "7E" or "25" as "%25". Every name comes back as it was.
std::string NameInTree(std::string_view real);
std::string NameOfFile(std::string_view inTree);
// Whether a directory can have an entry of that name.
bool IsFileName(std::string_view name);
// The path of an entry of a directory.
std::string Joined(const std::string& directory, const std::string& name);
// Throws what errno says of the real file, at the time of the call.
[[noreturn]] void ThrowPathError(const std::string& path);

// The parts of `tarns vfs`; each adds its sub-commands.
void AddVfsListing(CLI::App& vfs, Invocation& invocation);
void AddVfsChanges(CLI::App& vfs, Invocation& invocation);
void AddVfsBin(CLI::App& vfs, Invocation& invocation);
void AddVfsPut(CLI::App& vfs, Invocation& invocation);
void AddVfsGet(CLI::App& vfs, Invocation& invocation);

}  // namespace tarns
