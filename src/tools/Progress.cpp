#include "tools/Progress.h"

#include <cstdio>

namespace tarns {

namespace {

constexpr std::chrono::milliseconds kInterval{200};
constexpr const char* kWipe = "\r\x1b[K";

}  // namespace

Progress::Progress(std::string task, std::uint64_t total) : task_(std::move(task)), total_(total) {}

Progress::~Progress() {
  if (isShown_) std::fputs(kWipe, stderr);
}

void Progress::show(std::uint64_t done, std::uint64_t count) {
  if (!isWanted_ || ++calls_ % kCallsPerLook != 0) return;
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  isShown_ = true;
  const auto values = static_cast<unsigned long long>(count);
  if (total_ != 0) {
    std::fprintf(stderr, "%s%s: %llu values, %llu %%", kWipe, task_.c_str(), values,
                 static_cast<unsigned long long>(done * 100 / total_));
  } else {
    std::fprintf(stderr, "%s%s: %llu values", kWipe, task_.c_str(), values);
  }
}

void Progress::showLastStep(const char* step) {
  if (!isWanted_ || Clock::now() - start_ < kInterval) return;
  isShown_ = true;
  std::fprintf(stderr, "%s%s: %s", kWipe, task_.c_str(), step);
}

}  // namespace tarns
