// Where contents begin that are written in several transactions.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/vfs/TarnVFS.h>

#include "vfs/TarnVFSPieces.h"

namespace tarns {

// Refers to a content that is being written, the child "vfsUnfinished" of a file system's base
// node.
//
// An object gets into a database by being referred to from there. Once it is in, the writer's own
// reference keeps it from being collected, and it can go on referring to new pieces. So each writer
// lets its tables be referred to from here for the one commit that stores them, and takes them off
// in the next. What a crash leaves is thus garbage, unless it comes between the two: then the next
// writer of a large content frees the place.
class UnfinishedContent : public TarnObject {
  TARN_CLASS_NAMED(UnfinishedContent, TarnObject, "TarnVFSUnfinished")

 public:
  ~UnfinishedContent() override;
  bool write(const char* name, GOODSinOut& out) override;

  // Made when there is none.
  static xcptref<UnfinishedContent> In(TarnVFS& files);

  xcptref<TarnVFSPieces> getTables() const { return tables_; }
  void setTables(const xcptref<TarnVFSPieces>& tables) { tables_ = tables; }

 private:
  xcptref<TarnVFSPieces> tables_;
};

}  // namespace tarns
