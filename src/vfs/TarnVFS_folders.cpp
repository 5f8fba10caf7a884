// TarnVFS: making, moving and removing folders.
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/vfs/TarnVFS.h>

#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "vfs/vfs_access.h"
#include "vfs/vfs_names.h"
#include "vfs/vfs_places.h"

namespace tarns {

namespace {

using Folder = xcptref<TarnVFSFolder>;

bool TakesFolders(const Folder& folder) {
  return (folder->getFolderType() & TarnVFSFolder::kNoSubFolders) == 0;
}

// Whether a path leads to the folder or through it, also where its parent is elsewhere.
bool LeadsThrough(Folder at, std::string_view path, const Folder& folder) {
  for (const std::string_view name : TarnBranches(path)) {
    at = at->getFolder(name);
    if (at.is_null()) return false;
    if (at == folder) return true;
  }
  return false;
}

// What is merged into what when a folder is merged into another: that itself, then the sub-folders
// that both have. Each pair once, as folders may be within themselves.
class MergedFolders {
 public:
  MergedFolders(const Folder& from, const Folder& to) { add(from, to); }

  bool isEmpty() const { return open_.empty(); }
  std::pair<Folder, Folder> next() {
    auto pair = std::move(open_.back());
    open_.pop_back();
    return pair;
  }
  void add(const Folder& from, const Folder& to) {
    if (seen_[from].insert(to).second) open_.emplace_back(from, to);
  }

