// tarns vfs ls, tree, stat, cat: looking.
#include <tarns/core/TarnBranches.h>
#include <tarns/vfs/TarnVFSFile.h>
#include <tarns/vfs/TarnVFSReader.h>

#include <algorithm>
#include <climits>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/Listing.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/signals.h"
#include "tools/vfs_command.h"

namespace tarns {

namespace {

constexpr std::size_t kPage = 1000;
constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

struct ListOptions : VfsOptions {
  std::string after;
  std::size_t limit = kAll;
};

struct Entry {
  std::string name;
  TarnVFSInfo info;
  xcptref<TarnVFSItem> item;  // null for a folder
};

// Sub-folders and items of a folder in the order of their names, a folder before an item of its
// name.
class Entries {
 public:
  Entries(xcptref<TarnVFSFolder> folder, const std::string& after)
      : folder_(std::move(folder)), lastFolder_(after), lastItem_(after) {}

  std::optional<Entry> next() {
    fill();
    if (folders_.empty() && items_.empty()) return std::nullopt;
    if (items_.empty() || (!folders_.empty() && folders_.back() <= items_.back().name)) {
      const std::string name = std::move(folders_.back());
      folders_.pop_back();
      const auto below = folder_->getFolder(name);
      TarnVFSInfo info;
      if (!below.is_null()) info = below->getInfo();
      info.kind = TarnVFSInfo::Kind::kFolder;
      return Entry{name, info, nullptr};
    }
    TarnVFSEntry entry = std::move(items_.back());
    items_.pop_back();
    return Entry{std::move(entry.name), entry.info, std::move(entry.item)};
  }

 private:
  void fill() {
    if (folders_.empty() && !isFoldersEnd_) {
      folders_ = folder_->getFolderNames(lastFolder_, kPage);
      isFoldersEnd_ = folders_.size() < kPage;
      if (!folders_.empty()) lastFolder_ = folders_.back();
      std::reverse(folders_.begin(), folders_.end());
    }
    if (items_.empty() && !isItemsEnd_) {
      items_ = folder_->listItems(lastItem_, kPage);
      isItemsEnd_ = items_.size() < kPage;
      if (!items_.empty()) lastItem_ = items_.back().name;
      std::reverse(items_.begin(), items_.end());
    }
  }

