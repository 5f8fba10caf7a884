// TarnVFS: trees and summaries.
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarns {

namespace {

constexpr std::size_t kPage = 1000;  // items at a time

struct Summary {
  std::uint64_t items = 0, bytes = 0;
  std::optional<TarnVFSTime> modified;
  std::map<std::string, std::uint64_t> types;

  void add(const TarnVFSEntry& entry) {
    ++items;
    if (!entry.item.isA<TarnVFSFile>()) return;
    bytes += entry.info.size;
    modified = std::max(modified.value_or(entry.info.modified), entry.info.modified);
    ++types[xcptref<TarnVFSFile>(entry.item)->getContentType(entry.name)];
  }
};

}  // namespace

TarnRef TarnVFS::buildFolderTreeFor() { return BuildFolderTreeFor(getVFSRootNode()); }

TarnRef TarnVFS::BuildFolderTreeFor(const xcptref<TarnVFSFolder>& folder) {
  if (folder.is_null()) return nullptr;
  TarnRef tree = TarnObject::Create();
  std::vector<std::pair<xcptref<TarnVFSFolder>, TarnRef>> open{{folder, tree}};
  while (!open.empty()) {
    const auto [source, node] = std::move(open.back());
    open.pop_back();
    const TarnRef folders = source->getFoldersNode();
    if (folders.is_null()) continue;
    for (const auto& [name, child] : folders->children()) {
      const TarnRef below = TarnObject::Create();
      modify(node)->addChild(name.c_str(), below);
      open.emplace_back(xcptref<TarnVFSFolder>(child), below);
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
    page = folder->listItems(after, kPage);
    for (const TarnVFSEntry& entry : page) summary.add(entry);
    if (!page.empty()) after = page.back().name;
  } while (page.size() == kPage);
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
