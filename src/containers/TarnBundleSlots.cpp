#include "containers/TarnBundleSlots.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

namespace tarns {

TARN_REGISTER(TarnBundleSlots, TarnObject);

TarnBundleSlots::~TarnBundleSlots() = default;

bool TarnBundleSlots::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  return out.write(kMember, &slots_[0], TarnBundleBlock::kCapacity);
}

}  // namespace tarns
