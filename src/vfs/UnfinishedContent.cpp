#include "vfs/UnfinishedContent.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

#include "vfs/vfs_access.h"

namespace tarns {

TARN_REGISTER_WITH(UnfinishedContent, TarnObject, .mayBeGuest = true);

UnfinishedContent::~UnfinishedContent() = default;

bool UnfinishedContent::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  return out.write("Tables", tables_);
}

xcptref<UnfinishedContent> UnfinishedContent::In(TarnVFS& files) {
  return ChildNoFail<UnfinishedContent>(files.getManager(), files.getBaseNode(),
                                        TarnVFS::kUnfinished);
}

}  // namespace tarns
