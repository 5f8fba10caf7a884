// What TarnLibraries knows of a library, and how those of one folder are loaded.
#pragma once

#include <tarns/session/TarnLibraries.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "session/library_file.h"

namespace tarns {

struct TarnLibraries::Known {
  using FileID = std::pair<std::uint64_t, std::uint64_t>;  // device and inode

  bool isCalled(const std::string& name) const { return name == fileName || name == soname; }

  TarnLibraryState state;
  std::string folder;         // as GetFolder() calls it
  std::uint64_t attempt = 0;  // that has found it
  std::string fileName;
  std::string soname;  // may be empty
  FileID file = {};
  std::optional<LibraryContents> contents = {};  // once it was looked at
  bool isThere = false;                          // in the process: loaded, or refused by then
};

// From looking at the files to loading them. Threads: one at a time in a process.
class TarnLibraries::Loading {
 public:
  Loading(TarnLibraries& all, std::string named, std::filesystem::path folder,
          bool withDependencies);

  void look(const std::filesystem::path& path);
  // Loads what was looked at; returns how many are new.
  std::size_t load();

 private:
  struct Candidate {
    Known known;
    std::vector<std::string> needed;  // names of files
  };

  bool isHere(const std::string& name) const;
  std::optional<std::string> firstOfFolder(const Candidate& candidate) const;
  std::optional<std::string> firstMissing(const Candidate& candidate) const;
  bool load(Candidate& candidate);
  bool isSettled(const Known& known);
  bool isThereAlready(Candidate& candidate);
  void refuseLinked();
  void refuseRest();
  void refuse(Candidate& candidate, const std::string& problem);

  TarnLibraries& all_;
  const std::string named_;
  const std::filesystem::path folder_;
  const bool withDependencies_;
  // File names and sonames; "" is nobody's.
  std::set<std::string> here_;  // of what the folder has
  std::set<std::string> loaded_;
  std::set<std::string> refused_;
  std::vector<Candidate> candidates_;  // in the order of their names
};

}  // namespace tarns
