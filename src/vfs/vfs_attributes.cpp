#include "vfs/vfs_attributes.h"

#include <tarns/core/TarnException.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

namespace tarns {

TARN_REGISTER_WITH(TarnVFSAttributes, TarnObject, .mayBeGuest = true);

TarnVFSAttributes::~TarnVFSAttributes() = default;

bool TarnVFSAttributes::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  out.write("Modified", modified_);
  out.write("ModifiedNs", modifiedNs_);
  out.write("Told", isTold_);
  return out.write("Permissions", permissions_);
}

void VerifyPermissions(std::uint32_t permissions) {
  constexpr std::uint32_t kAllBits = 07777;
  if (permissions <= kAllBits || permissions == TarnVFSInfo::kNoPermissions) return;
  throw TarnException("Permissions have the bits 07777 and no others.", ErrorID::BadUsage);
}

void VerifyTime(TarnVFSTime time) {
  constexpr std::uint32_t kSecond = 1'000'000'000;
  if (time.nanoseconds < kSecond || time == TarnVFSInfo::kNoTime) return;
  throw TarnException("A time has less than 1,000,000,000 nanoseconds.", ErrorID::BadUsage);
}

}  // namespace tarns
