#include <fmt/format.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnPath.h>

#include <time.h>

#include <cstdio>

#include "tools/shown_text.h"
#include "tools/unique_file.h"
#include "tools/vfs_command.h"

namespace tarns {

namespace {

// A TarnVFS would make a file system where there is none, and whoever only looks must not write.
TarnRef BaseOf(OpenDatabase& database, const VfsOptions& options, bool make) {
  if (make) return database->getNoFail(options.base);
  TarnRef base = database->getObject(options.base);
  if (!base.is_null() && base->getChildWithName(TarnVFS::kRootNode).isA<TarnVFSFolder>()) {
    return base;
  }
  throw TarnException(("There is no file system below \"" + options.base +
                       "\"; \"tarns vfs put\" and \"tarns vfs mkdir\" make one.")
                          .c_str(),
                      ErrorID::NonExistentPath);
}

}  // namespace

CLI::App& AddVfsCommand(CLI::App& vfs, VfsOptions& options, const char* name,
                        const char* description, const char* firstExample,
                        const char* secondExample) {
  CLI::App& command = AddCommand(vfs, name, description, firstExample, secondExample);
  command
      .add_option("--base", options.base,
                  "The node below which the file system is (default \"files\")")
      ->type_name("PATH");
  return command;
}

OpenFiles::OpenFiles(const Invocation& invocation, const VfsOptions& options, bool make)
    : database_(invocation), files_(*database_, BaseOf(database_, options, make)) {}

void ThrowNoSuchEntry(std::string_view path) {
  throw TarnException(("There is no folder and no item \"" + std::string(path) + "\".").c_str(),
                      ErrorID::NonExistentPath);
}

bool NamesFolder(std::string_view path) {
  return path.size() > 1 && path.back() == TarnBranches::kSeparator;
}

std::string WithoutMark(std::string_view path) {
  return std::string(path.substr(0, path.size() - (NamesFolder(path) ? 1 : 0)));
}

void VerifyPath(std::string_view path) {
  TarnPath names;
  for (const std::string_view name : TarnBranches(path)) names << name;
}

void VerifyNoItemAt(TarnVFS& files, const std::string& path) {
  if (!files.isItemExist(path)) return;
  throw TarnException(("There is an item \"" + path + "\" already.").c_str(), ErrorID::Unspecified);
}

void VerifyNoItemOnTheWay(TarnVFS& files, const std::string& folder) {
  std::string path;
  for (const std::string_view name : TarnBranches(folder)) {
    path += (path.empty() ? "" : "~") + std::string(name);
    if (!files.isFolderExist(path)) VerifyNoItemAt(files, path);
  }
}

FoundFile FindFile(TarnVFS& files, const std::string& path) {
  FoundFile found{WithoutMark(path)};
  if (!NamesFolder(path)) found.item = files.getItem(found.path);
  if (found.item.is_null()) found.folder = files.getFolder(found.path);
  if (found.item.is_null() && found.folder.is_null()) ThrowNoSuchEntry(path);
  return found;
}

void Complain(std::string_view message) {
  std::fprintf(stderr, "tarns: %s\n", ShownInFull(message).c_str());
}

std::string ModeText(const TarnVFSInfo& info) {
  std::string text("?---------");
  text[0] = info.kind == TarnVFSInfo::Kind::kFolder ? 'd'
            : info.kind == TarnVFSInfo::Kind::kLink ? 'l'
                                                    : '-';
  if (info.permissions == TarnVFSInfo::kNoPermissions) return text.replace(1, 9, 9, '?');
  constexpr std::string_view kLetters = "rwxrwxrwx";
  for (std::size_t bit = 0; bit < kLetters.size(); ++bit) {
    if ((info.permissions >> (kLetters.size() - 1 - bit) & 1U) != 0) text[bit + 1] = kLetters[bit];
  }
  const auto special = [&](std::uint32_t mask, std::size_t at, char letter) {
    if ((info.permissions & mask) == 0) return;
    const bool isExecutable = text[at] == 'x';
    text[at] = isExecutable ? letter : static_cast<char>(letter - 'a' + 'A');
  };
  special(04000, 3, 's');
  special(02000, 6, 's');
  special(01000, 9, 't');
  return text;
}

std::string TimeText(TarnVFSTime time) {
  if (time == TarnVFSInfo::kNoTime) return {};
  const time_t seconds = time.seconds;
  tm parts{};
  if (::gmtime_r(&seconds, &parts) == nullptr) return std::to_string(time.seconds) + " s";
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}Z",
                     std::int64_t{parts.tm_year} + 1900, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour, parts.tm_min, parts.tm_sec, time.nanoseconds);
}

const char* KindText(TarnVFSInfo::Kind kind) {
  switch (kind) {
    case TarnVFSInfo::Kind::kFolder:
      return "folder";
    case TarnVFSInfo::Kind::kLink:
      return "link";
    default:
      return "file";
  }
}

std::string NameInTree(std::string_view real) {
  std::string name;
  for (std::size_t at = 0; at < real.size(); ++at) {
    const std::string_view next = real.substr(at + 1, 2);
    if (real[at] == '~') {
      name += "%7E";
    } else if (real[at] == '%' && (next == "7E" || next == "25")) {
      name += "%25";
    } else {
      name += real[at];
    }
  }
  return name;
}

std::string NameOfFile(std::string_view inTree) {
  std::string name;
  for (std::size_t at = 0; at < inTree.size(); ++at) {
    const std::string_view code = inTree.substr(at, 3);
    const bool isCode = code == "%7E" || code == "%25";
    name += code == "%7E" ? '~' : inTree[at];
    if (isCode) at += 2;
  }
  return name;
}

std::string Joined(const std::string& directory, const std::string& name) {
  return directory.ends_with('/') ? directory + name : directory + "/" + name;
}

void ThrowPathError(const std::string& path) { ThrowSystemError("\"" + path + "\""); }

bool IsFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

void AddVfs(CLI::App& app, Invocation& invocation) {
  CLI::App& vfs =
      AddCommand(app, "vfs", "Keep files in the tree: folders, items, a recycle bin",
                 "tarns -d data vfs put /usr/share/doc doc", "tarns -d data vfs get doc /tmp/doc");
  vfs.require_subcommand(1);
  AddVfsListing(vfs, invocation);
  AddVfsPut(vfs, invocation);
  AddVfsGet(vfs, invocation);
  AddVfsChanges(vfs, invocation);
  AddVfsBin(vfs, invocation);
}

}  // namespace tarns
