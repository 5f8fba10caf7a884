// The tree as text: tarns' text form against what the sqlite3 command dumps and reads. All of them
// are processes of their own, which are measured from outside.
#include <fmt/format.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "Bench.h"
#include "ChildProcess.h"
#include "Machine.h"
#include "TarnsStore.h"
#include "TextProcess.h"

namespace tarns::bench {
namespace {

constexpr const char* kExport = "export";
constexpr const char* kImport = "import";

ChildProcess TarnsProcess(const char* task, const BenchStore::Options& options) {
  return {{OwnProgram(), "--text", task, options.directory, std::to_string(options.cacheBytes)}};
}

bool WriteAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::size_t ReadSome(char* into, std::size_t size) {
  ssize_t got = 0;
  do {
    got = ::read(STDIN_FILENO, into, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) throw std::system_error(errno, std::generic_category(), "Cannot read the text");
  return static_cast<std::size_t>(got);
}

}  // namespace

void ServeTextProcess(int count, char** arguments) {
  if (count != 3) throw std::invalid_argument("--text is for the benchmark's own use.");
  const std::string_view task = arguments[0];
  TarnsStore store({arguments[1], std::stoull(arguments[2])});
  const TarnAttachment attachment(store.manager());
  PInOut text;
  if (task == kExport) {
    text.writeTo(WriteAll);
    store.manager().exportTo(kPackages, text);
    if (!text.close()) throw std::runtime_error("Cannot write the text.");
  } else {
    text.readFrom(ReadSome);
    store.manager().importTo(kPackages, text);
    fmt::print("{}\n", PeakMemoryBytes());
  }
}

void Bench::text() {
  constexpr double kMebibyte = 1 << 20;
  const auto values = static_cast<double>(workload_.values());
  std::map<std::string, double> exported, imported, sizes;
  double peak = 0, allowed = 0;
  for (const std::string& peer : options_.peers) {
    const bool isTarns = peer == "tarns";
    if (!isTarns && peer != "sqlite") continue;
    const auto from = optionsOf(peer);
    const BenchStore::Options to = {options_.scratch / (peer + "-imported"), from.cacheBytes};
    const auto file = options_.scratch / (peer + ".text"), answer = options_.scratch / "answer";
    ChildProcess exports = isTarns
                               ? TarnsProcess(kExport, from)
                               : ChildProcess{{"sqlite3", from.directory / "nodes.db", ".dump"}};
    ChildProcess imports =
        isTarns ? TarnsProcess(kImport, to) : ChildProcess{{"sqlite3", to.directory / "nodes.db"}};
    exports.output = file;
    imports.input = file;
    imports.output = answer;
    std::vector<double> exportFigures, importFigures;
    for (int round = 0; round < options_.rounds; ++round) {
      WarmPageCache(from.directory);
      exportFigures.push_back(values / exports.run());
      std::filesystem::remove_all(to.directory);
      std::filesystem::create_directories(to.directory);
      importFigures.push_back(values / imports.run());
    }
    exported[peer] = Median(std::move(exportFigures));
    imported[peer] = Median(std::move(importFigures));
    sizes[peer] = static_cast<double>(std::filesystem::file_size(file)) / kMebibyte;
    if (isTarns) {
      std::ifstream(answer) >> peak;
      allowed = 64 + 8 * sizes[peer];
    }
    checkWholeTree(peer, to);
  }
  if (wants("export")) {
    report_.add({"export as text", "values/s", exported, Target{Target::kAtLeast, 1.5, "sqlite"}});
    report_.add({"size of that text", "MiB", sizes});
  }
  if (wants("import")) {
    report_.add({"import of text", "values/s", imported, Target{Target::kAtLeast, 3, "sqlite"}});
    report_.add({"peak memory of it",
                 "MiB",
                 {{"tarns", peak / kMebibyte}},
                 Target{Target::kAtMost, 1, "", allowed, "64 MiB + 8 times the text"}});
  }
}

}  // namespace tarns::bench
