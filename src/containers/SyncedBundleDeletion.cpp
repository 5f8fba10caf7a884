#include <tarns/containers/SyncedBundleDeletion.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

namespace tarns {

TARN_REGISTER(SyncedBundleDeletion, TarnStringValue);

SyncedBundleDeletion::~SyncedBundleDeletion() = default;

bool SyncedBundleDeletion::write(const char* name, GOODSinOut& out) {
  TarnStringValue::write(name, out);
  return out.write("Revision", revision_);
}

}  // namespace tarns
