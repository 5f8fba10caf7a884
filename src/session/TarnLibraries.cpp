#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/session/TarnLibraries.h>
#include <tarns/session/TarnLibrary.h>
#include <tarns/util/XStringList.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>
#include <system_error>

#include "session/library_file.h"

namespace tarns {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSuffix = ".so";
constexpr const char* kFolderSuffix = ".libraries";

class OpenFile {
 public:
  explicit OpenFile(const fs::path& path)
      : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
    if (file_ >= 0) return;
    if (errno == ELOOP) throw LibraryProblem("is a symbolic link");
    throw LibraryProblem(
        fmt::format("cannot be opened: {}", std::generic_category().message(errno)));
  }
  ~OpenFile() { close(file_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int get() const { return file_; }
  struct stat status() const {
    struct stat status {};
    if (fstat(file_, &status) != 0) {
      throw LibraryProblem(
          fmt::format("cannot be looked at: {}", std::generic_category().message(errno)));
    }
    return status;
  }

 private:
  const int file_;
};

void VerifyOwner(const struct stat& status) {
  if (status.st_uid == 0 || status.st_uid == geteuid()) return;
  throw LibraryProblem("belongs to another user");
}

void VerifyLibrary(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) throw LibraryProblem("is no regular file");
  VerifyOwner(status);
  if ((status.st_mode & S_IWOTH) != 0) throw LibraryProblem("is writable for all users");
}

// Whether there is a folder that only the user and root can change; throws when it is unsafe.
void VerifyFolder(const fs::path& folder) {
  for (fs::path at = folder;; at = at.parent_path()) {
    const bool isAbove = at != folder;
    try {
      struct stat status {};
      if (stat(at.c_str(), &status) != 0) {
        throw LibraryProblem(
            fmt::format("cannot be looked at: {}", std::generic_category().message(errno)));
      }
      if (!S_ISDIR(status.st_mode)) throw LibraryProblem("is no directory");
      VerifyOwner(status);
      if ((status.st_mode & S_IWOTH) != 0 && !(isAbove && (status.st_mode & S_ISVTX) != 0)) {
        throw LibraryProblem("is writable for all users");
      }
    } catch (const LibraryProblem& problem) {
      if (!isAbove) throw;
      throw LibraryProblem(fmt::format("lies in \"{}\", which {}", at.string(), problem.what()));
    }
    if (at == at.root_path() || at.empty()) return;
  }
}

std::set<std::string> ClassNames() {
  XStringList names;
  TarnFactory::GetHead().getClassList(names);
  std::set<std::string> all;
  for (const auto& name : names) all.emplace(name.view());
  return all;
}

void VerifyAbi(const std::string& abi) {
  if (abi.empty()) {
    throw LibraryProblem("is no library of classes for tarns: it has no TARN_LIBRARY()");
  }
  if (abi == TARNS_LIBRARY_ABI) return;
  throw LibraryProblem(
      fmt::format("was built for \"{}\", and this is \"{}\"", abi, TARNS_LIBRARY_ABI));
}

}  // namespace

// The libraries of one folder, from looking at the files to loading them.
class TarnLibraries::Loading {
 public:
  Loading(TarnLibraries& all, bool withDependencies)
      : all_(all), withDependencies_(withDependencies) {}

  void look(const fs::path& path) {
    Candidate candidate;
    candidate.known.state.path = path.string();
    try {
      const OpenFile file(path);
      const struct stat status = file.status();
      VerifyLibrary(status);
      candidate.known.file = {status.st_dev, status.st_ino};
      if (all_.findLoaded(candidate.known.file) != nullptr) return;
      LibraryFile contents = ReadLibraryFile(file.get());
      VerifyAbi(contents.abi);
      candidate.known.soname = contents.soname.empty() ? path.filename().string() : contents.soname;
      candidate.needed = std::move(contents.needed);
      candidates_.push_back(std::move(candidate));
    } catch (const LibraryProblem& problem) {
      // Others may be linked with it.
      candidate.known.soname = path.filename().string();
      refuse(candidate, problem.what());
    }
  }

  std::size_t load() {
    if (!withDependencies_) refuseLinked();
    std::size_t loaded = 0;
    bool goesOn = true;
    while (goesOn) {
      goesOn = false;
      for (auto candidate = candidates_.begin(); candidate != candidates_.end();) {
        if (missing(*candidate)) {
          ++candidate;
          continue;
        }
        loaded += load(*candidate) ? 1 : 0;
        candidate = candidates_.erase(candidate);
        goesOn = true;
      }
    }
    refuseRest();
    return loaded;
  }

 private:
  struct Candidate {
    Known known;
    std::vector<std::string> needed;
  };

