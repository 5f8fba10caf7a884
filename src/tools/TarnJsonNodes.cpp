#include "tools/TarnJsonNodes.h"

#include <tarns/schema/TarnClassRegistration.h>

namespace tarns {

TARN_REGISTER(TarnJsonArray, TarnObject);
TARN_REGISTER(TarnJsonNull, TarnObject);

TarnJsonArray::~TarnJsonArray() = default;
TarnJsonNull::~TarnJsonNull() = default;

}  // namespace tarns
