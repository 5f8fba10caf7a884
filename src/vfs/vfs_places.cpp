#include "vfs/vfs_places.h"

#include <string>
#include <unordered_set>
#include <vector>

namespace tarns {

namespace {

using Item = xcptref<TarnVFSItem>;
using Folder = xcptref<TarnVFSFolder>;

// The uppermost folder that leads to `list`; null where none does.
Folder TopAbove(TarnRef list) {
  Folder top;
  while (!list.is_null()) {
    const TarnRef above = list->getParent();
    if (!above.isA<TarnVFSFolder>()) break;
    top = Folder(above);
    list = above->getParent();
    if (list.is_null() || list->getName() != TarnVFSFolder::kFolders) break;
  }
  return top;
}

void NoteSharedItems(const Folder& top) {
  if (top.is_null() || MayListSharedItems(top)) return;
  modify(top)->setValue(TarnVFSFolder::kShares, TarnData(true));
}

bool HasStoredCount(const TarnRef& node) { return node->hasChild(TarnVFSItem::kRefCount); }

void RemoveSharedFrom(const Folder& folder) {
  const TarnRef items = folder->getItemsNode();
  if (items.is_null()) return;
  std::vector<std::string> shared;
  for (const auto& [name, child] : items->children()) {
    if (child.isA<TarnVFSItem>() && HasStoredCount(child)) shared.push_back(name);
  }
  for (const std::string& name : shared) {
    if (folder->getItem(name)->getRefCount() > 1) modify(folder)->removeItem(name);
  }
}

}  // namespace

void CountPlace(const Item& item, const TarnRef& list) {
  const std::uint32_t places = item->getRefCount();
  if (places > 0) {
    NoteSharedItems(TopAbove(item->getParent()));
    NoteSharedItems(TopAbove(list));
  }
  if (places > 0 || HasStoredCount(item)) modify(item)->setRefCount(places + 1);
}

void UncountPlace(const Item& item) {
  if (!HasStoredCount(item)) return;
  if (const std::uint32_t places = item->getRefCount(); places > 1) {
    modify(item)->setRefCount(places - 1);
  } else {
    modify(item)->deleteChild(TarnVFSItem::kRefCount);
  }
}

void UncountPlacesIn(const TarnRef& list) {
  for (const auto& [name, child] : list->children()) {
    if (child.isA<TarnVFSItem>()) UncountPlace(Item(child));
  }
}

void RemoveSharedItems(const Folder& root, const Folder& removed) {
  if (removed->hasParent()) return;
  if (!MayListSharedItems(root) && !MayListSharedItems(removed)) return;
  std::unordered_set<Folder> seen{removed};
  std::vector<Folder> open{removed};
  while (!open.empty()) {
    const Folder at = open.back();
    open.pop_back();
    RemoveSharedFrom(at);
    const TarnRef folders = at->getFoldersNode();
    if (folders.is_null()) continue;
    for (const auto& [name, child] : folders->children()) {
      if (!child.isA<TarnVFSFolder>() || child->getParent() != folders) continue;
      if (seen.insert(Folder(child)).second) open.emplace_back(child);
    }
  }
}

bool MayListSharedItems(const Folder& top) {
  // Told by the number in file systems that were made before there was the other child.
  return top->hasChild(TarnVFSFolder::kShares) || top->getUint32(TarnVFSFolder::kRefCount, 1) > 1;
}

void NoteSharedItemsOf(const Folder& folder, const TarnRef& above) {
  if (MayListSharedItems(folder)) NoteSharedItems(TopAbove(above));
}

}  // namespace tarns