 private:
  std::vector<std::pair<Folder, Folder>> open_;
  std::unordered_map<Folder, std::unordered_set<Folder>> seen_;
};

// Whether all sub-folders of `from` may come into `to`.
bool MayMerge(const Folder& from, const Folder& to) {
  for (MergedFolders folders(from, to); !folders.isEmpty();) {
    const auto [source, target] = folders.next();
    for (const std::string& name : source->getFolderNames()) {
      const Folder below = source->getFolder(name);
      if (const Folder there = target->getFolder(name); !there.is_null()) {
        folders.add(below, there);
      } else if (!TakesFolders(target) || below->getParent(2) != source) {
        return false;
      }
    }
  }
  return true;
}

// All but the lists, and what tells of them.
void CopyAttributes(const Folder& from, const Folder& to) {
  for (const auto& [name, child] : from->children()) {
    const bool isOfLists = name == TarnVFSFolder::kItems || name == TarnVFSFolder::kFolders ||
                           name == TarnVFSFolder::kShares || name == TarnVFSFolder::kRefCount;
    if (!isOfLists) modify(to)->addChild(name.c_str(), child->deepClone());
  }
}

// Moves what is in `from` into `to`; sub-folders that both have are merged in turn.
void Merge(const Folder& from, const Folder& to) {
  for (MergedFolders folders(from, to); !folders.isEmpty();) {
    const auto [source, target] = folders.next();
    for (const std::string& name : source->getItemNames()) {
      const auto item = modify(source)->removeItem(name);
      modify(target)->addItem(name.c_str(), item, false);
    }
    for (const std::string& name : source->getFolderNames()) {
      if (const Folder there = target->getFolder(name); !there.is_null()) {
        folders.add(source->getFolder(name), there);
      } else if (!modify(target)->addFolder(name.c_str(), modify(source)->removeFolder(name),
                                            false)) {
        ThrowListedElsewhere(name);
      }
    }
  }
}

}  // namespace

void ThrowListedElsewhere(const std::string& name) {
  throw TarnException(("The folder \"" + name +
                       "\" cannot be moved: it is listed in another place as well, where its "
                       "parent is, or it would come into itself.")
                          .c_str(),
                      ErrorID::BadUsage);
}

Folder TarnVFS::makeFolder(const Folder& top, std::string_view path, const char* icon,
                           unsigned long type) {
  VerifyNoNul(path);
  Folder folder = top;
  for (auto branch = TarnBranches(path).begin(); branch != std::default_sentinel; ++branch) {
    const std::string name(*branch);
    Folder below = folder->getFolder(name);
    if (below.is_null()) {
      Hold(folder);  // first, so that only one makes it
      below = folder->getFolder(name);
    }
    if (below.is_null()) {
      if (!TakesFolders(folder)) return nullptr;
      below = TarnVFSFolder::Create();
      auto fresh = modify(below);
      if (branch.isLast() && type != 0) fresh->setFolderType(static_cast<std::uint32_t>(type));
      if (branch.isLast() && icon != nullptr) fresh->setIcon(icon);
      if (!modify(folder)->addFolder(name.c_str(), below, false)) return nullptr;
    }
    folder = below;
  }
  return folder;
}

bool TarnVFS::createFolder(TarnPathText path, const char* icon, unsigned long type) {
  const std::string_view above = TarnBranches::ParentOf(path.view());
  VerifyNoNul(path.view());
  getDBPathFor(path.str().c_str());  // checks the names
  if (!above.empty()) {
    const Folder parent = folderAt(above);
    if (!parent.is_null() && !TakesFolders(parent)) return false;
  }
  // The last folder on the way that is there, which gets the first of those that are not.
  Folder last = getVFSRootNode();
  auto branch = TarnBranches(path.view()).begin();
  for (; branch != std::default_sentinel; ++branch) {
    Folder below = last->getFolder(*branch);
    if (below.is_null()) break;
    last = std::move(below);
  }
  if (branch == std::default_sentinel) return true;
  return change(last, last, [&] { return !makeFolder(last, branch.rest(), icon, type).is_null(); });
}

bool TarnVFS::addFolder(TarnPathText path, Folder folder, bool overwrite, bool merge) {
  const Place place = placeAt(path.view());
  if (!place.isValid() || folder.is_null()) return false;
  const Folder root = getRootNode();
  return change(place.folder, place.folder, [&] {
    const Folder there = place.folder->getFolder(place.name);
    if (there.is_null() && !TakesFolders(place.folder)) return false;
    if (!there.is_null() && !merge && !overwrite) return false;
    // First, so that nothing has been changed when it is refused.
    if (folder->hasParent() || folder == there || IsAtOrAbove(folder, place.folder)) return false;
    if (!there.is_null() && merge) {
      if (!MayMerge(folder, there)) return false;
      Merge(folder, there);
      return true;
    }
    if (!modify(place.folder)->addFolder(place.name.c_str(), folder, overwrite)) return false;
    if (!there.is_null()) RemoveSharedItems(root, there);
    return true;
  });
}

bool TarnVFS::deleteFolder(TarnPathText path) {
  const Place place = placeAt(path.view());
  if (!place.isValid()) return false;
  const Folder root = getRootNode();
  return change(place.folder, place.folder, [&] {
    const Folder folder = place.folder->getFolder(place.name);
    if (folder.is_null()) return false;
    modify(place.folder)->removeFolder(place.name);
    RemoveSharedItems(root, folder);
    return true;
  });
}

bool TarnVFS::transferFolder(std::string_view from, std::string_view to, bool isCopy) {
  const Place source = placeAt(from), target = targetOf(from, to);
  if (!source.isValid() || !target.isValid()) return false;
  const Folder root = getVFSRootNode();
  const std::string_view above = folderAt(to).is_null() ? TarnBranches::ParentOf(to) : to;
  return change(source.folder, target.folder, [&] {
    const Folder folder = source.folder->getFolder(source.name);
    if (folder.is_null() || IsAtOrAbove(folder, target.folder)) return false;
    if (LeadsThrough(root, above, folder)) return false;
    if (!TakesFolders(target.folder)) return false;
    if (!isCopy && source.folder == target.folder && source.name == target.name) return true;
    const XString name = FreeName(target.folder->getFoldersNode(), target.name);
    const Folder moved = isCopy ? CopyOf(folder) : modify(source.folder)->removeFolder(source.name);
    if (!modify(target.folder)->addFolder(name, moved, false)) ThrowListedElsewhere(source.name);
    return true;
  });
}

bool TarnVFS::moveFolder(TarnPathText from, TarnPathText to) {
  return transferFolder(from.view(), to.view(), false);
}

bool TarnVFS::copyFolder(TarnPathText from, TarnPathText to) {
  return transferFolder(from.view(), to.view(), true);
}

std::vector<std::string> TarnVFS::getFolderNames(TarnPathText folder, std::string_view after,
                                                 std::size_t limit) {
  const Folder found = folderAt(folder.view());
  return found.is_null() ? std::vector<std::string>() : found->getFolderNames(after, limit);
}

Folder CopyOf(const Folder& folder) {
  std::unordered_map<Folder, Folder> copies;
  std::vector<Folder> open;
  const auto copyOf = [&](const Folder& source) {
    const auto [copy, isNew] = copies.try_emplace(source);
    if (isNew) {
      copy->second = Folder(source->clone());
      open.push_back(source);
    }
    return copy->second;
  };
  Folder top = copyOf(folder);
  while (!open.empty()) {
    const Folder source = std::move(open.back());
    open.pop_back();
    const Folder copy = copies.at(source);
    CopyAttributes(source, copy);
    for (const std::string& name : source->getItemNames()) {
      modify(copy)->addItem(name.c_str(), CopyOf(source->getItem(name)), false);
    }
    for (const std::string& name : source->getFolderNames()) {
      const Folder below = copyOf(source->getFolder(name));
      const TarnRef folders =
          modify(copy)->getChildWithNameNoFail(TarnVFSFolder::kFolders, TarnObject::GetType());
      modify(folders)->addChild(name.c_str(), below);
    }
  }
  return top;
}

}  // namespace tarns
