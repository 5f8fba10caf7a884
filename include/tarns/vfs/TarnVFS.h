#pragma once

#include <tarns/core/TarnPath.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnPathText.h>
#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>
#include <tarns/vfs/TarnVFSFolder.h>
#include <tarns/vfs/TarnVFSInfo.h>
#include <tarns/vfs/TarnVFSItem.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

// A branch of the node tree as a file system of folders and items.
//
//   TarnVFS files(manager, manager.getNoFail("files"));
//   files.createFolder("letters~2026", nullptr, 0);
//   TarnVFSWriter writer(files, "letters~2026~january.txt");
//   writer.write("Dear Sir,\n");
//   writer.finish();
//
// Paths are names joined by "~": all but the last name folders, the last one the folder or item
// that is addressed; the empty path is the folder on which the file system was opened. Names are 1
// to 65,535 bytes, any but "~" and NUL. Names that differ in a bit are different names.
//
// Below the base node stand "vfsSystem", the root folder, "vfsRecycleBin", what was thrown away,
// and "vfsUnfinished", contents that are being written; docs/vfs.md has the whole layout.
//
// Results: what is not there is no error but gives false or null, and nothing has been changed
// then. Names that the tree refuses (an empty one, for example in "a~~b") throw what it throws: 8,
// or 0. From 100 on what the storage reports.
//
// Atomicity: each function is one transaction, or a part of the one that the thread has open. Those
// that change the same folder come one after the other, so that two threads that add an item of one
// name under numbered names both succeed.
//
// Threads: a TarnVFS belongs to one thread at a time, which must be attached to the session; any
// number of them may be open on the same base, in any sessions. Each keeps the folder on which it
// was opened, and follows it when it is moved; once that has been removed, what would change
// something throws 7, and reading finds what it held. The manager outlives it.
class TARNS_API TarnVFS {
 public:
  static constexpr const char* kRootNode = "vfsSystem";
  static constexpr const char* kRecycleBin = "vfsRecycleBin";
  static constexpr const char* kUnfinished = "vfsUnfinished";
  static constexpr const char* kItemName = "vfsName";
  static constexpr const char* kBinItem = "vfsItem";
  static constexpr const char* kBinItemID = "vfsBItemID";
  static constexpr const char* kBinItemName = "vfsName";
  static constexpr const char* kBinItemPath = "vfsPath";
  static constexpr const char* kBinItemType = "vfsType";
  static constexpr const char* kBinLastID = "vfsLastID";
  static constexpr const char* kBinTime = "vfsTime";
  static constexpr std::uint32_t kBinTypeFolder = 100;
  static constexpr std::uint32_t kBinTypeItem = 101;
  // Modes of moveItemInternal().
  static constexpr long kMove = 0;
  static constexpr long kCopy = 1;
  static constexpr long kShare = 2;
  static constexpr std::size_t kAll = TarnVFSFolder::kAll;

  // On the file system below `base`, made when there is none; `subPath` names the folder to which
  // all paths lead from then on. Where there is no such folder, that is the root folder.
  TarnVFS(TarnManager& manager, xcptref<TarnObject> base, const char* subPath = nullptr);
  TarnVFS(const TarnVFS&) = delete;
  TarnVFS& operator=(const TarnVFS&) = delete;
  virtual ~TarnVFS();

  // Makes what is missing below the base node: the recycle bin and the root folder.
  void validateVFS();

  TarnManager& getManager() const { return manager_; }
  const xcptref<TarnObject>& getBaseNode() const { return base_; }
  // The root folder, made when there is none.
  xcptref<TarnVFSFolder> getRootNode();
  // The folder that the empty path names.
  xcptref<TarnVFSFolder> getVFSRootNode();
  // How many calls of this object have changed something.
  unsigned getNumChanges() const { return numChanges_; }

  // --- Folders ----------------------------------------------------------------------------------

  // Makes the folder, and those above it that are missing. True also when it is there already,
  // which leaves it as it is. False when the folder in which the first one is to be made has the
  // type bit TarnVFSFolder::kNoSubFolders, and when the folder directly above `path` has it, unless
  // that is the one that the empty path names, even where the folder is there. `icon` may be null,
  // `type` 0.
  bool createFolder(TarnPathText path, const char* icon = nullptr, unsigned long type = 0);
  // Puts a folder that is listed nowhere at the path. Where there is one already: with `merge`,
  // what `folder` holds is moved into that (items of the same names are replaced, sub-folders
  // merged); else with `overwrite` it takes that one's place; else false. False also where the
  // folder above is missing or takes no sub-folders, and for null.
  bool addFolder(TarnPathText path, xcptref<TarnVFSFolder> folder, bool overwrite, bool merge);
  // Removes the folder with everything in it; not the one that the empty path names.
  bool deleteFolder(TarnPathText path);
  // Moves the folder (copies the whole of it) to another path. Where a folder stands there, it goes
  // into that one, under its own name; where that is taken as well, under a numbered one. False
  // also where the folder would come into itself, and where sub-folders are not allowed. A copy
  // shares the contents of the items, and items that are listed in several places of the folder are
  // copied once for each. A folder that an application has listed in several places, within itself
  // even, can be moved from the place that is its parent's only (111 from others), and is one
  // folder in as many places of a copy.
  bool moveFolder(TarnPathText from, TarnPathText to);
  bool copyFolder(TarnPathText from, TarnPathText to);

