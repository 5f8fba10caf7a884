#include <tarns/logging/Log.h>
#include <tarns/session/TarnLibraries.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>

#include "schema/RegistrationScope.h"
#include "session/library_loading.h"
#include "session/library_safety.h"

namespace tarns {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSuffix = ".so";
constexpr const char* kFolderSuffix = ".libraries";

// Held while libraries are loaded, whose classes are the process's; before any list's.
std::mutex& LoadingLock() {
  static std::mutex lock;
  return lock;
}

}  // namespace

TarnLibraries::TarnLibraries() = default;

TarnLibraries::~TarnLibraries() = default;

std::string TarnLibraries::GetFolder(const char* configPath, const char* libraryPath) {
  const fs::path config(configPath != nullptr ? configPath : "");
  const bool isElsewhere = libraryPath != nullptr && *libraryPath != '\0';
  const fs::path in = isElsewhere ? fs::path(libraryPath) : config.parent_path();
  return (in / config.stem()).string() + kFolderSuffix;
}

std::size_t TarnLibraries::loadDataLibraries(const char* configPath, const char* libraryPath) {
  return loadDataLibraries(configPath, libraryPath, supportsDependencies_);
}

std::size_t TarnLibraries::loadDataLibraries(const char* configPath, const char* libraryPath,
                                             bool withDependencies) {
  const std::string named = GetFolder(configPath, libraryPath);
  if (RegistrationScope::Current() != nullptr) {
    Log(Log::Error) << "Nothing is loaded from \"" << named
                    << "\", since a static initialiser of a library asks for it.";
    return 0;
  }
  const std::lock_guard one(LoadingLock());
  {
    const std::lock_guard hold(lock_);
    ++attempt_;
  }
  const std::size_t loaded = loadFolder(named, withDependencies);
  // What was wrong before is so no more.
  const std::lock_guard hold(lock_);
  std::erase_if(known_, [&](const Known& known) {
    return !known.isThere && known.folder == named && known.attempt != attempt_;
  });
  return loaded;
}

std::size_t TarnLibraries::loadFolder(const std::string& named, bool withDependencies) {
  std::error_code problem;
  const fs::path folder = fs::canonical(named, problem);
  if (problem == std::errc::no_such_file_or_directory) return 0;
  std::vector<fs::path> files;
  try {
    if (problem) throw LibraryProblem("cannot be looked at: " + problem.message());
    VerifyLibraryFolder(folder);
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == kSuffix) files.push_back(entry.path());
    }
  } catch (const std::exception& error) {
    Log(Log::Warning) << "Nothing was loaded from \"" << named << "\": it " << error.what() << ".";
    Known known;
    known.folder = named;
    known.state.path = named;
    known.state.problem = error.what();
    note(std::move(known));
    return 0;
  }
  std::ranges::sort(files);
  Loading loading(*this, named, folder, withDependencies);
  for (const fs::path& file : files) loading.look(file);
  return loading.load();
}

// In place of what was said about the file before.
void TarnLibraries::note(Known known) {
  const std::lock_guard hold(lock_);
  std::erase_if(known_, [&](const Known& other) {
    return !other.isThere && other.state.path == known.state.path;
  });
  known.attempt = attempt_;
  known_.push_back(std::move(known));
}

std::vector<TarnLibraryState> TarnLibraries::getLibraries() const {
  const std::lock_guard hold(lock_);
  std::vector<TarnLibraryState> states;
  states.reserve(known_.size());
  for (const Known& known : known_) states.push_back(known.state);
  return states;
}

}  // namespace tarns
