// TarnVFS: its roots, paths and names.
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/vfs/TarnVFS.h>

#include <algorithm>
#include <vector>

#include "core/node_access.h"
#include "goods/transaction.h"
#include "vfs/vfs_access.h"
#include "vfs/vfs_names.h"

namespace tarns {

// --- Roots --------------------------------------------------------------------------------------

TarnVFS::TarnVFS(TarnManager& manager, xcptref<TarnObject> base, const char* subPath)
    : manager_(manager), base_(std::move(base)), subPath_(subPath) {
  validateVFS();
}

TarnVFS::~TarnVFS() = default;

void TarnVFS::validateVFS() {
  getRecycleBin();
  getRootNode();
  getVFSRootNode();
}

xcptref<TarnVFSFolder> TarnVFS::getRootNode() {
  if (root_.is_null()) root_ = ChildNoFail<TarnVFSFolder>(manager_, base_, kRootNode);
  return root_;
}

xcptref<TarnObject> TarnVFS::getRecycleBin() {
  return ChildNoFail<TarnObject>(manager_, base_, kRecycleBin);
}

xcptref<TarnVFSFolder> TarnVFS::getVFSRootNode() {
  if (!effectiveRoot_.is_null()) return effectiveRoot_;
  const auto root = getRootNode();
  if (!subPath_.isEmpty()) {
    effectiveRoot_ = xcptref<TarnVFSFolder>(root->getChildWithName(getDBPathFor(subPath_).view()));
  }
  if (effectiveRoot_.is_null()) effectiveRoot_ = root;
  return effectiveRoot_;
}

void TarnVFS::verifyRoot() {
  if (base_->getChildWithName(kRootNode) != getRootNode()) {
    TarnException::ThrowNonExistentPath(kRootNode);
  }
}

void TarnVFS::verifyFolder() {
  const auto folder = getVFSRootNode();
  std::string way;
  if (folder == root_ || PathBelow(root_, folder, way)) return;
  if (root_->getChildWithName(getDBPathFor(subPath_).view()) == folder) return;
  TarnException::ThrowNonExistentPath(subPath_);
}

// --- Paths --------------------------------------------------------------------------------------

TarnPath TarnVFS::getDBPathFor(const char* folderPath) const {
  TarnPath path;
  for (const std::string_view name : TarnBranches(folderPath)) {
    path << TarnVFSFolder::kFolders << name;
  }
  return path;
}

TarnPath TarnVFS::getDBPathForItem(const char* itemPath) const {
  const std::string_view text = ViewOf(itemPath);
  TarnPath path = getDBPathFor(std::string(TarnBranches::ParentOf(text)).c_str());
  path << TarnVFSFolder::kItems << TarnBranches::LastOf(text);
  return path;
}

void VerifyNoNul(std::string_view path) {
  if (path.find('\0') == std::string_view::npos) return;
  const std::string start(path.substr(0, path.find('\0')));
  throw TarnException(
      ("The path \"" + start + "...\" contains a NUL byte, which names cannot have.").c_str(),
      ErrorID::BadBranch);
}

xcptref<TarnVFSFolder> TarnVFS::folderAt(std::string_view path) {
  VerifyNoNul(path);
  auto root = getVFSRootNode();
  if (path.empty()) return root;
  return xcptref<TarnVFSFolder>(
      root->getChildWithName(getDBPathFor(std::string(path).c_str()).view()));
}

// Whether the folder, which was found at `path`, is still in the file system, whose root is; in a
// transaction this locks what is above. A folder that is listed in several places may have its
// parent in none that is left.
bool TarnVFS::isThere(const xcptref<TarnVFSFolder>& folder, std::string_view path) {
  std::string way;
  return PathBelow(getRootNode(), folder, way) || folderAt(path) == folder;
}

xcptref<TarnVFSItem> TarnVFS::itemAt(std::string_view path) {
  VerifyNoNul(path);
  if (path.empty()) return nullptr;
  return xcptref<TarnVFSItem>(
      getVFSRootNode()->getChildWithName(getDBPathForItem(std::string(path).c_str()).view()));
}

TarnVFS::Place TarnVFS::placeAt(std::string_view path) {
  VerifyNoNul(path);
  if (path.empty()) return {};
  return {folderAt(TarnBranches::ParentOf(path)), std::string(TarnBranches::LastOf(path))};
}

TarnVFS::Place TarnVFS::targetOf(std::string_view from, std::string_view to) {
  if (auto folder = folderAt(to); !folder.is_null()) {
    return {std::move(folder), std::string(TarnBranches::LastOf(from))};
  }
  return placeAt(to);
}

xcptref<TarnVFSFolder> TarnVFS::getFolder(TarnPathText path) { return folderAt(path.view()); }

bool TarnVFS::isFolderExist(TarnPathText path) { return !folderAt(path.view()).is_null(); }

xcptref<TarnVFSItem> TarnVFS::getItem(TarnPathText path) { return itemAt(path.view()); }

bool TarnVFS::isItemExist(TarnPathText path) { return !itemAt(path.view()).is_null(); }

std::optional<TarnVFSInfo> TarnVFS::getInfo(TarnPathText path) {
  if (const auto item = itemAt(path.view()); !item.is_null()) return item->getInfo();
  if (const auto folder = folderAt(path.view()); !folder.is_null()) return folder->getInfo();
  return std::nullopt;
}

bool TarnVFS::getPath(const xcptref<TarnObject>& node, TarnPath& path) {
  std::string text;
  if (!PathBelow(getVFSRootNode(), node, text)) return false;
  path = text;
  return true;
}

bool PathBelow(const xcptref<TarnVFSFolder>& root, const TarnRef& node, std::string& path) {
  if (node.is_null()) return false;
  std::vector<std::string> names;
  const bool isBelow = goods::read_here([&](goods::reader& reader) {
    names.clear();
    ParentWalk walk(reader, *reader.get(node));
    const TarnObject* const top = reader.get(root);
    while (&walk.node() != top) {
      const goods::set_member* const entry = TarnNodeAccess::LinkOf(reader, walk.node());
      const TarnObject* const list = entry != nullptr ? walk.up() : nullptr;
      const goods::set_member* const listEntry =
          list != nullptr ? TarnNodeAccess::LinkOf(reader, *list) : nullptr;
      if (listEntry == nullptr) return false;
      const bool isInItems = names.empty() && listEntry->key() == TarnVFSFolder::kItems;
      if (!isInItems && listEntry->key() != TarnVFSFolder::kFolders) return false;
      names.emplace_back(entry->key());
      if (walk.up() == nullptr) return false;
    }
    return true;
  });
  if (!isBelow) return false;
  path.clear();
  for (auto name = names.rbegin(); name != names.rend(); ++name) path = JoinedPath(path, *name);
  return true;
}

std::string JoinedPath(std::string_view path, std::string_view name) {
  std::string joined(path);
  if (!joined.empty()) joined += TarnBranches::kSeparator;
  return joined += name;
}

bool IsAtOrAbove(const TarnRef& folder, TarnRef node) {
  return goods::read_here([&](goods::reader& reader) {
    const TarnObject* const above = reader.get(folder);
    ParentWalk walk(reader, *reader.get(node));
    for (const TarnObject* at = &walk.node(); at != nullptr; at = walk.up()) {
      if (at == above) return true;
    }
    return false;
  });
}

void Hold(const TarnRef& node) {
  if (goods::transaction::copy_of(*node.handle()) != nullptr) return;  // has been written to
  modify(node)->touch();
  goods::cache_manager::require().touched(*node.handle());
}

void HoldFolders(const TarnRef& one, const TarnRef& other) {
  const bool isOrdered = one.id() <= other.id();
  Hold(isOrdered ? one : other);
  Hold(isOrdered ? other : one);
}

// --- Names --------------------------------------------------------------------------------------

void TarnVFS::getBaseExtName(XString& name, XString& base, XString& ext, long& number) const {
  SplitItemName(name, base, ext, number);
}

bool TarnVFS::checkItemName(XString& name, XString& base, XString& ext, long& number) const {
  XString ownBase, ownExt;
  SplitItemName(name, ownBase, ownExt, number);
  return ownBase == base && ownExt == ext;
}

bool TarnVFS::modifyItemName(XString& path) {
  const Place place = placeAt(path.view());
  if (!place.isValid()) return false;
  const TarnRef items = place.folder->getItemsNode();
  if (items.is_null()) return false;
  const std::string above(TarnBranches::ParentOf(path.view()));
  path = JoinedPath(above, NumberedName(items, place.name).view());
  return true;
}

}  // namespace tarns
