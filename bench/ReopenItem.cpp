#include <signal.h>
#include <sys/wait.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Bench.h"
#include "Machine.h"

namespace tarns::bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kNodes = 100'000;
constexpr std::size_t kBatch = 100;  // changes per commit
constexpr std::uint64_t kLogBytes = 100'000'000;

// So large a log is not half full, so that nothing of it is merged while it is filled.
constexpr const char* kConfiguration = "1\n0: file:./data?log=1G\n";

std::string PathOf(std::size_t node) {
  return "n" + std::to_string(node / 1000) + "~" + std::to_string(node % 1000);
}

// The text that a node gets with the n-th change of all.
std::string TextOf(std::size_t change) { return std::string(60, 'x') + std::to_string(change); }

// Changes come to the nodes in this order, again and again.
std::size_t NodeOf(std::size_t change) { return change * 7919 % kNodes; }

std::uint64_t LogBytesIn(const fs::path& data) {
  std::uint64_t bytes = 0;
  for (const char* name : {"commits.0", "commits.1"}) {
    std::error_code missing;
    const std::uint64_t size = fs::file_size(data / name, missing);
    if (!missing) bytes += size;
  }
  return bytes;
}

// In a process of its own: tells of each commit how many changes there have been, and waits to be
// killed when the log is long enough.
[[noreturn]] void FillLog(const fs::path& configuration, std::size_t changes, int acknowledge) try {
  TarnManager manager;
  manager.connect(configuration.c_str());
  const TarnAttachment attachment(manager);
  const fs::path data = configuration.parent_path() / "data";
  while (LogBytesIn(data) < kLogBytes) {
    manager.transaction([&] {
      for (std::size_t i = 0; i < kBatch; ++i) {
        manager.set(PathOf(NodeOf(changes + i)), TextOf(changes + i));
      }
    });
    changes += kBatch;
    if (::write(acknowledge, &changes, sizeof changes) != sizeof changes) ::_exit(1);
  }
  ::close(acknowledge);
  while (true) ::pause();
} catch (...) {
  ::_exit(1);
}

// Returns the last number that was acknowledged.
std::size_t FillAndKill(const fs::path& configuration) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::runtime_error("Cannot make a pipe.");
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    FillLog(configuration, kNodes, ends[1]);
  }
  ::close(ends[1]);
  std::size_t acknowledged = 0, next = 0;
  while (::read(ends[0], &next, sizeof next) == sizeof next) acknowledged = next;
  ::close(ends[0]);
  ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFSIGNALED(status)) throw std::runtime_error("The process that fills a log failed.");
  return acknowledged;
}

}  // namespace

// How long opening a database takes whose process was killed with a long log. Only tarns has one
// that it merges later.
void Bench::reopen() {
  if (std::ranges::find(options_.peers, "tarns") == options_.peers.end()) return;
  const fs::path place = options_.scratch / "reopen";
  fs::create_directories(place);
  const fs::path configuration = place / "bench.conf";
  std::ofstream(configuration) << kConfiguration;
  TarnManager::Initialize();
  {
    TarnManager manager;
    manager.connect(configuration.c_str());
    const TarnAttachment attachment(manager);
    for (std::size_t i = 0; i < kNodes; i += 1000) {
      manager.transaction([&] {
        for (std::size_t n = i; n < i + 1000; ++n) manager.set(PathOf(NodeOf(n)), TextOf(n));
      });
    }
  }
  const std::size_t changes = FillAndKill(configuration);
  const auto bytes = static_cast<double>(LogBytesIn(place / "data"));
  TarnManager manager;
  // Most of the work is another thread's.
  const Stopwatch watch = Stopwatch::Wall();
  manager.connect(configuration.c_str());
  const double seconds = watch.seconds();
  const TarnAttachment attachment(manager);
  Verify(changes > 2 * kNodes, "tarns", "too few changes");
  for (std::size_t change = changes - kNodes; change < changes; ++change) {
    Verify(manager.getXString(PathOf(NodeOf(change)), "") == TextOf(change).c_str(), "tarns",
           "a change that was acknowledged is lost");
  }
  report_.add({"open after kill, for 100 MB of log",
               "s",
               {{"tarns", seconds * 1e8 / bytes}},
               Target{Target::kAtMost, 1, "", 1, "1 s"}});
}

}  // namespace tarns::bench
