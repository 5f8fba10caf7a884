// TarnVFS: adding, moving and removing items.
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/TempFile.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>
#include <tarns/vfs/TarnVFSReader.h>

#include <string>
#include <vector>

#include "vfs/vfs_access.h"
#include "vfs/vfs_places.h"

namespace tarns {

namespace {

using Item = xcptref<TarnVFSItem>;
using Folder = xcptref<TarnVFSFolder>;

// What a copy does not take over: where and how often the item is listed.
bool IsOfThePlace(std::string_view child) {
  return child == TarnVFSItem::kRefCount || child == TarnVFSItem::kOriginalPath;
}

// Who gives an item another name wants to see that.
void ShowNewName(const Item& item, std::string_view before, const XString& name) {
  if (name.view() != before && item->valueAt(TarnVFSItem::kItemName)) {
    modify(item)->setItemName(name);
  }
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
  return change(place.folder, place.folder, [&] {
    const Item there = place.folder->getItem(place.name);
    if (!there.is_null() && (!overwrite || (!unique && there == item))) return false;
    return modify(place.folder)->addItem(place.name.c_str(), item, unique);
  });
}

bool TarnVFS::changeItem(TarnPathText path, Item item) {
  const Place place = placeAt(path.view());
  if (!place.isValid() || item.is_null()) return false;
  return change(place.folder, place.folder, [&] {
    const Item there = place.folder->getItem(place.name);
    if (there.is_null() || there == item) return false;
    return modify(place.folder)->addItem(place.name.c_str(), item, false);
  });
}

bool TarnVFS::deleteItem(TarnPathText path) {
  const Place place = placeAt(path.view());
  if (!place.isValid()) return false;
  return change(place.folder, place.folder, [&] {
    if (place.folder->getItem(place.name).is_null()) return false;
    modify(place.folder)->removeItem(place.name);
    return true;
  });
}

bool TarnVFS::deleteItemsIn(TarnPathText folderPath) {
  const Folder folder = folderAt(folderPath.view());
  if (folder.is_null()) return false;
  const Folder root = getRootNode();
  return change(folder, folder, [&] {
    const TarnRef items = folder->getItemsNode();
    if (items.is_null()) return true;
    if (MayListSharedItems(root)) UncountPlacesIn(items);
    modify(folder)->touch();  // for whoever watches it
    modify(items)->deleteChildren();
    return true;
  });
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
  const Folder effectiveRoot = getVFSRootNode();
  XString name;
  const bool isDone = change(source.folder, target.folder, [&] {
    const Item item = source.folder->getItem(source.name);
    if (item.is_null()) return false;
    name = target.name;
    if (mode == kMove && source.folder == target.folder && source.name == target.name) return true;
    if (mode == kMove) {
      modify(source.folder)->removeItem(source.name);
      modify(target.folder)->addItem(target.name.c_str(), item, true, &name);
      ShowNewName(item, source.name, name);
    } else if (mode == kCopy) {
      const Item copy = CopyOf(item);
      modify(copy)->setOriginalPath(from.str().c_str());
      modify(target.folder)->addItem(target.name.c_str(), copy, true, &name);
      ShowNewName(copy, source.name, name);
    } else {
      modify(target.folder)->addItem(target.name.c_str(), item, true, &name);
      if (!item->valueAt(TarnVFSItem::kOriginalPath)) {
        modify(item)->setOriginalPath(from.str().c_str());
      }
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