  // A library of the folder that this one is linked with and that is not loaded.
  std::optional<std::string> missing(const Candidate& candidate) const {
    for (const std::string& name : candidate.needed) {
      if (name == candidate.known.soname) continue;
      const auto isIt = [&](const Candidate& other) { return other.known.soname == name; };
      if (refused_.contains(name) || std::ranges::any_of(candidates_, isIt)) return name;
    }
    return std::nullopt;
  }

  bool load(Candidate& candidate) {
    const std::set<std::string> before = ClassNames();
    // Never closed: objects of its classes may be anywhere.
    if (dlopen(candidate.known.state.path.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
      const char* const problem = dlerror();  // NOLINT(concurrency-mt-unsafe): it is per thread
      refuse(candidate, fmt::format("cannot be loaded: {}",
                                    problem != nullptr ? problem : "the system does not say why"));
      return false;
    }
    std::ranges::set_difference(ClassNames(), before,
                                std::back_inserter(candidate.known.state.classes));
    all_.note(std::move(candidate.known));
    return true;
  }

  void refuseLinked() {
    std::vector<Candidate> alone;
    for (Candidate& candidate : candidates_) {
      if (const auto needed = missing(candidate)) {
        refuse(candidate, fmt::format("is linked with \"{}\" of the same folder, and dependencies "
                                      "are not supported here",
                                      *needed));
      } else {
        alone.push_back(std::move(candidate));
      }
    }
    candidates_ = std::move(alone);
  }

  void refuseRest() {
    // First those that need what cannot be loaded, then circles.
    for (bool goesOn = true; goesOn;) {
      goesOn = false;
      for (auto candidate = candidates_.begin(); candidate != candidates_.end(); ++candidate) {
        const std::string needed = missing(*candidate).value_or("");
        if (!refused_.contains(needed)) continue;
        refuse(*candidate, fmt::format("is linked with \"{}\", which was not loaded", needed));
        candidates_.erase(candidate);
        goesOn = true;
        break;
      }
    }
    for (Candidate& candidate : candidates_) {
      refuse(candidate, fmt::format("is linked with \"{}\", and that in turn with it",
                                    missing(candidate).value_or("itself")));
    }
  }

  void refuse(Candidate& candidate, const std::string& problem) {
    candidate.known.state.problem = problem;
    refused_.insert(candidate.known.soname);
    Log(Log::Warning) << "The library \"" << candidate.known.state.path << "\" was not loaded: it "
                      << problem << ".";
    all_.note(candidate.known);
  }

  TarnLibraries& all_;
  const bool withDependencies_;
  std::vector<Candidate> candidates_;  // in the order of their names
  std::set<std::string> refused_;      // their sonames
};

const TarnLibraries::Known* TarnLibraries::findLoaded(const FileID& file) const {
  const std::lock_guard hold(lock_);
  const auto found = std::ranges::find_if(
      known_, [&](const Known& known) { return known.state.isLoaded() && known.file == file; });
  return found != known_.end() ? &*found : nullptr;
}

void TarnLibraries::note(Known known) {
  const std::lock_guard hold(lock_);
  std::erase_if(known_, [&](const Known& other) {
    return !other.state.isLoaded() && other.state.path == known.state.path;
  });
  known_.push_back(std::move(known));
}

std::string TarnLibraries::GetFolder(const char* configPath, const char* libraryPath) {
  const fs::path config(configPath != nullptr ? configPath : "");
  const fs::path in = libraryPath != nullptr ? fs::path(libraryPath) : config.parent_path();
  return (in / config.stem()).string() + kFolderSuffix;
}

std::size_t TarnLibraries::loadDataLibraries(const char* configPath, const char* libraryPath) {
  return loadDataLibraries(configPath, libraryPath, supportsDependencies_);
}

std::size_t TarnLibraries::loadDataLibraries(const char* configPath, const char* libraryPath,
                                             bool withDependencies) {
  const std::lock_guard one(loading_);
  const std::string named = GetFolder(configPath, libraryPath);
  std::error_code problem;
  const fs::path folder = fs::canonical(named, problem);
  if (problem == std::errc::no_such_file_or_directory) return 0;
  std::vector<fs::path> files;
  try {
    if (problem) throw LibraryProblem("cannot be looked at: " + problem.message());
    VerifyFolder(folder);
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == kSuffix) files.push_back(entry.path());
    }
  } catch (const std::exception& error) {
    Log(Log::Warning) << "Nothing was loaded from \"" << named << "\": it " << error.what() << ".";
    note({{}, {named, error.what(), {}}, {}});
    return 0;
  }
  std::ranges::sort(files);
  Loading loading(*this, withDependencies);
  for (const fs::path& file : files) loading.look(file);
  return loading.load();
}

std::vector<TarnLibraryState> TarnLibraries::getLibraries() const {
  const std::lock_guard hold(lock_);
  std::vector<TarnLibraryState> states;
  states.reserve(known_.size());
  for (const Known& known : known_) states.push_back(known.state);
  return states;
}

}  // namespace tarns
