#include "session/library_loading.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <link.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/session/TarnLibrary.h>
#include <tarns/util/XStringList.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>

#include "schema/RegistrationScope.h"
#include "session/library_safety.h"

namespace tarns {

namespace {

namespace fs = std::filesystem;

// In the order of names; a name stands there once for each class that has it.
std::vector<std::string> ClassNames() {
  XStringList names;
  TarnFactory::GetHead().getClassList(names);
  std::vector<std::string> all;
  for (const auto& name : names) all.emplace_back(name.view());
  std::ranges::sort(all);
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

// Where the process has a library of that soname from; nothing when it has none.
std::optional<fs::path> PlaceInProcess(const std::string& soname) {
  if (soname.empty() || soname.find('/') != std::string::npos) return std::nullopt;
  void* const library = dlopen(soname.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (library == nullptr) return std::nullopt;
  const link_map* map = nullptr;
  const bool isKnown = dlinfo(library, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr;
  fs::path place = isKnown ? map->l_name : soname.c_str();
  dlclose(library);
  return place;
}

bool HasContents(const fs::path& path, const LibraryContents& contents) {
  try {
    return ReadLibraryContents(OpenLibraryFile(fs::canonical(path)).get()) == contents;
  } catch (const std::exception&) {
    return false;  // it is gone
  }
}

// While one lives, an exception that ends the process has the log name the library first.
class NamedInTheEnd {
 public:
  explicit NamedInTheEnd(const std::string& path) {
    Path = &path;
    Former = std::set_terminate(End);
  }
  ~NamedInTheEnd() {
    std::set_terminate(Former);
    Path = nullptr;
  }
  NamedInTheEnd(const NamedInTheEnd&) = delete;
  NamedInTheEnd& operator=(const NamedInTheEnd&) = delete;

 private:
  [[noreturn]] static void End() {
    if (Path != nullptr) {
      Log(Log::Error) << "An exception has left a static initialiser of the library \"" << *Path
                      << "\": " << Problem();
    }
    if (Former != nullptr) Former();
    std::abort();
  }
  static std::string Problem() {
    try {
      if (std::current_exception() != nullptr) throw;
    } catch (const std::exception& error) {
      return error.what();
    } catch (...) {
    }
    return "it does not say why";
  }

  static thread_local const std::string* Path;
  static std::terminate_handler Former;
};

thread_local const std::string* NamedInTheEnd::Path = nullptr;
std::terminate_handler NamedInTheEnd::Former = nullptr;

// Returns the problem, which is empty when there was none.
std::string Open(const std::string& path, bool& isThere) {
  const RegistrationScope registration;
  const NamedInTheEnd named(path);
  // Never closed: objects of its classes may be anywhere.
  isThere = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) != nullptr;
  if (isThere) return registration.problem();
  const char* const problem = dlerror();  // NOLINT(concurrency-mt-unsafe): it is per thread
  return fmt::format("cannot be loaded: {}",
                     problem != nullptr ? problem : "the system does not say why");
}

}  // namespace

TarnLibraries::Loading::Loading(TarnLibraries& all, std::string named, fs::path folder,
                                bool withDependencies)
    : all_(all),
      named_(std::move(named)),
      folder_(std::move(folder)),
      withDependencies_(withDependencies) {}

void TarnLibraries::Loading::look(const fs::path& path) {
  Candidate candidate;
  Known& known = candidate.known;
  known.folder = named_;
  known.state.path = path.string();
  known.fileName = path.filename().string();
  here_.insert(known.fileName);
  try {
    const OpenLibraryFile file(path);
    const struct stat status = file.status();
    if (!S_ISREG(status.st_mode)) throw LibraryProblem("is no regular file");
    known.file = {status.st_dev, status.st_ino};
    if (isSettled(known)) return;
    LibraryFile contents = ReadLibraryFile(file.get());
    // Before it may be refused: others may be linked with it.
    known.soname = contents.soname;
    here_.insert(known.soname);
    VerifyLibraryAccess(status);
    VerifyAbi(contents.abi);
    known.contents = ReadLibraryContents(file.get());
    for (const std::string& name : contents.needed) {
      std::string other = fs::path(name).filename().string();
      if (!other.empty()) candidate.needed.push_back(std::move(other));
    }
    candidates_.push_back(std::move(candidate));
  } catch (const LibraryProblem& problem) {
    refuse(candidate, problem.what());
  } catch (const std::exception& error) {
    refuse(candidate, fmt::format("cannot be looked at: {}", error.what()));
  }
}

// Whether the file, or one with the same contents, was loaded before.
bool TarnLibraries::Loading::isSettled(const Known& known) {
  const std::lock_guard hold(all_.lock_);
  const auto same = std::ranges::find_if(all_.known_, [&](const Known& other) {
    const bool isSame =
        known.contents ? other.contents == known.contents : other.file == known.file;
    return other.isThere && isSame;
  });
  if (same == all_.known_.end()) return false;
  here_.insert(same->soname);
  std::set<std::string>& names = same->state.isLoaded() ? loaded_ : refused_;
  names.insert({known.fileName, same->fileName, same->soname});
  return true;
}

std::size_t TarnLibraries::Loading::load() {
  if (!withDependencies_) refuseLinked();
  std::size_t loaded = 0;
  bool goesOn = true;
  while (goesOn) {
    goesOn = false;
    for (auto candidate = candidates_.begin(); candidate != candidates_.end();) {
      if (firstMissing(*candidate)) {
        ++candidate;
        continue;
      }
      Candidate next = std::move(*candidate);
      candidate = candidates_.erase(candidate);
      loaded += !isThereAlready(next) && load(next) ? 1 : 0;
      goesOn = true;
    }
  }
  refuseRest();
  return loaded;
}

bool TarnLibraries::Loading::isHere(const std::string& name) const {
  std::error_code ignored;
  return here_.contains(name) || fs::exists(folder_ / name, ignored);
}

// What of the folder the library is linked with.
std::optional<std::string> TarnLibraries::Loading::firstOfFolder(const Candidate& candidate) const {
  for (const std::string& name : candidate.needed) {
    if (!candidate.known.isCalled(name) && isHere(name)) return name;
  }
  return std::nullopt;
}

// The same, as far as it is not loaded.
std::optional<std::string> TarnLibraries::Loading::firstMissing(const Candidate& candidate) const {
  for (const std::string& name : candidate.needed) {
    if (candidate.known.isCalled(name) || !isHere(name)) continue;
    const auto isIt = [&](const Candidate& other) { return other.known.isCalled(name); };
    const bool isThere = loaded_.contains(name) || PlaceInProcess(name);
    if (refused_.contains(name) || std::ranges::any_of(candidates_, isIt) || !isThere) return name;
  }
  return std::nullopt;
}

// Whether this library is in the process. Refuses another version of one that is.
bool TarnLibraries::Loading::isThereAlready(Candidate& candidate) {
  const Known& known = candidate.known;
  if (isSettled(known)) return true;
  const auto place = PlaceInProcess(known.soname);
  if (!place) return false;
  if (HasContents(*place, *known.contents)) return true;
  refuse(candidate, fmt::format("has the name \"{}\" of another one, which is loaded from \"{}\"",
                                known.soname, place->string()));
  return true;
}

bool TarnLibraries::Loading::load(Candidate& candidate) {
  const std::vector<std::string> before = ClassNames();
  TarnLibraryState& state = candidate.known.state;
  const std::string problem = Open(state.path, candidate.known.isThere);
  std::ranges::set_difference(ClassNames(), before, std::back_inserter(state.classes));
  std::ranges::set_intersection(state.classes, before, std::back_inserter(state.replaced));
  if (!problem.empty()) {
    refuse(candidate, problem);
    return false;
  }
  loaded_.insert({candidate.known.fileName, candidate.known.soname});
  all_.note(std::move(candidate.known));
  return true;
}

void TarnLibraries::Loading::refuseLinked() {
  // All are asked before one is moved away: each is here for the others.
  std::vector<Candidate> alone;
  for (Candidate& candidate : candidates_) {
    if (const auto needed = firstOfFolder(candidate)) {
      refuse(candidate, fmt::format("is linked with \"{}\" of the same folder, and dependencies "
                                    "are not supported here",
                                    *needed));
    } else {
      alone.push_back(std::move(candidate));
    }
  }
  candidates_ = std::move(alone);
}

void TarnLibraries::Loading::refuseRest() {
  // First those that need what cannot be loaded, then circles.
  for (bool goesOn = true; goesOn;) {
    goesOn = false;
    for (auto candidate = candidates_.begin(); candidate != candidates_.end(); ++candidate) {
      const std::string needed = firstMissing(*candidate).value_or("");
      const auto isIt = [&](const Candidate& other) { return other.known.isCalled(needed); };
      if (!refused_.contains(needed) && std::ranges::any_of(candidates_, isIt)) continue;
      refuse(*candidate, fmt::format("is linked with \"{}\", which was not loaded", needed));
      candidates_.erase(candidate);
      goesOn = true;
      break;
    }
  }
  for (Candidate& candidate : candidates_) {
    refuse(candidate, fmt::format("is linked with \"{}\", and that in turn with it",
                                  firstMissing(candidate).value_or("itself")));
  }
}

void TarnLibraries::Loading::refuse(Candidate& candidate, const std::string& problem) {
  Known& known = candidate.known;
  known.state.problem = problem;
  refused_.insert({known.fileName, known.soname});
  Log(Log::Warning) << "The library \"" << known.state.path << "\" was not loaded: it " << problem
                    << ".";
  all_.note(known);
}

}  // namespace tarns
