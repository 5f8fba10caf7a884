// The command that tells what other programs change in a branch.
#include <spawn.h>
#include <sys/wait.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnManager.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tools/BranchLook.h"
#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/StorageChanges.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// While another program has the database, or only looks at it.
constexpr milliseconds kShortestPause(200), kLongestPause(2000);

struct WatchOptions {
  std::string path;
  std::string line;  // of the shell
  bool isJson = false;
  std::optional<std::uint64_t> count;
  std::optional<double> timeout;  // seconds
};

std::string TextOf(const LookChange& change) {
  std::string text = std::string(NameOf(change.kind)) + ' ' + Shown(change.path);
  if (!change.from.empty()) text += " from " + Shown(change.from);
  if (!change.value.empty()) text += " = " + Shown(change.value);
  return text;
}

std::string JsonOf(const LookChange& change) {
  std::string text = std::string("{\"kind\": \"") + NameOf(change.kind) +
                     "\", \"path\": " + Quoted(TextOfName(change.path));
  if (!change.from.empty()) text += ", \"from\": " + Quoted(TextOfName(change.from));
  if (!change.className.empty()) text += ", \"class\": " + Quoted(change.className);
  if (!change.value.empty()) text += ", \"value\": " + change.value;
  return text + '}';
}

// Runs a line of the shell for a change, which it finds in its environment.
void Execute(const std::string& line, const LookChange& change, const std::string& database) {
  std::vector<std::string> variables;
  for (char** one = environ; *one != nullptr; ++one) {
    const std::string_view known(*one);
    const bool isOurs = known.starts_with("TARNS_KIND=") || known.starts_with("TARNS_PATH=") ||
                        known.starts_with("TARNS_FROM=") || known.starts_with("TARNS_DB=");
    if (!isOurs) variables.emplace_back(known);
  }
  variables.push_back(std::string("TARNS_KIND=") + NameOf(change.kind));
  variables.push_back("TARNS_PATH=" + change.path);
  variables.push_back("TARNS_FROM=" + change.from);
  variables.push_back("TARNS_DB=" + database);
  std::vector<std::string> arguments{"sh", "-c", line};
  const auto pointersTo = [](std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  };
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t usual;  // what this program ignores or notes is none of its children's business
  ::sigemptyset(&usual);
  for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&usual, signal);
  ::posix_spawnattr_setsigdefault(&attributes, &usual);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t child = 0;
  const int failure = ::posix_spawn(&child, "/bin/sh", nullptr, &attributes,
                                    pointersTo(arguments).data(), pointersTo(variables).data());
  ::posix_spawnattr_destroy(&attributes);
  if (failure != 0) {
    throw std::system_error(failure, std::generic_category(), "Cannot start a shell");
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "Cannot wait for the shell");
    }
  }
  ThrowIfInterrupted();
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  std::fprintf(stderr, "tarns: what --exec runs failed for \"%s\".\n", Shown(change.path).c_str());
}

class BranchFollower {
 public:
  BranchFollower(const Invocation& invocation, const WatchOptions& options)
      : invocation_(invocation),
        options_(options),
        isJson_(options.isJson || invocation.format == Format::kJson),
        changes_(ConfigurationOf(invocation)) {
    invocation_.wait = 0;
  }

  int run() {
    const SignalWatch watch;
    const Clock::time_point start = Clock::now();
    std::optional<Clock::time_point> end;
    if (options_.timeout) {
      end = start + std::chrono::duration_cast<Clock::duration>(
                        std::chrono::duration<double>(*options_.timeout));
    }
    milliseconds pause(0);
    while (true) {
      ThrowIfInterrupted();
      const Looked looked = look();
      if (looked == Looked::kInUse) {  // it may be closed without a further trace
        SleepFor(kShortestPause, end);
        changes_.wait(Left(end, kLongestPause - kShortestPause));
      } else {
        if (looked == Looked::kChanged && tell()) return ExitStatus::kDone;
        while (!changes_.areThere() && (!end || Clock::now() < *end)) {
          changes_.wait(Left(end, std::nullopt));
        }
        // A look of another program changes files, too: two that watch must not wake each other for
        // ever.
        const bool isFirst = pause == milliseconds(0);
        pause = looked == Looked::kChanged
                    ? milliseconds(0)
                    : std::min(isFirst ? kShortestPause : 2 * pause, kLongestPause);
        SleepFor(pause, end);
      }
      if (end && Clock::now() >= *end) {
        return count_ > 0 ? ExitStatus::kDone : ExitStatus::kNotFound;
      }
    }
  }

