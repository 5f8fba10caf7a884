#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

namespace tarns::bench {

// Runs since it was made.
class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

struct Machine {
  std::string processor;
  unsigned int cores;
  std::uint64_t memoryBytes;
  std::string kernel;
  std::string compiler;
  std::string buildType;
  std::string load;  // the load averages when the run began: others at work make figures worse
};
Machine DescribeMachine();

// How often a second 4 KiB can be written to a file in `directory` and synced: what bounds every
// durable change there.
double SyncsPerSecond(const std::filesystem::path& directory);

// The most memory that this process ever had resident, mapped files included.
std::uint64_t PeakMemoryBytes();

// What all files below a directory take by their sizes.
std::uint64_t BytesBelow(const std::filesystem::path& directory);

// Reads all files below a directory, so that they are in the system's page cache.
void WarmPageCache(const std::filesystem::path& directory);

// Empties the system's page cache; throws std::runtime_error where that is not allowed.
void DropPageCache();

}  // namespace tarns::bench
