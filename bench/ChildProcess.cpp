#include "ChildProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "Machine.h"

namespace tarns::bench {
namespace {

double SecondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

}  // namespace

double ChildProcess::run() const {
  std::vector<std::string> texts = arguments;
  std::vector<char*> raw;
  raw.reserve(texts.size() + 1);
  for (std::string& text : texts) raw.push_back(text.data());
  raw.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const Stopwatch wall = Stopwatch::Wall();
  pid_t child = 0;
  const int problem = posix_spawnp(&child, raw[0], &actions, nullptr, raw.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  rusage used = {};
  int status = -1;
  if (problem == 0) wait4(child, &status, 0, &used);
  if (status != 0) throw std::runtime_error(fmt::format("\"{}\" failed.", arguments[0]));
  if (!Stopwatch::CountsProcessorTime()) return wall.seconds();
  return SecondsOf(used.ru_utime) + SecondsOf(used.ru_stime);
}

std::string OwnProgram() { return std::filesystem::read_symlink("/proc/self/exe"); }

}  // namespace tarns::bench
