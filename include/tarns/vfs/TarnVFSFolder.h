#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>
#include <tarns/vfs/TarnVFSInfo.h>
#include <tarns/vfs/TarnVFSItem.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

// A folder of a virtual file system (see TarnVFS): lists sub-folders and items, each in the order
// of their names (by bytes).
//
// Sub-folders are below the child "vfsFolders", items below "vfsItems", both made when they are
// first needed, so a folder and an item may bear one name. Names are unique within each of the two.
// Attributes are value children.
//
// Whatever adds, removes or renames something in a folder begins with write access to the folder,
// so such calls come one after the other. Threads and transactions: as every node.
class TARNS_API TarnVFSFolder : public TarnObject {
  TARN_CLASS(TarnVFSFolder, TarnObject)

 public:
  static constexpr const char* kFolders = "vfsFolders";
  static constexpr const char* kItems = "vfsItems";
  static constexpr const char* kFolderType = "vfsType";
  static constexpr const char* kFolderIcon = "vfsIcon";
  static constexpr const char* kLinkPath = "vfsSharePath";
  static constexpr const char* kRefCount = "vfsRefs";
  // A mark of the root folder: items have been shared.
  static constexpr const char* kShares = "vfsShares";
  // Permissions and time of a directory that was put here; a node, made when they are set.
  static constexpr const char* kAttributes = "vfsAttributes";
  // A bit of the type: no sub-folders may be created in the folder.
  static constexpr std::uint32_t kNoSubFolders = 0x2;
  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);

  ~TarnVFSFolder() override;

  std::uint32_t getFolderType() const;  // 0 when never set
  void setFolderType(std::uint32_t type);
  XString getIcon() const;
  void setIcon(const char* icon);
  XString getLinkPath() const;
  void setLinkPath(const char* path);

  TarnVFSInfo getInfo() const;
  void setPermissions(std::uint32_t permissions);
  void setModified(TarnVFSTime time);

  // The child "vfsItems" ("vfsFolders"); null while there is none.
  xcptref<TarnObject> getItemsNode() const;
  xcptref<TarnObject> getFoldersNode() const;

  // Null when there is none. Throw 12 when something else than an item (a folder) is there.
  xcptref<TarnVFSItem> getItem(std::string_view name) const;
  xcptref<TarnVFSFolder> getFolder(std::string_view name) const;
  unsigned long getNumItems() const;
  unsigned long getNumFolders() const;
  // Up to `limit` names behind `after`, or from the first one on when that is empty.
  std::vector<std::string> getItemNames(std::string_view after = {},
                                        std::size_t limit = kAll) const;
  std::vector<std::string> getFolderNames(std::string_view after = {},
                                          std::size_t limit = kAll) const;
  // The items with what is known of them; of one state.
  std::vector<TarnVFSEntry> listItems(std::string_view after, std::size_t limit) const;

  // Lists `item` here. Where an item of that name is listed already: with `unique` that one stays
  // and the new one gets a numbered name, name(1).ext; otherwise the new one takes its place. An
  // item that is listed elsewhere stays listed there and counts one place more; one that is
  // replaced counts one less. False for a null item, and where this very item bears the name
  // already. The name is checked as in TarnObject::addChild(). `used`, when not null, receives the
  // name.
  bool addItem(const char* name, xcptref<TarnVFSItem> item, bool unique, XString* used = nullptr);
  // The same for a folder, whose name is not numbered. False also where a folder of that name is
  // listed and `replace` is false, or none is and the type says kNoSubFolders; where `folder` is
  // this one or above it, or is listed elsewhere.
  bool addFolder(const char* name, xcptref<TarnVFSFolder> folder, bool replace);

  // Takes the item (the folder with everything in it) off the list; null when there is none. The
  // item counts a place less; items in the folder go on counting their places there.
  xcptref<TarnVFSItem> removeItem(std::string_view name);
  xcptref<TarnVFSFolder> removeFolder(std::string_view name);
};

}  // namespace tarns
