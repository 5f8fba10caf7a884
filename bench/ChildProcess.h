#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarns::bench {

// A program with its arguments, found as the shell finds it, and the files that it reads from and
// writes to. Errors go to our own standard error.
struct ChildProcess {
  std::vector<std::string> arguments;
  std::filesystem::path input = "/dev/null";
  std::filesystem::path output = "/dev/null";

  // Runs it and returns what it took from its start to its end: seconds on the wall or, where
  // Stopwatch counts that, of processor time of all its threads and of the system for it. Throws
  // std::runtime_error when it cannot be started or fails.
  double run() const;
};

// The path of this program.
std::string OwnProgram();

}  // namespace tarns::bench