  xcptref<TarnVFSFolder> getFolder(TarnPathText path);
  bool isFolderExist(TarnPathText path);
  std::vector<std::string> getFolderNames(TarnPathText folder, std::string_view after = {},
                                          std::size_t limit = kAll);

  // --- Items ------------------------------------------------------------------------------------

  // Lists the item at the path. Where one is there already: false without `overwrite`; else it
  // takes that one's place or, with `unique`, gets a numbered name beside it; see
  // TarnVFSFolder::addItem(). False when there is no such folder.
  bool addItem(TarnPathText path, xcptref<TarnVFSItem> item, bool overwrite, bool unique);
  // Puts `item` in the place of the item at the path, which must be there.
  bool changeItem(TarnPathText path, xcptref<TarnVFSItem> item);
  // Takes the item off its folder; when it was listed nowhere else, it is gone.
  bool deleteItem(TarnPathText path);
  // All items of a folder; its sub-folders stay. False when there is no such folder.
  bool deleteItemsIn(TarnPathText folder);

  // To another path or, where a folder stands there, into that one under the item's own name. Where
  // an item stands there, the new one gets a numbered name. A copy has content and attributes of
  // its own, the same as the item at first. A name that was set to be shown (setItemName()) goes
  // along unless the name in the folder becomes another one, which is shown then. A shared item is
  // one item in several places, with a count of them ("vfsRefs"), and is gone with the last one.
  // Moving an item to where it is does nothing and returns true. `used`, when not null, receives
  // the path that came of it.
  bool moveItem(TarnPathText from, TarnPathText to, XString* used = nullptr);
  bool copyItemTo(TarnPathText from, TarnPathText to, XString* used = nullptr);
  bool shareItem(TarnPathText from, TarnPathText to, XString* used = nullptr);

  // Writes the item's content to a file: `file` or, when that is empty, a new one in $TMPDIR or
  // /tmp, which is the caller's to delete and whose path `file` receives. An existing file is
  // replaced when the new one is complete; permissions 0600. Throws XException naming the file when
  // writing fails. False when there is no such item; one without content gives an empty file.
  bool exportItem(TarnPathText path, XString& file);

  xcptref<TarnVFSItem> getItem(TarnPathText path);
  bool isItemExist(TarnPathText path);
  // Adds the names of a folder's items, in their order. The second form joins them by "~", which no
  // name contains.
  void getItemNames(XStringList& names, TarnPathText folder);
  XString getItemNames(TarnPathText folder);
  std::vector<std::string> getItemNames(TarnPathText folder, std::string_view after,
                                        std::size_t limit);
  // Up to `limit` items behind the name `after`, with what is known of them.
  std::vector<TarnVFSEntry> listItems(TarnPathText folder, std::string_view after = {},
                                      std::size_t limit = kAll);
  // Of the item at the path or, where there is none, of the folder.
  std::optional<TarnVFSInfo> getInfo(TarnPathText path);

  // --- Overviews --------------------------------------------------------------------------------

  // Sets `path` to the path of a folder or item of this file system, below the folder on which it
  // was opened; false, and `path` as it was, for any other node.
  bool getPath(const xcptref<TarnObject>& node, TarnPath& path);
  // A node with a child for each sub-folder, of the same name and with such children in turn; of a
  // folder that is listed in several places, or within itself, only the first such child of those
  // nearest to the top has children. Transient and without parent.
  xcptref<TarnObject> buildFolderTreeFor();
  static xcptref<TarnObject> BuildFolderTreeFor(const xcptref<TarnVFSFolder>& folder);
  // A transient node with the values "Items", "Folders" (of the folder itself), "Bytes" (of its
  // items, Uint64), "Modified" (the latest time in seconds, when one was told) and, when there are
  // items with content, a child "Types" with the number of those of each content type, "/" written
  // as it is, "~" as "%7E", and of types that are longer the first 255 bytes. Null when there is no
  // such folder.
  xcptref<TarnObject> summarizeItemsIn(TarnPathText folder);

