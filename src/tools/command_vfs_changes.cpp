// tarns vfs mkdir, mv, cp, rm, bin: changing.
#include <tarns/core/TarnException.h>

#include <memory>
#include <string>

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

int Mkdir(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options, true);
  if (!files->createFolder(options.path)) {
    ThrowRefused("Folders are not allowed at \"" + options.path + "\".");
  }
  return ExitStatus::kDone;
}

// Explains why a folder or item was not moved or copied.
[[noreturn]] void ThrowNotTransferred(OpenFiles& files, const ChangeOptions& options) {
  if (!files->getInfo(options.path)) ThrowNoSuchEntry(options.path);
  ThrowRefused("\"" + options.path + "\" cannot go to \"" + options.to +
               "\": there is no such folder, it takes no folders, or it is within the folder.");
}

int Mv(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options);
  const bool isDone = files->isItemExist(options.path)
                          ? files->moveItem(options.path, options.to)
                          : files->moveFolder(options.path, options.to);
  if (!isDone) ThrowNotTransferred(files, options);
  return ExitStatus::kDone;
}

int Cp(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options);
  const bool isItem = files->isItemExist(options.path);
  if (!isItem && options.shares) throw UsageError{"--share is for items."};
  if (!isItem && !options.isRecursive && files->isFolderExist(options.path)) {
    throw UsageError{"\"" + options.path + "\" is a folder; copy it with -r."};
  }
  const bool isDone = options.shares ? files->shareItem(options.path, options.to)
                      : isItem       ? files->copyItemTo(options.path, options.to)
                                     : files->copyFolder(options.path, options.to);
  if (!isDone) ThrowNotTransferred(files, options);
  return ExitStatus::kDone;
}

int Rm(const Invocation& invocation, const ChangeOptions& options) {
  OpenFiles files(invocation, options);
  const bool isItem = files->isItemExist(options.path);
  if (!isItem && !files->isFolderExist(options.path)) ThrowNoSuchEntry(options.path);
  if (!isItem && !options.isRecursive) {
    throw UsageError{"\"" + options.path + "\" is a folder; remove it with -r."};
  }
  const bool isDone = options.bins ? isItem ? files->moveItemToBin(options.path)
                                            : files->moveFolderToBin(options.path)
                      : isItem ? files->deleteItem(options.path)
                                   : files->deleteFolder(options.path);
  if (!isDone) ThrowRefused("\"" + options.path + "\" cannot be removed.");
  return ExitStatus::kDone;
}

// --- bin ----------------------------------------------------------------------------------------

[[noreturn]] void ThrowNoBinEntry(unsigned long id) {
  throw TarnException(
      ("The recycle bin has no entry " + std::to_string(id) + " that can be restored.").c_str(),
      ErrorID::NonExistentPath);
}

int BinLs(const Invocation& invocation, const BinOptions& options) {
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
      ->required();
  auto remove = std::make_shared<BinOptions>();
  Add(bin, invocation, remove, BinRm, "rm", "Remove an entry", "tarns -d data vfs bin rm 3",
      "tarns -d data vfs bin rm 3 --base archive")
      .add_option("ID", remove->id, "The entry's number")
      ->required();
  auto empty = std::make_shared<BinOptions>();
  Add(bin, invocation, empty, BinEmpty, "empty", "Remove all entries",
      "tarns -d data vfs bin empty", "tarns -d data vfs bin empty --older 86400")
      .add_option("--older", empty->seconds, "Only those that were binned so long ago")
      ->type_name("SECONDS");
}

}  // namespace tarns
