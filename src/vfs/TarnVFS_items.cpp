// TarnVFS: adding, moving and removing items.
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/TempFile.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>
#include <tarns/vfs/TarnVFSReader.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "vfs/vfs_access.h"

namespace tarns {

namespace {

using Item = xcptref<TarnVFSItem>;
using Folder = xcptref<TarnVFSFolder>;

// What a copy does not take over: where and how often the item is listed.
bool IsOfThePlace(std::string_view child) {
  return child == TarnVFSItem::kRefCount || child == TarnVFSItem::kOriginalPath ||
         child == TarnVFSItem::kItemName;
}

// Notes that a place of the item has gone.
void DropReference(const Item& item) {
  const std::uint32_t count = item->getRefCount();
  if (count > 1) modify(item)->setRefCount(count - 1);
}

// Notes that items listed in `items` have lost this place. What stands elsewhere as well does not
// refer to the removed list as its parent's any more, which would keep that from being collected.
void DropListed(const TarnRef& items) {
  for (const auto& [name, child] : items->children()) {
    if (!child.isA<TarnVFSItem>()) continue;
    const Item item(child);
    if (item->getRefCount() > 1 && item->getParent() == items) modify(item)->makeOrphan();
    DropReference(item);
  }
}

// Notes in the root folder that items are listed in several places, so that removing folders looks
// for them.
void NoteShare(const Folder& root) {
  modify(root)->setValue(TarnVFSFolder::kRefCount,
                         TarnData(root->getUint32(TarnVFSFolder::kRefCount, 1) + 1));
}

}  // namespace

Item CopyOf(const Item& item) {
  Item copy(item->clone());
  for (const auto& [name, child] : item->children()) {
    if (!IsOfThePlace(name)) modify(copy)->addChild(name.c_str(), child->deepClone());
  }
  if (copy.isA<TarnVFSFile>()) {
    modify(xcptref<TarnVFSFile>(copy))->setCreated(TarnVFSTime::Now());
  }
  return copy;
}

bool TarnVFS::addItem(TarnPathText path, Item item, bool overwrite, bool unique) {
  if (path.isEmpty() || item.is_null()) return false;
  getDBPathForItem(path.str().c_str());  // checks the names
  const Place place = placeAt(path.view());
  if (!place.isValid()) return false;
  const Folder root = getRootNode();
  return change([&] {
    LockFolders(place.folder, place.folder);
    if (!overwrite && !place.folder->getItem(place.name).is_null()) return false;
    if (item->hasParent()) NoteShare(root);
    return modify(place.folder)->addItem(place.name.c_str(), item, unique);
  });
}

bool TarnVFS::changeItem(TarnPathText path, Item item) {
  const Place place = placeAt(path.view());
  if (!place.isValid() || item.is_null()) return false;
  const Folder root = getRootNode();
  return change([&] {
    LockFolders(place.folder, place.folder);
    if (place.folder->getItem(place.name).is_null()) return false;
    if (item->hasParent()) NoteShare(root);
    return modify(place.folder)->addItem(place.name.c_str(), item, false);
  });
}

bool TarnVFS::deleteItem(TarnPathText path) {
  const Place place = placeAt(path.view());
  if (!place.isValid()) return false;
  return change([&] {
    LockFolders(place.folder, place.folder);
    const Item item = modify(place.folder)->removeItem(place.name);
    if (item.is_null()) return false;
    DropReference(item);
    return true;
  });
}

bool TarnVFS::deleteItemsIn(TarnPathText folderPath) {
  const Folder folder = folderAt(folderPath.view());
  if (folder.is_null()) return false;
  const Folder root = getRootNode();
  return change([&] {
    LockFolders(folder, folder);
    const TarnRef items = folder->getItemsNode();
    if (items.is_null()) return true;
    if (root->getUint32(TarnVFSFolder::kRefCount, 1) > 1) {
      for (const auto& [name, child] : items->children()) DropReference(Item(child));
    }
    modify(items)->deleteChildren();
    return true;
  });
}

// Counts down what a folder that was removed lists of items that stand elsewhere, too. Folders that
// have their parent elsewhere stay.
void TarnVFS::dropReferences(const Folder& folder) {
  if (getRootNode()->getUint32(TarnVFSFolder::kRefCount, 1) == 1 || folder->hasParent()) return;
  std::unordered_set<Folder> seen{folder};
  std::vector<Folder> open{folder};
  while (!open.empty()) {
    const Folder at = open.back();
    open.pop_back();
    if (const TarnRef items = at->getItemsNode(); !items.is_null()) DropListed(items);
    const TarnRef folders = at->getFoldersNode();
    if (folders.is_null()) continue;
    for (const auto& [name, child] : folders->children()) {
      if (!child.isA<TarnVFSFolder>() || child->getParent() != folders) continue;
      if (seen.insert(Folder(child)).second) open.emplace_back(child);
    }
  }
}

// --- Moving, copying, sharing -------------------------------------------------------------------

bool TarnVFS::moveItem(TarnPathText from, TarnPathText to, XString* used) {
  return moveItemInternal(from, to, kMove, used);
}

bool TarnVFS::copyItemTo(TarnPathText from, TarnPathText to, XString* used) {
  return moveItemInternal(from, to, kCopy, used);
}

bool TarnVFS::shareItem(TarnPathText from, TarnPathText to, XString* used) {
  return moveItemInternal(from, to, kShare, used);
}

bool TarnVFS::moveItemInternal(TarnPathText from, TarnPathText to, long mode, XString* used) {
  if (mode < kMove || mode > kShare) {
    throw TarnException("Items can be moved, copied and shared: modes 0, 1 and 2.",
                        ErrorID::BadUsage);
  }
  const Place source = placeAt(from.view()), target = targetOf(from.view(), to.view());
  if (!source.isValid() || !target.isValid()) return false;
  const Folder root = getRootNode(), effectiveRoot = getVFSRootNode();
  XString name;
  const bool isDone = change([&] {
    LockFolders(source.folder, target.folder);
    const Item item = source.folder->getItem(source.name);
    if (item.is_null()) return false;
    name = target.name;
    if (mode == kMove && source.folder == target.folder && source.name == target.name) return true;
    const std::uint32_t count = item->getRefCount();
    if (mode == kMove) {
      modify(source.folder)->removeItem(source.name);
      modify(target.folder)->addItem(target.name.c_str(), item, true, &name);
      if (item->getRefCount() != count) modify(item)->setRefCount(count);
      const bool isRenamed = name.view() != source.name;
      if (isRenamed && item->valueAt(kItemName)) modify(item)->setItemName(name);
    } else if (mode == kCopy) {
      const Item copy = CopyOf(item);
      modify(copy)->setOriginalPath(from.str().c_str());
      modify(target.folder)->addItem(target.name.c_str(), copy, true, &name);
    } else {
      modify(target.folder)->addItem(target.name.c_str(), item, true, &name);
      modify(item)->setRefCount(count + 1);
      if (!item->valueAt(TarnVFSItem::kOriginalPath)) {
        modify(item)->setOriginalPath(from.str().c_str());
      }
      NoteShare(root);
    }
    return true;
  });
  if (!isDone || used == nullptr) return isDone;
  std::string above;
  PathBelow(effectiveRoot, target.folder, above);
  *used = JoinedPath(above, name.view());
  return true;
}

// --- Names and content --------------------------------------------------------------------------

void TarnVFS::getItemNames(XStringList& names, TarnPathText folder) {
  for (const std::string& name : getItemNames(folder, {}, kAll)) names.addLast(XString(name));
}

XString TarnVFS::getItemNames(TarnPathText folder) {
  std::string joined;
  for (const std::string& name : getItemNames(folder, {}, kAll)) joined = JoinedPath(joined, name);
  return XString(joined);
}

std::vector<std::string> TarnVFS::getItemNames(TarnPathText folder, std::string_view after,
                                               std::size_t limit) {
  const Folder found = folderAt(folder.view());
  return found.is_null() ? std::vector<std::string>() : found->getItemNames(after, limit);
}

std::vector<TarnVFSEntry> TarnVFS::listItems(TarnPathText folder, std::string_view after,
                                             std::size_t limit) {
  const Folder found = folderAt(folder.view());
  return found.is_null() ? std::vector<TarnVFSEntry>() : found->listItems(after, limit);
}

bool TarnVFS::exportItem(TarnPathText path, XString& file) {
  const Item item = itemAt(path.view());
  if (item.is_null()) return false;
  TarnVFSReader reader(item);
  const std::string target(file.view());
  const std::size_t slash = target.rfind('/');
  std::string directory;
  if (!target.empty()) directory = slash == std::string::npos ? "." : target.substr(0, slash + 1);
  TempFile fresh(directory, target.empty() ? "tarns-" : ".tarns-");
  for (std::string_view piece = reader.nextPiece(); !piece.empty(); piece = reader.nextPiece()) {
    fresh.write(piece);
  }
  if (target.empty()) {
    file = fresh.getPath();
    fresh.keep();
  } else {
    FileFP::ReplaceFile(target.c_str(), fresh);
  }
  return true;
}

}  // namespace tarns
