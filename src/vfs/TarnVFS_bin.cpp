// TarnVFS: the recycle bin.
#include <fmt/format.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/vfs/TarnVFS.h>

#include <charconv>
#include <string>
#include <string_view>
#include <vector>

#include "vfs/vfs_access.h"
#include "vfs/vfs_names.h"
#include "vfs/vfs_places.h"

namespace tarns {

namespace {

using Folder = xcptref<TarnVFSFolder>;

// Entries are called by their numbers, so that the order of the names is that of the numbers.
std::string EntryName(unsigned long id) { return fmt::format("{:010}", id); }

// The number that an entry is called by; 0 for any other name.
unsigned long IdOf(std::string_view name) {
  unsigned long id = 0;
  std::from_chars(name.data(), name.data() + name.size(), id);
  return EntryName(id) == name ? id : 0;
}

TarnVFS::BinEntry Described(unsigned long id, const TarnRef& entry) {
  TarnVFS::BinEntry described;
  described.id = id;
  described.isFolder = entry->getUint32(TarnVFS::kBinItemType, 0) == TarnVFS::kBinTypeFolder;
  described.name = entry->getXString(TarnVFS::kBinItemName, "").view();
  described.path = entry->getXString(TarnVFS::kBinItemPath, "").view();
  described.time = TarnVFSInfo::kNoTime;
  if (entry->hasChild(TarnVFS::kBinTime)) {
    described.time = {entry->getSint64(TarnVFS::kBinTime, 0), 0};
  }
  described.node = entry->getChildWithName(TarnVFS::kBinItem);
  return described;
}

TarnRef NewEntry(const TarnVFS::BinEntry& described) {
  TarnRef entry = TarnObject::Create();
  auto body = modify(entry);
  body->setValue(TarnVFS::kBinItemID, TarnData(std::uint64_t{described.id}));
  body->setValue(TarnVFS::kBinItemName, TarnData(described.name.c_str()));
  body->setValue(TarnVFS::kBinItemPath, TarnData(described.path.c_str()));
  body->setValue(TarnVFS::kBinItemType,
                 TarnData(described.isFolder ? TarnVFS::kBinTypeFolder : TarnVFS::kBinTypeItem));
  body->setValue(TarnVFS::kBinTime, TarnData(described.time.seconds));
  body->addChild(TarnVFS::kBinItem, described.node);
  return entry;
}

std::vector<TarnVFS::BinEntry> EntriesOf(const TarnRef& bin, unsigned long after,
                                         std::size_t limit) {
  std::vector<TarnVFS::BinEntry> entries;
  for (TarnIterator place = bin->getIterToOrAfter(EntryName(after + 1).c_str());
       !place.isNull() && entries.size() < limit;) {
    XString name;
    const TarnRef entry = place.next(&name);
    if (const unsigned long id = IdOf(name.view()); id != 0) {
      entries.push_back(Described(id, entry));
    }
  }
  return entries;
}

}  // namespace

bool TarnVFS::bin(TarnPathText path, bool isFolder, unsigned long* id) {
  const Place place = placeAt(path.view());
  if (!place.isValid()) return false;
  const TarnRef bin = getRecycleBin();
  const Folder root = getRootNode();
  BinEntry entry;
  entry.isFolder = isFolder;
  entry.name = place.name;
  const bool isDone = changeBin(bin, [&] {
    Hold(place.folder);
    verifyFolder();
    std::string above;
    if (!PathBelow(root, place.folder, above)) return false;  // it has been removed
    entry.path = JoinedPath(above, place.name);
    entry.node = isFolder ? TarnRef(place.folder->getFolder(place.name))
                          : TarnRef(place.folder->getItem(place.name));
    if (entry.node.is_null()) return false;
    if (isFolder) {
      modify(place.folder)->removeFolder(place.name);
    } else {
      modify(place.folder)->removeItem(place.name);
      CountPlace(xcptref<TarnVFSItem>(entry.node), bin);
    }
    entry.id = bin->getUint64(kBinLastID, 0) + 1;
    entry.time = TarnVFSTime::Now();
    modify(bin)->setValue(kBinLastID, TarnData(std::uint64_t{entry.id}));
    modify(bin)->addChild(EntryName(entry.id).c_str(), NewEntry(entry));
    return true;
  });
  if (isDone && id != nullptr) *id = entry.id;
  return isDone;
}

bool TarnVFS::moveItemToBin(TarnPathText path, unsigned long* id) { return bin(path, false, id); }

bool TarnVFS::moveFolderToBin(TarnPathText path, unsigned long* id) { return bin(path, true, id); }

TarnRef TarnVFS::binEntry(unsigned long id) {
  return id == 0 ? TarnRef() : getRecycleBin()->getChildWithName(std::string_view(EntryName(id)));
}

bool TarnVFS::restoreFromBin(unsigned long id, XString* path) {
  const TarnRef bin = getRecycleBin();
  getRootNode();
  return changeBin(bin, [&] {
    const TarnRef entry = binEntry(id);
    if (entry.is_null() || !restore(Described(id, entry), entry, path)) return false;
    modify(bin)->deleteChild(EntryName(id).c_str());
    return true;
  });
}

bool TarnVFS::restore(const BinEntry& described, const TarnRef& entry, XString* path) {
  if (described.node.is_null() || described.name.empty()) return false;
  const std::string above(TarnBranches::ParentOf(described.path));
  const Folder folder = makeFolder(getRootNode(), above, nullptr, 0);
  if (folder.is_null()) return false;
  XString name;
  if (described.isFolder) {
    if ((folder->getFolderType() & TarnVFSFolder::kNoSubFolders) != 0) return false;
    name = FreeName(folder->getFoldersNode(), described.name);
    modify(entry)->deleteChild(kBinItem);
    if (!modify(folder)->addFolder(name, Folder(described.node), false)) {
      ThrowListedElsewhere(described.name);
    }
  } else {
    const xcptref<TarnVFSItem> item(described.node);
    modify(entry)->deleteChild(kBinItem);
    UncountPlace(item);
    modify(folder)->addItem(described.name.c_str(), item, true, &name);
  }
  if (path != nullptr) *path = JoinedPath(above, name.view());
  return true;
}

// --- Removing -----------------------------------------------------------------------------------

// Removes an entry. What stands elsewhere as well counts a place less.
void TarnVFS::dropEntry(const TarnRef& bin, unsigned long id) {
  const TarnRef entry = binEntry(id), node = entry->getChildWithName(kBinItem);
  modify(bin)->deleteChild(EntryName(id).c_str());
  if (node.is_null()) return;
  modify(entry)->deleteChild(kBinItem);
  if (node.isA<TarnVFSFolder>()) RemoveSharedItems(getRootNode(), Folder(node));
  if (node.isA<TarnVFSItem>()) UncountPlace(xcptref<TarnVFSItem>(node));
}

bool TarnVFS::delFromRecycleBin(unsigned long id) {
  const TarnRef bin = getRecycleBin();
  getRootNode();
  return changeBin(bin, [&] {
    if (binEntry(id).is_null()) return false;
    dropEntry(bin, id);
    return true;
  });
}

unsigned long TarnVFS::emptyRecycleBin(unsigned long seconds) {
  const TarnRef bin = getRecycleBin();
  getRootNode();
  const std::int64_t now = TarnVFSTime::Now().seconds;
  // Of an entry without a time more than any that is asked for.
  const auto ageOf = [now](const BinEntry& entry) {
    const std::int64_t then = entry.time.seconds;
    return then < now ? static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(then) : 0;
  };
  unsigned long removed = 0;
  changeBin(bin, [&] {
    removed = 0;
    for (const BinEntry& entry : listRecycleBin()) {
      if (ageOf(entry) < seconds) continue;
      dropEntry(bin, entry.id);
      ++removed;
    }
    return removed > 0;
  });
  return removed;
}

// --- Looking ------------------------------------------------------------------------------------

std::vector<TarnVFS::BinEntry> TarnVFS::listRecycleBin(unsigned long after, std::size_t limit) {
  return EntriesOf(getRecycleBin(), after, limit);
}

TarnRef TarnVFS::buildRecycleBinTree() { return BuildRecycleBinTree(getRecycleBin()); }

TarnRef TarnVFS::BuildRecycleBinTree(const TarnRef& bin) {
  if (bin.is_null()) return nullptr;
  TarnRef tree = TarnObject::Create();
  for (const BinEntry& entry : EntriesOf(bin, 0, kAll)) {
    const TarnRef node = TarnObject::Create();
    auto body = modify(node);
    body->setValue(kBinItemName, TarnData(entry.name.c_str()));
    body->setValue(kBinItemPath, TarnData(entry.path.c_str()));
    body->setValue(kBinItemType, TarnData(entry.isFolder ? kBinTypeFolder : kBinTypeItem));
    if (entry.time != TarnVFSInfo::kNoTime) {
      body->setValue(kBinTime, TarnData(entry.time.seconds));
    }
    if (entry.isFolder && !entry.node.is_null()) {
      body->addChild(TarnVFSFolder::kFolders, BuildFolderTreeFor(Folder(entry.node)));
    }
    modify(tree)->addChild(std::to_string(entry.id).c_str(), node);
  }
  return tree;
}

}  // namespace tarns
