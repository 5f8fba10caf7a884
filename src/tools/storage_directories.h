#pragma once

#include <string>
#include <vector>

namespace tarns {

// The directories of the embedded storages that a configuration file names; those of a file that
// cannot be read are none.
std::vector<std::string> StorageDirectoriesOf(const std::string& configuration);

}  // namespace tarns
