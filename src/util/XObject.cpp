#include <tarns/util/XObject.h>

namespace tarns {

XObject::~XObject() = default;

}  // namespace tarns
