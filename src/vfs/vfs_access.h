// What the parts of TarnVFS share.
#pragma once

#include <goods/cache_manager.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnDatabase.h>
#include <tarns/session/TarnManager.h>
#include <tarns/vfs/TarnVFS.h>

#include <string>
#include <string_view>
#include <utility>

namespace tarns {

// A folder and a name in it.
struct TarnVFS::Place {
  xcptref<TarnVFSFolder> folder;  // null when there is none
  std::string name;               // may be empty

  bool isValid() const { return !folder.is_null() && !name.empty(); }
};

// One transaction, or a part of the open one; repeated after a deadlock.
template <class Work>
auto Atomically(TarnManager& manager, Work&& work) {
  return manager.db().getCacheManager().atomically(std::forward<Work>(work));
}

// Holds a node for the transaction, so that nobody else changes it. It is not written by that:
// where nothing follows, nothing is committed.
void Hold(const TarnRef& node);

// Holds both folders, which may be the same; always in the same order.
void HoldFolders(const TarnRef& one, const TarnRef& other);

// The same for work that returns whether it has changed something, with both folders held. They are
// held before anything is read: two that read a folder first would wait for each other.
template <class Work>
bool TarnVFS::change(const TarnRef& one, const TarnRef& other, Work&& work) {
  const bool isChanged = Atomically(manager_, [&] {
    HoldFolders(one, other);
    verifyRoot();
    verifyFolder();
    return work();
  });
  if (isChanged) ++numChanges_;
  return isChanged;
}

// The same with the recycle bin held, which comes before all folders.
template <class Work>
bool TarnVFS::changeBin(const TarnRef& bin, Work&& work) {
  const bool isChanged = Atomically(manager_, [&] {
    Hold(bin);
    verifyRoot();
    return work();
  });
  if (isChanged) ++numChanges_;
  return isChanged;
}

// The child of that name, added as a new node of class T when there is none.
template <class T>
xcptref<T> ChildNoFail(TarnManager& manager, const TarnRef& parent, const char* name) {
  if (TarnRef found = parent->getChildWithName(name); !found.is_null()) return xcptref<T>(found);
  return Atomically(manager, [&] {
    Hold(parent);  // first, so that only one makes it
    TarnRef found = parent->getChildWithName(name);
    if (found.is_null()) {
      found = T::Create();
      modify(parent)->addChild(name, found);
    }
    return xcptref<T>(found);
  });
}

// The names from `root` to a folder or item below it, joined; false when it is not below.
bool PathBelow(const xcptref<TarnVFSFolder>& root, const TarnRef& node, std::string& path);

// Throws 8 when the path contains a NUL byte: names end there.
void VerifyNoNul(std::string_view path);

// `path~name`, or the name alone.
std::string JoinedPath(std::string_view path, std::string_view name);

// Whether `folder` is `node` or above it.
bool IsAtOrAbove(const TarnRef& folder, TarnRef node);

// Throws 111 for a folder that cannot be put to where it is moved, after it was taken off its
// place: the transaction must not be committed.
[[noreturn]] void ThrowListedElsewhere(const std::string& name);

// A new item of the same class with the same content and children, listed nowhere.
xcptref<TarnVFSItem> CopyOf(const xcptref<TarnVFSItem>& item);
// The same for a folder and everything in it: a folder that is listed in several places of it, in
// itself even, is copied once, and the copy is listed in as many.
xcptref<TarnVFSFolder> CopyOf(const xcptref<TarnVFSFolder>& folder);

}  // namespace tarns
