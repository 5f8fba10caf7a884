#include "tools/storage_directories.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace tarns {

namespace {

constexpr std::string_view kDirectoryAddress = "file:";

// The directory that a line of a configuration file names; empty for none.
std::string DirectoryIn(const std::string& line) {
  const std::size_t address = line.find(kDirectoryAddress);
  if (address == std::string::npos) return "";
  std::string directory = line.substr(address + kDirectoryAddress.size());
  directory.resize(std::min(directory.find('?'), directory.size()));
  directory.resize(directory.find_last_not_of(" \t\r") + 1);
  return directory;
}

}  // namespace

std::vector<std::string> StorageDirectoriesOf(const std::string& configuration) {
  std::vector<std::string> directories;
  std::ifstream lines(configuration);
  std::string line;
  std::size_t count = 0;
  if (!std::getline(lines, line) || !(std::istringstream(line) >> count)) return directories;
  for (; count != 0 && std::getline(lines, line); --count) {
    const std::string named = DirectoryIn(line);
    if (!named.empty())
      directories.push_back(std::filesystem::path(configuration).parent_path() / named);
  }
  return directories;
}

}  // namespace tarns
