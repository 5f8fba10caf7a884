#pragma once

#include <tarns/tarns_api.h>

namespace tarns {

// The version of the library that the process runs with, such as "0.1.0"; static text.
TARNS_API const char* GetLibraryVersion();

}  // namespace tarns