  xcptref<TarnVFSFolder> folder_;
  std::string lastFolder_, lastItem_;
  std::vector<std::string> folders_;  // the next one last
  std::vector<TarnVFSEntry> items_;
  bool isFoldersEnd_ = false, isItemsEnd_ = false;
};

xcptref<TarnVFSFolder> FolderAt(OpenFiles& files, const std::string& path) {
  auto folder = files->getFolder(WithoutMark(path));
  if (folder.is_null()) ThrowNoSuchEntry(path);
  return folder;
}

std::string JsonOf(const std::string& name, const TarnVFSInfo& info) {
  std::string json = "{\"name\": " + Quoted(TextOfName(name)) +
                     ", \"kind\": " + Quoted(KindText(info.kind)) +
                     ", \"size\": " + std::to_string(info.size);
  if (info.modified != TarnVFSInfo::kNoTime) {
    json += ", \"modified\": " + Quoted(TimeText(info.modified));
  }
  if (info.permissions != TarnVFSInfo::kNoPermissions) {
    json += ", \"permissions\": " + std::to_string(info.permissions);
  }
  return json + ", \"references\": " + std::to_string(info.references) + "}";
}

// --- ls -----------------------------------------------------------------------------------------

template <class Visit>
void ForEachListed(OpenFiles& files, const ListOptions& options, const Visit& visit) {
  const FoundFile found = FindFile(*files, options.path);
  if (!found.item.is_null()) {
    visit(Entry{std::string(TarnBranches::LastOf(found.path)), found.item->getInfo(), found.item});
    return;
  }
  Entries entries(found.folder, options.after);
  for (std::size_t listed = 0; listed < options.limit; ++listed) {
    ThrowIfInterrupted();
    const auto entry = entries.next();
    if (!entry) return;
    visit(*entry);
  }
}

void WriteTable(Output& out, OpenFiles& files, const ListOptions& options) {
  Listing listing(out, {"MODE", "SIZE", "MODIFIED", "NAME"});
  ForEachListed(files, options, [&](const Entry& entry) {
    const bool isFolder = entry.info.kind == TarnVFSInfo::Kind::kFolder;
    const std::string time = TimeText(entry.info.modified);
    listing.add({ModeText(entry.info), isFolder ? "" : std::to_string(entry.info.size),
                 time.substr(0, time.find('.')), Shown(entry.name)});
  });
  listing.finish();
}

int Ls(const Invocation& invocation, const ListOptions& options) {
  OpenFiles files(invocation, options);
  Output out;
  Format format = invocation.format;
  if (format == Format::kAutomatic && out.isTerminal()) format = Format::kTable;
  if (format == Format::kTree) throw UsageError{"vfs ls has the formats table, json and raw."};
  if (format == Format::kTable) {
    WriteTable(out, files, options);
  } else if (format == Format::kJson) {
    const char* separator = "[";
    ForEachListed(files, options, [&](const Entry& entry) {
      out << separator << "\n  " << JsonOf(entry.name, entry.info);
      separator = ",";
    });
    out << (*separator == '[' ? "[]\n" : "\n]\n");
  } else {
    ForEachListed(files, options, [&](const Entry& entry) {
      out << (format == Format::kRaw ? entry.name : Shown(entry.name)) << '\n';
    });
  }
  out.finish();
  return ExitStatus::kDone;
}

// --- tree ---------------------------------------------------------------------------------------

int Tree(const Invocation& invocation, const VfsOptions& options) {
  OpenFiles files(invocation, options);
  struct Level {
    xcptref<TarnVFSFolder> folder;
    Entries entries;
  };
  const auto top = FolderAt(files, options.path);
  std::vector<Level> open;
  open.push_back({top, Entries(top, {})});
  Output out;
  out << (options.path.empty() ? "." : Shown(WithoutMark(options.path))) << '\n';
  while (!open.empty()) {
    ThrowIfInterrupted();
    const auto entry = open.back().entries.next();
    if (!entry) {
      open.pop_back();
      continue;
    }
    out << std::string(2 * open.size(), ' ') << Shown(entry->name);
    if (entry->item.is_null()) {
      auto below = open.back().folder->getFolder(entry->name);
      const auto isSame = [&](const Level& level) { return level.folder == below; };
      const bool isCircle = std::any_of(open.begin(), open.end(), isSame);
      out << (isCircle ? "/  (within itself)\n" : "/\n");
      if (!below.is_null() && !isCircle) open.push_back({below, Entries(below, {})});
    } else {
      out << "  (" << std::to_string(entry->info.size) << ")\n";
    }
  }
  out.finish();
  return ExitStatus::kDone;
}

// --- stat, cat ----------------------------------------------------------------------------------

int Stat(const Invocation& invocation, const VfsOptions& options) {
  OpenFiles files(invocation, options);
  const FoundFile found = FindFile(*files, options.path);
  const auto& item = found.item;
  const TarnVFSInfo info = item.is_null() ? found.folder->getInfo() : item->getInfo();
  const std::string name(TarnBranches::LastOf(found.path));
  Output out;
  if (invocation.format == Format::kJson) {
    out << JsonOf(name, info) << '\n';
    out.finish();
    return ExitStatus::kDone;
  }
  Listing facts(out, {});
  facts.add({"kind:", KindText(info.kind)});
  if (!item.is_null()) facts.add({"size:", std::to_string(info.size)});
  if (item.isA<TarnVFSFile>() && info.kind == TarnVFSInfo::Kind::kFile) {
    facts.add({"type:", Shown(xcptref<TarnVFSFile>(item)->getContentType(name))});
  }
  if (info.kind == TarnVFSInfo::Kind::kLink) {
    facts.add({"leads to:", info.size < PATH_MAX ? Shown(TarnVFSReader(item).readAll())
                                                 : "nothing: longer than links can be"});
  }
  facts.add({"mode:", ModeText(info)});
  facts.add({"modified:", TimeText(info.modified)});
  facts.add({"created:", TimeText(info.created)});
  facts.add({"references:", std::to_string(info.references)});
  if (item.is_null()) {
    const TarnRef summary = files->summarizeItemsIn(found.path);
    for (const char* key : {"Folders", "Items", "Bytes"}) {
      facts.add({std::string(key) + ":", std::to_string(summary->getUint64(key))});
    }
  }
  facts.finish();
  out.finish();
  return ExitStatus::kDone;
}

int Cat(const Invocation& invocation, const VfsOptions& options) {
  OpenFiles files(invocation, options);
  const auto item = files->getItem(options.path);
  if (item.is_null()) ThrowNoSuchEntry(options.path);
  TarnVFSReader reader(item);
  Output out;
  while (reader.tell() < reader.getSize()) {
    out << reader.nextPiece();
    ThrowIfInterrupted();
  }
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddVfsListing(CLI::App& vfs, Invocation& invocation) {
  auto list = std::make_shared<ListOptions>();
  CLI::App& ls = AddVfsCommand(vfs, *list, "ls", "List a folder", "tarns -d data vfs ls letters",
                               "tarns -d data vfs ls letters --after january.txt --limit 20");
  ls.add_option("PATH", list->path, "The folder, or an item; without it the whole file system");
  ls.add_option("--after", list->after, "Begin with the first name behind this one");
  ls.add_option("--limit", list->limit, "List no more than so many")->check(CLI::NonNegativeNumber);
  ls.callback([&invocation, list] {
    invocation.action = [&invocation, list] { return Ls(invocation, *list); };
  });

  const auto add = [&](const char* name, const char* description, const char* first,
                       const char* second, bool needsPath,
                       int (*run)(const Invocation&, const VfsOptions&)) {
    auto options = std::make_shared<VfsOptions>();
    CLI::App& command = AddVfsCommand(vfs, *options, name, description, first, second);
    command.add_option("PATH", options->path, "The item or folder")->required(needsPath);
    command.callback([&invocation, options, run] {
      invocation.action = [&invocation, options, run] { return run(invocation, *options); };
    });
  };
  add("tree", "Show a folder and everything in it", "tarns -d data vfs tree",
      "tarns -d data vfs tree letters~2026", false, Tree);
  add("stat", "Tell what is known of an item or folder",
      "tarns -d data vfs stat letters~january.txt", "tarns -d data vfs stat letters --format json",
      false, Stat);
  add("cat", "Write the content of an item to standard output",
      "tarns -d data vfs cat letters~january.txt", "tarns -d data vfs cat doc~index.gz | zcat",
      true, Cat);
}

}  // namespace tarns
