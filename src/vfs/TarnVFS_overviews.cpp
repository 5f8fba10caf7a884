// TarnVFS: trees and summaries.
#include <tarns/core/TarnBranches.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tarns {

namespace {

constexpr std::size_t kItemsAtATime = 1000;

// A content type as the name of a child: whatever was set, it is one.
std::string NameOfType(std::string_view type) {
  constexpr std::size_t kLongest = 255;  // that of registered ones
  std::string name;
  for (const char c : type.substr(0, std::min(type.find('\0'), kLongest))) {
    if (c == TarnBranches::kSeparator) {
      name += "%7E";
    } else {
      name += c;
    }
  }
  return name.empty() ? "?" : name;
}

struct Summary {
  std::uint64_t items = 0, bytes = 0;
  std::optional<TarnVFSTime> modified;
  std::map<std::string, std::uint64_t> types;

  void add(const TarnVFSEntry& entry) {
    ++items;
    if (!entry.item.isA<TarnVFSFile>()) return;
    bytes += entry.info.size;
    if (entry.info.modified != TarnVFSInfo::kNoTime) {
      modified = std::max(modified.value_or(entry.info.modified), entry.info.modified);
    }
    ++types[NameOfType(xcptref<TarnVFSFile>(entry.item)->getContentType(entry.name))];
  }
};

}  // namespace

TarnRef TarnVFS::buildFolderTreeFor() { return BuildFolderTreeFor(getVFSRootNode()); }

TarnRef TarnVFS::BuildFolderTreeFor(const xcptref<TarnVFSFolder>& folder) {
  if (folder.is_null()) return nullptr;
  TarnRef tree = TarnObject::Create();
  std::unordered_set<xcptref<TarnVFSFolder>> seen{folder};
  std::deque<std::pair<xcptref<TarnVFSFolder>, TarnRef>> open{{folder, tree}};  // nearest first
  while (!open.empty()) {
    const auto [source, node] = std::move(open.front());
    open.pop_front();
    for (const std::string& name : source->getFolderNames()) {
      const TarnRef below = TarnObject::Create();
      modify(node)->addChild(name.c_str(), below);
      const auto found = source->getFolder(name);
      if (seen.insert(found).second) open.emplace_back(found, below);
    }
  }
  return tree;
}

TarnRef TarnVFS::summarizeItemsIn(TarnPathText folderPath) {
  const auto folder = folderAt(folderPath.view());
  if (folder.is_null()) return nullptr;
  Summary summary;
  std::vector<TarnVFSEntry> page;
  std::string after;
  do {
    page = folder->listItems(after, kItemsAtATime);
    for (const TarnVFSEntry& entry : page) summary.add(entry);
    if (!page.empty()) after = page.back().name;
  } while (page.size() == kItemsAtATime);
  TarnRef node = TarnObject::Create();
  auto body = modify(node);
  body->setValue("Items", TarnData(summary.items));
  body->setValue("Folders", TarnData(std::uint64_t{folder->getNumFolders()}));
  body->setValue("Bytes", TarnData(summary.bytes));
  if (summary.modified) body->setValue("Modified", TarnData(summary.modified->seconds));
  for (const auto& [type, count] : summary.types) {
    body->setValue(("Types~" + type).c_str(), TarnData(count));
  }
  return node;
}

}  // namespace tarns
