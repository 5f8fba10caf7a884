#pragma once

#include <time.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace tarns::bench {

// Runs since it was made.
class Stopwatch {
 public:
  Stopwatch() : Stopwatch(clock_) {}
  // One that always counts the time on the wall.
  static Stopwatch Wall() { return Stopwatch(CLOCK_MONOTONIC); }

  double seconds() const { return Now(mine_) - start_; }

  // From now on all others count the processor time of their thread: for a machine that others use
  // at the same time. What a peer leaves to other threads or waits for does not count then.
  static void CountProcessorTime() { clock_ = CLOCK_THREAD_CPUTIME_ID; }
  static bool CountsProcessorTime() { return clock_ == CLOCK_THREAD_CPUTIME_ID; }

 private:
  explicit Stopwatch(clockid_t clock) : mine_(clock) {}

  static double Now(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }

  static inline clockid_t clock_ = CLOCK_MONOTONIC;  // set before anything is measured

  clockid_t mine_;
  double start_ = Now(mine_);
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
