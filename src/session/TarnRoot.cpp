#include <goods/errors.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/session/TarnRoot.h>

namespace tarns {

TARN_REGISTER_WITH(TarnRoot, TarnObject, .isTarnsBaseClass = true, .mayBeGuest = true);

TarnRoot::~TarnRoot() = default;

void TarnRoot::initialize() const {
  if (hasParent()) {
    goods::throw_error(goods::error_code::corrupt_data,
                       "The root of the database is the child of another node.");
  }
}

}  // namespace tarns
