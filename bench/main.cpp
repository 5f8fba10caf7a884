// tarns_bench: the same work on tarns, an SQLite adjacency table and LMDB; see docs/benchmarks.md.

#include <fmt/format.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Bench.h"
#include "ColdProcess.h"
#include "Machine.h"
#include "TextProcess.h"

namespace tarns::bench {
namespace {

constexpr const char* kUsage =
    "tarns_bench: the same work on tarns, an SQLite adjacency table and LMDB, in one run\n"
    "\n"
    "  --items A,B,...   only these: {}\n"
    "  --peers A,B,...   only these: {}\n"
    "  --quick           a tenth of the reads, writes and children\n"
    "  --packages N      only the first N packages of the index\n"
    "  --index FILE      stanzas to store instead of the output of apt-cache dumpavail\n"
    "  --rounds N        of what only reads; the median counts (3)\n"
    "  --cache-mib N     what each peer may keep in memory (256)\n"
    "  --cpu-time        count the processor time of the thread that works, where it is one "
    "thread:\n"
    "                    for a machine that others use at the same time\n"
    "  --vfs-tree DIR    files to put and get in the item vfs (/usr/share/doc)\n"
    "  --drop-caches     empty the system's page cache before each cold process (needs root)\n"
    "  --dir DIR         make the scratch directory in DIR instead of the current directory\n"
    "  --keep            keep the scratch directory\n"
    "  --json FILE       write all figures to FILE as well\n"
    "\n"
    "Exit status: 0, 2 (usage), 3 (a store failed or yielded something wrong). A target that is\n"
    "not met is no failure.\n"
    "\n"
    "  tarns_bench --json figures.json\n"
    "  tarns_bench --quick --items hot-1,hot-2 --peers tarns,sqlite\n";

struct Arguments {
  BenchOptions bench;
  std::string indexFile;
  std::size_t packages = SIZE_MAX;
  std::filesystem::path directory = ".";
  bool keep = false;
  std::filesystem::path json;
};

struct UsageError : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

std::vector<std::string> SplitNames(const std::string& text,
                                    const std::vector<std::string>& known) {
  std::vector<std::string> names;
  std::istringstream in(text);
  for (std::string name; std::getline(in, name, ',');) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      throw UsageError("Unknown: \"" + name + "\"");
    }
    names.push_back(name);
  }
  return names;
}

std::size_t ParseCount(const std::string& text) {
  std::size_t end = 0;
  std::size_t count = 0;
  try {
    count = std::stoul(text, &end);
  } catch (const std::logic_error&) {
    end = 0;
  }
  if (end == 0 || end != text.size() || count == 0) throw UsageError("No count: \"" + text + "\"");
  return count;
}

Arguments Parse(int argc, char** argv) {
  const option known[] = {
      {"items", required_argument, nullptr, 'i'},     {"peers", required_argument, nullptr, 'p'},
      {"quick", no_argument, nullptr, 'q'},           {"packages", required_argument, nullptr, 'n'},
      {"index", required_argument, nullptr, 'x'},     {"rounds", required_argument, nullptr, 'r'},
      {"cache-mib", required_argument, nullptr, 'm'}, {"cpu-time", no_argument, nullptr, 't'},
      {"vfs-tree", required_argument, nullptr, 'v'},  {"drop-caches", no_argument, nullptr, 'c'},
      {"dir", required_argument, nullptr, 'd'},       {"keep", no_argument, nullptr, 'k'},
      {"json", required_argument, nullptr, 'j'},      {}};
  Arguments arguments;
  arguments.bench.peers = BenchStore::Peers();
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
  for (int given; (given = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    switch (given) {
      case 'i':
        arguments.bench.items = SplitNames(optarg, Bench::Items());
        break;
      case 'p':
        arguments.bench.peers = SplitNames(optarg, BenchStore::Peers());
        break;
      case 'q':
        arguments.bench.quick = true;
        break;
      case 'n':
        arguments.packages = ParseCount(optarg);
        break;
      case 'x':
        arguments.indexFile = optarg;
        break;
      case 'r':
        arguments.bench.rounds = static_cast<int>(ParseCount(optarg));
        break;
      case 'm':
        arguments.bench.cacheBytes = ParseCount(optarg) << 20;
        break;
      case 't':
        Stopwatch::CountProcessorTime();
        break;
      case 'v':
        arguments.bench.tree = optarg;
        break;
      case 'c':
        arguments.bench.dropCaches = true;
        break;
      case 'd':
        arguments.directory = optarg;
        break;
      case 'k':
        arguments.keep = true;
        break;
      case 'j':
        arguments.json = optarg;
        break;
      default:
        throw UsageError("");
    }
  }
  if (optind != argc) throw UsageError(std::string("Unknown: \"") + argv[optind] + "\"");
  return arguments;
}

// A directory of our own, removed at the end unless it is to be kept.
class Scratch {
 public:
  Scratch(const std::filesystem::path& parent, bool keep) : keep_(keep) {
    std::string name = std::filesystem::absolute(parent) / "tarns_bench.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("Cannot make " + name);
    path_ = name;
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    if (!keep_) std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  bool keep_;
  std::filesystem::path path_;
};

void Run(const Arguments& arguments) {
  PackageIndex index = arguments.indexFile.empty()
                           ? PackageIndex::FromCommand("apt-cache dumpavail")
                           : PackageIndex::FromFile(arguments.indexFile);
  index.truncate(arguments.packages);
  const Scratch scratch(arguments.directory, arguments.keep);
  BenchOptions options = arguments.bench;
  options.scratch = scratch.path();

  Report report(
      DescribeMachine(),
      fmt::format("{} packages, {} values of {:.1f} MiB in all, {} duplicates skipped{}",
                  index.packages().size(), index.fields().size(),
                  static_cast<double>(index.valueBytes()) / (1 << 20), index.duplicates(),
                  fmt::format("{}{}", options.quick ? ", quick" : "",
                              Stopwatch::CountsProcessorTime() ? ", processor time" : "")));
  report.printHead();
  Workload workload(index);
  Bench(options, workload, report).run();
  report.printTargets();
  if (arguments.keep) fmt::print("kept: {}\n", scratch.path().string());
  if (!arguments.json.empty()) report.save(arguments.json);
}

void PrintUsage(std::FILE* file) {
  const auto joined = [](const std::vector<std::string>& names) {
    return fmt::format("{}", fmt::join(names, ", "));
  };
  fmt::print(file, kUsage, joined(Bench::Items()), joined(BenchStore::Peers()));
}

}  // namespace
}  // namespace tarns::bench

int main(int argc, char** argv) {
  using namespace tarns::bench;
  try {
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (first == "--help") {
      PrintUsage(stdout);
    } else if (first == "--cold") {
      ServeColdProcess(argc - 2, argv + 2);
    } else if (first == "--text") {
      ServeTextProcess(argc - 2, argv + 2);
    } else {
      Run(Parse(argc, argv));
    }
    return 0;
  } catch (const UsageError& error) {
    fmt::print(stderr, "{}\n", error.what());
    PrintUsage(stderr);
    return 2;
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    return 3;
  }
}