  // --- Recycle bin ------------------------------------------------------------------------------
  //
  // One for the whole file system. Entries are numbered from 1; what is in the bin keeps its
  // content, and items that were shared keep their count.

  xcptref<TarnObject> getRecycleBin();
  // `id`, when not null, receives the entry's number.
  bool moveItemToBin(TarnPathText path, unsigned long* id = nullptr);
  bool moveFolderToBin(TarnPathText path, unsigned long* id = nullptr);
  // Puts the entry's item or folder back to where it was, under a numbered name when its own is
  // taken; folders above it that are gone are made again. `path`, when not null, receives its path
  // from the root folder. False when there is no such entry, or a folder cannot be made.
  bool restoreFromBin(unsigned long id, XString* path = nullptr);
  bool delFromRecycleBin(unsigned long id);
  // Removes the entries that were binned at least so many seconds ago, all with 0; how many there
  // were.
  unsigned long emptyRecycleBin(unsigned long seconds);

  struct BinEntry {
    unsigned long id = 0;
    bool isFolder = false;
    std::string name, path;  // path: from the root folder
    TarnVFSTime time = {};   // of binning; whole seconds; kNoTime where an entry has none
    TarnRef node;
  };
  // In the order in which they were binned; up to `limit` of those behind the number `after`.
  std::vector<BinEntry> listRecycleBin(unsigned long after = 0, std::size_t limit = kAll);
  // A transient node with a child for each entry, named by its number, with the values vfsName,
  // vfsPath, vfsType and vfsTime and, for a folder, its tree below "vfsFolders".
  xcptref<TarnObject> buildRecycleBinTree();
  static xcptref<TarnObject> BuildRecycleBinTree(const xcptref<TarnObject>& bin);

 protected:
  // The place in the tree of a folder (an item), from the folder that the empty path names: a~b is
  // vfsFolders~a~vfsFolders~b, and the item a~b is vfsFolders~a~vfsItems~b. Throws 8 for an empty
  // name; the empty path is the empty path for a folder.
  TarnPath getDBPathFor(const char* folderPath) const;
  TarnPath getDBPathForItem(const char* itemPath) const;

  // Splits report(2).txt into report, .txt and 2. The extension comes with its point, and is empty
  // where there is none (see FileFP::FindExtension). The number is what the first brackets of the
  // rest hold, 0 when that is no number or there are none; "(" number ")" is taken out of the base.
  void getBaseExtName(XString& name, XString& base, XString& ext, long& number) const;
  // Whether `name` has exactly this base and extension; `number` receives its number.
  bool checkItemName(XString& name, XString& base, XString& ext, long& number) const;
  // Gives the path's last name the number behind the highest one that items of its base and
  // extension have (an item without a number has 0); without such items it becomes base and
  // extension. The result is free. False, and `path` as it was, when the folder has no items node.
  bool modifyItemName(XString& path);

  // What moveItem (mode 0), copyItemTo (1) and shareItem (2) do. Throws 111 for another mode.
  bool moveItemInternal(TarnPathText from, TarnPathText to, long mode, XString* used = nullptr);

 private:
  friend class TarnVFSWriter;

  struct Place;  // a folder and a name in it
  Place placeAt(std::string_view path);
  Place targetOf(std::string_view from, std::string_view to);
  xcptref<TarnVFSFolder> folderAt(std::string_view path);
  xcptref<TarnVFSItem> itemAt(std::string_view path);
  bool isThere(const xcptref<TarnVFSFolder>& folder, std::string_view path);
  void verifyRoot();
  void verifyFolder();
  xcptref<TarnVFSFolder> makeFolder(const xcptref<TarnVFSFolder>& top, std::string_view path,
                                    const char* icon, unsigned long type);
  bool transferFolder(std::string_view from, std::string_view to, bool isCopy);
  bool bin(TarnPathText path, bool isFolder, unsigned long* id);
  TarnRef binEntry(unsigned long id);
  bool restore(const BinEntry& described, const TarnRef& entry, XString* path);
  void dropEntry(const TarnRef& bin, unsigned long id);
  template <class Work>
  bool change(const TarnRef& one, const TarnRef& other, Work&& work);
  template <class Work>
  bool changeBin(const TarnRef& bin, Work&& work);

  TarnManager& manager_;
  xcptref<TarnObject> base_;
  xcptref<TarnVFSFolder> root_;           // null until it has been looked for
  xcptref<TarnVFSFolder> effectiveRoot_;  // likewise
  XString subPath_;
  unsigned numChanges_ = 0;
};

}  // namespace tarns
