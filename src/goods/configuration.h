// The file that names a database's storages.
#pragma once

#include <string>
#include <vector>

namespace goods {

struct configuration {
  std::vector<std::string> addresses;  // by storage number
  std::string directory;               // of the file; relative addresses are taken from it
};

// Reads a configuration file; its form stands in database.h. Line ends may be LF or CRLF. Throws
// usage naming file and line for one that is missing, unreadable or not of that form.
configuration read_configuration(const std::string& path);

}  // namespace goods
