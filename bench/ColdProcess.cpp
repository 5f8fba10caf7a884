#include "ColdProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "Machine.h"
#include "Workload.h"

namespace tarns::bench {
namespace {

// Runs a program; returns what it printed. Errors go to our own standard error.
std::string OutputOf(std::vector<std::string> arguments) {
  std::array<int, 2> pipe = {};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("Cannot make a pipe.");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  std::vector<char*> raw;
  raw.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) raw.push_back(argument.data());
  raw.push_back(nullptr);
  pid_t child = 0;
  const int started = posix_spawn(&child, raw[0], &actions, nullptr, raw.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe[1]);
  std::string output;
  std::array<char, 4096> block;
  for (ssize_t got; started == 0 && (got = read(pipe[0], block.data(), block.size())) > 0;) {
    output.append(block.data(), static_cast<std::size_t>(got));
  }
  close(pipe[0]);
  int status = -1;
  if (started == 0) waitpid(child, &status, 0);
  if (status != 0) throw std::runtime_error("The cold process failed.");
  return output;
}

}  // namespace

ColdResult RunColdProcess(const ColdRequest& request) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  std::istringstream answer(
      OutputOf({self, "--cold", std::to_string(static_cast<int>(request.task)), request.peer,
                request.options.directory, std::to_string(request.options.cacheBytes),
                request.paths, Stopwatch::CountsProcessorTime() ? "processor" : "wall"}));
  ColdResult result;
  answer >> result.seconds >> result.reads >> result.digests >> result.walked >> result.walkSum >>
      result.peakBytes;
  if (!answer) throw std::runtime_error("The cold process gave no figures.");
  return result;
}

void ServeColdProcess(int count, char** arguments) {
  if (count != 6) throw std::invalid_argument("--cold is for the benchmark's own use.");
  const auto task = static_cast<ColdTask>(std::stoi(arguments[0]));
  const BenchStore::Options options = {arguments[2], std::stoull(arguments[3])};
  if (std::string_view(arguments[5]) == "processor") Stopwatch::CountProcessorTime();
  PathList paths;
  if (task != ColdTask::kWalk) paths = PathList::Load(arguments[4]);

  ColdResult result;
  const Stopwatch watch;
  const auto store = BenchStore::Open(arguments[1], options);
  const auto session = store->session();
  session->beginReads();
  if (task != ColdTask::kRead) {
    WalkSum sum;
    session->walk(sum);
    result.walked = sum.values();
    result.walkSum = sum.sum();
  }
  for (std::size_t i = 0; i < paths.size(); ++i) {
    std::uint64_t digest = 0;
    if (session->read(paths[i], digest)) ++result.reads;
    result.digests += digest;
  }
  result.seconds = watch.seconds();
  session->endReads();
  fmt::print("{} {} {} {} {} {}\n", result.seconds, result.reads, result.digests, result.walked,
             result.walkSum, PeakMemoryBytes());
}

}  // namespace tarns::bench
