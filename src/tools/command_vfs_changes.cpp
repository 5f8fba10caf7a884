// tarns vfs mkdir, mv, cp, rm, bin: changing.
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>

#include <charconv>
#include <memory>
#include <string>
#include <system_error>

#include "tools/Listing.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/vfs_command.h"

namespace tarns {

namespace {

struct ChangeOptions : VfsOptions {
  std::string to;
  bool isRecursive = false;
  bool shares = false;
  bool bins = false;
};

struct BinOptions : VfsOptions {
  unsigned long id = 0;
  unsigned long seconds = 0;
};

[[noreturn]] void ThrowRefused(const std::string& what) {
  throw TarnException(what.c_str(), ErrorID::Unspecified);
}

void VerifyNoFolderAt(TarnVFS& files, const std::string& path) {
  if (files.isFolderExist(path)) ThrowRefused("There is a folder \"" + path + "\" already.");
}

int Mkdir(const Invocation& invocation, const ChangeOptions& options) {
  const std::string path = WithoutMark(options.path);
  VerifyPath(path);
  OpenFiles files(invocation, options, true);
  VerifyNoItemOnTheWay(*files, path);
  if (!files->createFolder(path)) ThrowRefused("Folders are not allowed at \"" + path + "\".");
  return ExitStatus::kDone;
}

// Where something is to be moved or copied to.
struct Target {
  std::string to;      // as it was given, but for "~" at its end
  std::string folder;  // into which it comes
  std::string path;    // that it gets there, unless it is numbered
};

// Throws where it cannot come there because of what is there.
Target TargetOf(TarnVFS& files, const FoundFile& source, const std::string& given) {
  if (source.path.empty()) ThrowRefused("\"\" is the whole file system, which stays where it is.");
  Target target;
  target.to = WithoutMark(given);
  const bool isInto = files.isFolderExist(target.to);
  target.folder = isInto || NamesFolder(given) ? target.to : TarnBranches::ParentOf(target.to);
  if (!files.isFolderExist(target.folder)) {
    throw TarnException(("There is no folder \"" + target.folder + "\".").c_str(),
                        ErrorID::NonExistentPath);
  }
  target.path = target.to;
  if (isInto) {
    target.path += (target.to.empty() ? "" : "~") + std::string(TarnBranches::LastOf(source.path));
  }
  if (source.item.is_null()) {
    VerifyNoItemAt(files, target.path);
  } else {
    VerifyNoFolderAt(files, target.path);
  }
  return target;
}

// Explains why a folder or item was not moved or copied.
[[noreturn]] void ThrowNotTransferred(TarnVFS& files, const FoundFile& source,
                                      const Target& target) {
  const std::string start = "\"" + source.path + "\" cannot go to \"" + target.to + "\": ";
  const auto folder = files.getFolder(target.folder);
  const bool takesFolders =
      !folder.is_null() && (folder->getFolderType() & TarnVFSFolder::kNoSubFolders) == 0;
  if (source.item.is_null() && takesFolders) ThrowRefused(start + "that is within it.");
  ThrowRefused(start + "\"" + target.folder + "\" takes no sub-folders.");
}

int Mv(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options);
  const FoundFile source = FindFile(*files, options.path);
  const Target target = TargetOf(*files, source, options.to);
  const bool isDone = source.item.is_null() ? files->moveFolder(source.path, target.to)
                                            : files->moveItem(source.path, target.to);
  if (!isDone) ThrowNotTransferred(*files, source, target);
  return ExitStatus::kDone;
}

int Cp(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options);
  const FoundFile source = FindFile(*files, options.path);
  const bool isItem = !source.item.is_null();
  if (!isItem && options.shares) throw UsageError{"--share is for items."};
  if (!isItem && !options.isRecursive) {
    throw UsageError{"\"" + source.path + "\" is a folder; copy it with -r."};
  }
  const Target target = TargetOf(*files, source, options.to);
  const bool isDone = options.shares ? files->shareItem(source.path, target.to)
                      : isItem       ? files->copyItemTo(source.path, target.to)
                                     : files->copyFolder(source.path, target.to);
  if (!isDone) ThrowNotTransferred(*files, source, target);
  return ExitStatus::kDone;
}

int Rm(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options);
  const FoundFile found = FindFile(*files, options.path);
  const bool isItem = !found.item.is_null();
  if (!isItem && !options.isRecursive) {
    throw UsageError{"\"" + found.path + "\" is a folder; remove it with -r."};
  }
  const bool isDone =
      options.bins ? isItem ? files->moveItemToBin(found.path) : files->moveFolderToBin(found.path)
      : isItem ? files->deleteItem(found.path)
                   : files->deleteFolder(found.path);
  if (!isDone) ThrowRefused("\"" + found.path + "\" cannot be removed.");
  return ExitStatus::kDone;
}

// --- bin ----------------------------------------------------------------------------------------

[[noreturn]] void ThrowNoBinEntry(unsigned long id) {
  throw TarnException(
      ("The recycle bin has no entry " + std::to_string(id) + " that can be restored.").c_str(),
      ErrorID::NonExistentPath);
}

// What is checked of a number on the command line; "" when it is one.
std::string FaultOfNumber(const std::string& text) {
  unsigned long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  return isNumber ? "" : "\"" + text + "\" is no number that there can be.";
}

