#pragma once

#include <tarns/tarns_api.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace tarns {

// A file of a library folder.
struct TarnLibraryState {
  std::string path;
  std::string problem;               // why it was not loaded; empty when it is
  std::vector<std::string> classes;  // that it registered, in the order of their names
  // Of these: names that other classes had, whose place these have taken for all sessions.
  std::vector<std::string> replaced;

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
// that all users may change: the folder, and every directory above it (with links resolved), must
// belong to the user or to root and not be writable for all (above it: unless sticky), and a
// library must be a regular file, no link, that belongs to the user or to root and is not writable
// for all. Groups are trusted: whoever is in the group of a file or directory that is writable for
// it can have code run as the user, and so can whoever may exchange a file between the look at it
// and its loading, or redirect a link that the path to the folder leads through.
// Of a library that was built for another version of tarns (TARN_LIBRARY) no code runs: that is
// read from the file.
//
// Symbols of one library are not seen by others, unless they are linked with it: a library that is
// linked with another one of the folder is loaded after that one where dependencies are supported,
// and refused where they are not. Either way it is refused when that one is not loaded. What it is
// linked with beside that is found by the system, as of any program, and not looked at here.
//
// A library that has the contents of one that is loaded is that one, wherever it lies. One that
// only has its name (SONAME) is refused as another version of it: all databases of a process share
// the classes. So is one that has the name of a library that the program is linked with.
//
// What cannot be loaded is reported in the log and by getLibraries(), and keeps nothing else from
// being loaded; a library whose registration of classes throws counts as not loaded, though it is
// there and may have registered some. Any other exception that leaves a static initialiser ends the
// process, after the log has named the library. Static initialisers cannot load libraries, and so
// must not connect sessions with theirs: nothing is loaded then.
// Loaded libraries stay to the end of the process, since objects of their classes may live that
// long; a file that is exchanged meanwhile counts in the next process.
// Threads: any.
class TARNS_API TarnLibraries {
 public:
  TarnLibraries();
  ~TarnLibraries();
  TarnLibraries(const TarnLibraries&) = delete;
  TarnLibraries& operator=(const TarnLibraries&) = delete;

  // For the two-argument form below. TarnManager::connect() sets it to what its session has.
  void supportDependencies(bool on) { supportsDependencies_ = on; }
  bool supportsDependencies() const { return supportsDependencies_; }

  // Loads what the database's folder has and is not loaded yet; returns how many are new. Of a
  // database whose session is open before, nodes that were looked at may have been taken for ones
  // of unknown classes: connect the first session with its libraries. `libraryPath` may be null or
  // empty.
  std::size_t loadDataLibraries(const char* configPath, const char* libraryPath);
  std::size_t loadDataLibraries(const char* configPath, const char* libraryPath,
                                bool withDependencies);

  // Every library that was found so far, once each, in the order of loading; of those with
  // problems what the last attempt with their folder said.
  std::vector<TarnLibraryState> getLibraries() const;

  // Databases whose configuration files differ in the last extension only share a folder.
  static std::string GetFolder(const char* configPath, const char* libraryPath);

 private:
  struct Known;
  class Loading;

  std::size_t loadFolder(const std::string& named, bool withDependencies);
  void note(Known known);

  std::atomic<bool> supportsDependencies_{false};
  mutable std::mutex lock_;  // of what follows
  std::vector<Known> known_;
  std::uint64_t attempt_ = 0;  // to load something
};

}  // namespace tarns
