#include <tarns/tarns_version.h>

namespace tarns {

const char* GetLibraryVersion() { return TARNS_VERSION; }

}  // namespace tarns