int BinLs(const Invocation& invocation, const BinOptions& options) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"vfs bin ls has the formats table and json."};
  }
  OpenFiles files(invocation, options);
  Output out;
  if (invocation.format == Format::kJson) {
    const char* separator = "[";
    for (const TarnVFS::BinEntry& entry : files->listRecycleBin()) {
      out << separator << "\n  {\"id\": " << std::to_string(entry.id)
          << ", \"kind\": " << (entry.isFolder ? "\"folder\"" : "\"item\"")
          << ", \"path\": " << Quoted(TextOfName(entry.path))
          << ", \"binned\": " << Quoted(TimeText(entry.time)) << "}";
      separator = ",";
    }
    out << (*separator == '[' ? "[]\n" : "\n]\n");
  } else {
    Listing listing(out, {"ID", "KIND", "BINNED", "PATH"});
    for (const TarnVFS::BinEntry& entry : files->listRecycleBin()) {
      const std::string time = TimeText(entry.time);
      listing.add({std::to_string(entry.id), entry.isFolder ? "folder" : "item",
                   time.substr(0, time.find('.')), Shown(entry.path)});
    }
    listing.finish();
  }
  out.finish();
  return ExitStatus::kDone;
}

int BinRestore(const Invocation& invocation, const BinOptions& options) {
  OpenFiles files(invocation, options);
  XString path;
  if (!files->restoreFromBin(options.id, &path)) ThrowNoBinEntry(options.id);
  Output out;
  out << Shown(path.view()) << '\n';
  out.finish();
  return ExitStatus::kDone;
}

int BinRm(const Invocation& invocation, const BinOptions& options) {
  OpenFiles files(invocation, options);
  if (!files->delFromRecycleBin(options.id)) ThrowNoBinEntry(options.id);
  return ExitStatus::kDone;
}

int BinEmpty(const Invocation& invocation, const BinOptions& options) {
  OpenFiles files(invocation, options);
  files->emptyRecycleBin(options.seconds);
  return ExitStatus::kDone;
}

// Adds a sub-command with options of its own and runs `run` when it is named.
template <class Options>
CLI::App& Add(CLI::App& above, Invocation& invocation, std::shared_ptr<Options> options,
              int (*run)(const Invocation&, const Options&), const char* name,
              const char* description, const char* first, const char* second) {
  CLI::App& command = AddVfsCommand(above, *options, name, description, first, second);
  command.callback([&invocation, options, run] {
    invocation.action = [&invocation, options, run] { return run(invocation, *options); };
  });
  return command;
}

}  // namespace

void AddVfsChanges(CLI::App& vfs, Invocation& invocation) {
  auto make = std::make_shared<ChangeOptions>();
  Add(vfs, invocation, make, Mkdir, "mkdir", "Make a folder, and those above it",
      "tarns -d data vfs mkdir letters~2026", "tarns -d data vfs mkdir doc --base archive")
      .add_option("PATH", make->path, "The folder")
      ->required();

  auto move = std::make_shared<ChangeOptions>();
  CLI::App& mv =
      Add(vfs, invocation, move, Mv, "mv", "Move an item or a folder",
          "tarns -d data vfs mv letters~january.txt archive", "tarns -d data vfs mv letters post");
  mv.add_option("FROM", move->path, "The item or folder")->required();
  mv.add_option("TO", move->to, "Its new path, or a folder to put it into")->required();

  auto copy = std::make_shared<ChangeOptions>();
  CLI::App& cp = Add(
      vfs, invocation, copy, Cp, "cp", "Copy an item or a folder; the copies share their bytes",
      "tarns -d data vfs cp letters~january.txt archive", "tarns -d data vfs cp -r letters backup");
  cp.add_option("FROM", copy->path, "The item or folder")->required();
  cp.add_option("TO", copy->to, "The copy's path, or a folder to put it into")->required();
  cp.add_flag("-r", copy->isRecursive, "Copy a folder with everything in it");
  cp.add_flag("--share", copy->shares, "List the item itself in both places");

  auto remove = std::make_shared<ChangeOptions>();
  CLI::App& rm =
      Add(vfs, invocation, remove, Rm, "rm", "Remove an item or a folder",
          "tarns -d data vfs rm letters~january.txt", "tarns -d data vfs rm -r letters --bin");
  rm.add_option("PATH", remove->path, "The item or folder")->required();
  rm.add_flag("-r", remove->isRecursive, "Remove a folder with everything in it");
  rm.add_flag("--bin", remove->bins, "Put it into the recycle bin");
}

void AddVfsBin(CLI::App& vfs, Invocation& invocation) {
  CLI::App& bin = AddCommand(vfs, "bin", "Look after the recycle bin", "tarns -d data vfs bin ls",
                             "tarns -d data vfs bin restore 3");
  bin.require_subcommand(1);
  Add(bin, invocation, std::make_shared<BinOptions>(), BinLs, "ls", "List the entries",
      "tarns -d data vfs bin ls", "tarns -d data vfs bin ls --format json");
  auto restore = std::make_shared<BinOptions>();
  Add(bin, invocation, restore, BinRestore, "restore",
      "Put an entry back to where it was; prints its path", "tarns -d data vfs bin restore 3",
      "tarns -d data vfs bin restore 3 --base archive")
      .add_option("ID", restore->id, "The entry's number")
      ->required()
      ->check(FaultOfNumber);
  auto remove = std::make_shared<BinOptions>();
  Add(bin, invocation, remove, BinRm, "rm", "Remove an entry", "tarns -d data vfs bin rm 3",
      "tarns -d data vfs bin rm 3 --base archive")
      .add_option("ID", remove->id, "The entry's number")
      ->required()
      ->check(FaultOfNumber);
  auto empty = std::make_shared<BinOptions>();
  Add(bin, invocation, empty, BinEmpty, "empty", "Remove all entries",
      "tarns -d data vfs bin empty", "tarns -d data vfs bin empty --older 86400")
      .add_option("--older", empty->seconds, "Only those that were binned so long ago")
      ->type_name("SECONDS")
      ->check(FaultOfNumber);
}

}  // namespace tarns