 private:
  static std::optional<milliseconds> Left(const std::optional<Clock::time_point>& end,
                                          std::optional<milliseconds> most) {
    if (!end) return most;
    const auto rest = std::chrono::ceil<milliseconds>(*end - Clock::now());
    return std::max(milliseconds(0), most ? std::min(*most, rest) : rest);
  }

  // Ends early, within a fifth of a second, when a signal has come.
  static void SleepFor(milliseconds time, const std::optional<Clock::time_point>& end) {
    for (auto left = *Left(end, time); left > milliseconds(0); left -= kShortestPause) {
      std::this_thread::sleep_for(std::min(left, kShortestPause));
      ThrowIfInterrupted();
    }
  }

  // How much has been committed in each storage.
  static std::vector<std::uint64_t> VersionsOf(TarnManager& manager) {
    std::vector<std::uint64_t> versions;
    for (unsigned long storage = 0; storage < manager.getNumStorages(); ++storage) {
      versions.push_back(
          manager.db().session().version(static_cast<goods::storage_number>(storage)));
    }
    return versions;
  }

  enum class Looked { kInUse, kUnchanged, kChanged };

  // A database in which nothing has been committed since the last look is let go of at once.
  Looked look() {
    try {
      OpenDatabase database(invocation_);
      std::vector<std::uint64_t> versions = VersionsOf(*database);
      const bool isNew = versions != versions_;
      if (isNew) {
        before_ = std::exchange(
            now_, BranchLook(options_.path, database->getObject(options_.path), isJson_));
      }
      changes_.noteHeld();
      versions_ = std::move(versions);
      return isNew ? Looked::kChanged : Looked::kUnchanged;
    } catch (const TarnException& error) {
      if (error.getErrorID() != ErrorID::DatabaseInUse) throw;
      return Looked::kInUse;
    }
  }

  // Whether there have been as many as were asked for.
  bool tell() {
    if (!before_) return false;
    for (const LookChange& change : now_->since(*before_)) {
      out_ << (isJson_ ? JsonOf(change) : TextOf(change)) << '\n';
      out_.flush();
      if (!options_.line.empty()) Execute(options_.line, change, invocation_.database);
      if (++count_ == options_.count) return true;
    }
    return false;
  }

  Invocation invocation_;
  const WatchOptions& options_;
  const bool isJson_;
  StorageChanges changes_;
  std::vector<std::uint64_t> versions_;  // of the last look
  std::optional<BranchLook> before_, now_;
  Output out_;
  std::uint64_t count_ = 0;
};

}  // namespace

void AddWatch(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(app, "watch", "Tell what other programs change in a branch",
                                 "tarns -d data watch machines~press --json",
                                 "tarns -d data watch jobs --exec 'echo \"$TARNS_PATH\"'");
  auto options = std::make_shared<WatchOptions>();
  command.add_option("PATH", options->path, "The branch; without it everything");
  command.add_option("--exec", options->line,
                     "Run this line of the shell for each change, with TARNS_KIND, TARNS_PATH, "
                     "TARNS_FROM and TARNS_DB in its environment");
  command.add_flag("--json", options->isJson, "Write each change as a JSON object in a line");
  command.add_option("--count", options->count, "End after so many changes")
      ->check(CLI::PositiveNumber);
  command.add_option("--timeout", options->timeout, "End after so long")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e9));
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] {
      return BranchFollower(invocation, *options).run();
    };
  });
}

}  // namespace tarns
