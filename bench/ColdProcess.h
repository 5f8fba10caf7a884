#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "BenchStore.h"

namespace tarns::bench {

// Work that a process does which has nothing of the store in its memory yet.
enum class ColdTask { kRead, kWalk, kWalkThenRead };

struct ColdRequest {
  ColdTask task;
  std::string peer;
  BenchStore::Options options;
  std::filesystem::path paths = {};  // a file of a PathList; for the tasks that read
};

struct ColdResult {
  double seconds = 0;         // from before the store is opened to the last value
  std::uint64_t reads = 0;    // values found by path
  std::uint64_t digests = 0;  // of those
  std::uint64_t walked = 0;   // values met by the walk
  std::uint64_t walkSum = 0;
  std::uint64_t peakBytes = 0;  // see PeakMemoryBytes()
};

// Starts this program anew for the task and waits for it. Throws std::runtime_error when it fails.
ColdResult RunColdProcess(const ColdRequest& request);

// The other side: does what the arguments behind --cold say and prints the result.
void ServeColdProcess(int count, char** arguments);

}  // namespace tarns::bench
