#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/vfs/TarnVFSFile.h>
#include <tarns/vfs/TarnVFSFolder.h>

#include <string>
#include <vector>

#include "core/node_access.h"
#include "vfs/vfs_attributes.h"
#include "vfs/vfs_names.h"
#include "vfs/vfs_places.h"

namespace tarns {

TARN_REGISTER_WITH(TarnVFSFolder, TarnObject, .mayBeGuest = true);

namespace {

xcptref<TarnVFSAttributes> AttributesOf(TarnObject& folder) {
  return xcptref<TarnVFSAttributes>(
      folder.getChildWithNameNoFail(TarnVFSFolder::kAttributes, TarnVFSAttributes::GetType()));
}

std::vector<std::string> NamesIn(const TarnRef& list, std::string_view after, std::size_t limit) {
  return list.is_null() ? std::vector<std::string>() : list->getChildNames(after, limit);
}

// What is known of an item, within a round.
TarnVFSInfo InfoOf(goods::reader& reader, const TarnObject& node) {
  TarnVFSInfo info;
  if (TarnVFSFile::self_class.is_superclass_for(node.cls())) {
    info = static_cast<const TarnVFSFile&>(node).getStoredInfo();
  }
  TarnData count;
  if (!TarnNodeAccess::ChildrenOf(node).is_null() &&
      ReadValue(reader, node, TarnVFSItem::kRefCount, count)) {
    info.references = count.getUint32();
  }
  return info;
}

std::vector<TarnVFSEntry> EntriesIn(goods::reader& reader, const TarnObject& folder,
                                    std::string_view after, std::size_t limit) {
  const goods::guest_scope guests(reader);
  std::vector<TarnVFSEntry> listed;
  const TarnObject* list = FindNode(reader, folder, TarnVFSFolder::kItems);
  const TarnObjects* index = list != nullptr ? TarnNodeAccess::IndexOf(reader, *list) : nullptr;
  if (index == nullptr) return listed;
  const std::string start = std::string(after) + '\x01';  // behind all that bear the name
  const goods::index_position position(start);
  auto found = index->entries_after(reader, after.empty() ? nullptr : &position, limit);
  std::vector<goods::ref_word> words;
  words.reserve(found.size());
  for (const goods::held_entry& entry : found) words.push_back(entry.target.word());
  reader.prefetch(words);
  for (goods::held_entry& entry : found) {
    const auto* node =
        static_cast<const TarnObject*>(reader.look(entry.target.word(), TarnVFSItem::self_class));
    if (node == nullptr) continue;
    listed.push_back({std::move(entry.name), xcptref<TarnVFSItem>::Trusted(std::move(entry.target)),
                      InfoOf(reader, *node)});
  }
  return listed;
}

}  // namespace

TarnVFSFolder::~TarnVFSFolder() = default;

// --- Attributes ---------------------------------------------------------------------------------

std::uint32_t TarnVFSFolder::getFolderType() const { return getUint32(kFolderType, 0); }

void TarnVFSFolder::setFolderType(std::uint32_t type) { setValue(kFolderType, TarnData(type)); }

XString TarnVFSFolder::getIcon() const { return getXString(kFolderIcon, ""); }

void TarnVFSFolder::setIcon(const char* icon) { setValue(kFolderIcon, TarnData(icon)); }

XString TarnVFSFolder::getLinkPath() const { return getXString(kLinkPath, ""); }

void TarnVFSFolder::setLinkPath(const char* path) { setValue(kLinkPath, TarnData(path)); }

TarnVFSInfo TarnVFSFolder::getInfo() const {
  TarnVFSInfo info;
  info.kind = TarnVFSInfo::Kind::kFolder;
  info.permissions = TarnVFSInfo::kNoPermissions;
  const TarnRef node = getChildWithName(kAttributes);
  if (node.isA<TarnVFSAttributes>()) {
    const xcptref<TarnVFSAttributes> attributes(node);
    info.permissions = attributes->getPermissions();
    info.modified = attributes->getModified();
  }
  return info;
}

void TarnVFSFolder::setPermissions(std::uint32_t permissions) {
  VerifyPermissions(permissions);
  modify(AttributesOf(*this))->setPermissions(permissions);
}

void TarnVFSFolder::setModified(TarnVFSTime time) {
  VerifyTime(time);
  modify(AttributesOf(*this))->setModified(time);
}

// --- Looking ------------------------------------------------------------------------------------

xcptref<TarnObject> TarnVFSFolder::getItemsNode() const { return getChildWithName(kItems); }

xcptref<TarnObject> TarnVFSFolder::getFoldersNode() const { return getChildWithName(kFolders); }

xcptref<TarnVFSItem> TarnVFSFolder::getItem(std::string_view name) const {
  if (!IsChildName(name)) return nullptr;
  return xcptref<TarnVFSItem>(getChildWithName(std::string(kItems) + "~" + std::string(name)));
}

xcptref<TarnVFSFolder> TarnVFSFolder::getFolder(std::string_view name) const {
  if (!IsChildName(name)) return nullptr;
  return xcptref<TarnVFSFolder>(getChildWithName(std::string(kFolders) + "~" + std::string(name)));
}

unsigned long TarnVFSFolder::getNumItems() const {
  const TarnRef items = getItemsNode();
  return items.is_null() ? 0 : items->getNumAbstractChildren();
}

unsigned long TarnVFSFolder::getNumFolders() const {
  const TarnRef folders = getFoldersNode();
  return folders.is_null() ? 0 : folders->getNumAbstractChildren();
}

std::vector<std::string> TarnVFSFolder::getItemNames(std::string_view after,
                                                     std::size_t limit) const {
  return NamesIn(getItemsNode(), after, limit);
}

std::vector<std::string> TarnVFSFolder::getFolderNames(std::string_view after,
                                                       std::size_t limit) const {
  return NamesIn(getFoldersNode(), after, limit);
}

std::vector<TarnVFSEntry> TarnVFSFolder::listItems(std::string_view after,
                                                   std::size_t limit) const {
  return goods::read_here([&](goods::reader& reader) {
    return EntriesIn(reader, Current(reader, *this), after, limit);
  });
}

// --- Changing -----------------------------------------------------------------------------------

bool TarnVFSFolder::addItem(const char* name, xcptref<TarnVFSItem> item, bool unique,
                            XString* used) {
  if (item.is_null()) return false;
  VerifyChildName(getSelf(), ViewOf(name));
  const xcptref<TarnVFSItem> there = getItem(ViewOf(name));
  if (!unique && there == item) return false;
  const TarnRef items = getChildWithNameNoFail(kItems, TarnObject::GetType());
  const XString free = unique ? FreeName(items, ViewOf(name)) : XString(name);
  if (!unique && !there.is_null()) removeItem(ViewOf(name));
  CountPlace(item, items);
  modify(items)->addChild(free, item);
  if (used != nullptr) *used = free;
  return true;
}

bool TarnVFSFolder::addFolder(const char* name, xcptref<TarnVFSFolder> folder, bool replace) {
  if (folder.is_null() || folder->hasParent()) return false;
  VerifyChildName(getSelf(), ViewOf(name));
  for (TarnRef above = getSelf(); !above.is_null(); above = above->getParent()) {
    if (above == folder) return false;
  }
  const bool isTaken = !getFolder(ViewOf(name)).is_null();
  if (isTaken ? !replace : (getFolderType() & kNoSubFolders) != 0) return false;
  const TarnRef folders = getChildWithNameNoFail(kFolders, TarnObject::GetType());
  if (isTaken) modify(folders)->deleteChild(name);
  modify(folders)->addChild(name, folder);
  NoteSharedItemsOf(folder, folders);
  return true;
}

xcptref<TarnVFSItem> TarnVFSFolder::removeItem(std::string_view name) {
  auto item = getItem(name);
  if (item.is_null()) return item;
  modify(getItemsNode())->deleteChild(std::string(name).c_str());
  UncountPlace(item);
  return item;
}

xcptref<TarnVFSFolder> TarnVFSFolder::removeFolder(std::string_view name) {
  auto folder = getFolder(name);
  if (!folder.is_null()) modify(getFoldersNode())->deleteChild(std::string(name).c_str());
  return folder;
}

}  // namespace tarns
