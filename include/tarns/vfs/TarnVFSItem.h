#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>
#include <tarns/vfs/TarnVFSInfo.h>

#include <cstdint>

namespace tarns {

// An item of a virtual file system (see TarnVFS): what a folder lists beside its sub-folders.
//
// Its attributes are value children, made when they are first set; applications add values of their
// own in the same way. An item as such has no content: TarnVFSFile does, and writing content to the
// path of a plain item puts a TarnVFSFile in its place, which takes over its children; other places
// where it is listed keep the item, and the file gets copies of them.
//
// Threads and transactions: as every node.
class TARNS_API TarnVFSItem : public TarnObject {
  TARN_CLASS(TarnVFSItem, TarnObject)

 public:
  static constexpr const char* kItemName = "vfsName";
  static constexpr const char* kOriginalPath = "vfsPath";
  static constexpr const char* kRefCount = "vfsRefs";

  ~TarnVFSItem() override;

  // The name to be shown: "vfsName" where it is set, else the name in the folder.
  XString getItemName() const;
  void setItemName(const char* name);
  // Where a copied or shared item was before, as a path of its file system; empty when never told.
  XString getOriginalPath() const;
  void setOriginalPath(const char* path);
  // In how many places the item is listed, the recycle bin and folders in it included; 0 for one
  // that is listed nowhere. An item that has been listed in a removed folder only still is. Kept by
  // the calls of TarnVFS and TarnVFSFolder.
  std::uint32_t getRefCount() const;
  void setRefCount(std::uint32_t count);

  virtual TarnVFSInfo getInfo() const;
};

}  // namespace tarns
