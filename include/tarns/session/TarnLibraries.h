#pragma once

#include <tarns/tarns_api.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tarns {

// A file of a library folder.
struct TarnLibraryState {
  std::string path;
  std::string problem;               // why it was not loaded; empty when it is
  std::vector<std::string> classes;  // that it registered, in the order of their names

  bool isLoaded() const { return problem.empty(); }
};

// Shared libraries that bring persistent classes of applications, one folder of them for each
// database. There is one for all sessions of a process: TarnManager::MdataLibraries, which
// connect() asks when it is told to.
//
// The folder of the database that data/tarns.conf describes is data/tarns.libraries; where a
// library path is given, the folder tarns.libraries in that directory. Each file in it whose name
// ends with ".so" is a library; there need not be a folder.
//
// A library runs code in the process as soon as it is loaded. So nothing is loaded from a folder
// that others may change: the folder, and every directory above it, must belong to the user or to
// root and not be writable for all (above it: unless sticky), and a library must be a regular file,
// no link, that belongs to the user or to root and is not writable for all. Of a library that was
// built for another version of tarns (TARN_LIBRARY) no code runs: that is read from the file.
//
// Symbols of one library are not seen by others, unless they are linked with it: a library that is
// linked with another one of the folder is loaded after that one where dependencies are supported,
// and refused where they are not.
//
// What cannot be loaded is reported in the log and by getLibraries(), and keeps nothing else from
// being loaded. Loaded libraries stay to the end of the process, since objects of their classes
// may live that long; a file that is exchanged meanwhile counts in the next process.
// Threads: any.
class TARNS_API TarnLibraries {
 public:
  TarnLibraries() = default;
  TarnLibraries(const TarnLibraries&) = delete;
  TarnLibraries& operator=(const TarnLibraries&) = delete;

  // For the two-argument form below.
  void supportDependencies(bool on) { supportsDependencies_ = on; }
  bool supportsDependencies() const { return supportsDependencies_; }

  // Loads what the database's folder has and is not loaded yet; returns how many are new. Of a
  // database whose session is open before, nodes may have been taken for ones of unknown classes:
  // connect the first session with its libraries. `libraryPath` may be null.
  std::size_t loadDataLibraries(const char* configPath, const char* libraryPath);
  std::size_t loadDataLibraries(const char* configPath, const char* libraryPath,
                                bool withDependencies);

  // Every library that was found so far, once each, in the order of loading; of those with
  // problems what the last attempt said.
  std::vector<TarnLibraryState> getLibraries() const;

  static std::string GetFolder(const char* configPath, const char* libraryPath);

 private:
  using FileID = std::pair<std::uint64_t, std::uint64_t>;  // device and inode
  struct Known {
    FileID file;
    TarnLibraryState state;
    std::string soname;
  };
  class Loading;

  const Known* findLoaded(const FileID& file) const;
  void note(Known known);

  std::atomic<bool> supportsDependencies_{false};
  mutable std::mutex lock_;  // of known_
  std::mutex loading_;       // held while libraries are loaded; before lock_
  std::vector<Known> known_;
};

}  // namespace tarns
