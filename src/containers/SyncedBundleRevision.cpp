#include "containers/SyncedBundleRevision.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

namespace tarns {

TARN_REGISTER(SyncedBundleRevision, TarnStringValue);

SyncedBundleRevision::~SyncedBundleRevision() = default;

bool SyncedBundleRevision::write(const char* name, GOODSinOut& out) {
  TarnStringValue::write(name, out);
  out.write("Revision", revision_);
  return out.write("Digest", digest_.data(), digest_.size());
}

}  // namespace tarns
