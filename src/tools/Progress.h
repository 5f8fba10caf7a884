#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/Output.h"

namespace tarns {

// One line on standard error that says how far a long task is: only on a terminal, and only once
// the task has taken a second.
class Progress {
 public:
  // `total` in bytes; 0: not known. `unit`: what is counted, and show() is called for each.
  Progress(std::string task, std::uint64_t total, std::string unit = "values");
  // Counts KiB; show() is called for blocks of many.
  static constexpr const char* kKibibytes = "KiB";
  ~Progress();  // wipes the line
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `done` in bytes; `count`: so far. Cheap to call often.
  void show(std::uint64_t done, std::uint64_t count);
  // The step that ends the task and cannot tell how far it is; shown at once, unless the task was
  // so short that this cannot take long either.
  void showLastStep(const char* step);

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr unsigned kCallsPerLook = 256;  // at the clock

  const bool isWanted_ = TalksToTerminal();
  const std::string task_, unit_;
  const std::uint64_t total_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point next_ = start_ + std::chrono::seconds(1);
  unsigned calls_ = 0;
  bool isShown_ = false;
};

}  // namespace tarns
