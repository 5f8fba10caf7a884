#include "tools/Progress.h"

#include <cstdio>

namespace tarns {

namespace {

constexpr std::chrono::milliseconds kInterval{200};
constexpr const char* kWipe = "\r\x1b[K";

}  // namespace

Progress::Progress(std::string task, std::uint64_t total, std::string unit)
    : task_(std::move(task)), unit_(std::move(unit)), total_(total) {}

Progress::~Progress() {
  if (isShown_) std::fputs(kWipe, stderr);
}

void Progress::show(std::uint64_t done, std::uint64_t count) {
  if (!isWanted_ || (unit_ != kKibibytes && ++calls_ % kCallsPerLook != 0)) return;
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  isShown_ = true;
  std::fprintf(stderr, "%s%s: %llu %s", kWipe, task_.c_str(),
               static_cast<unsigned long long>(count), unit_.c_str());
  if (total_ != 0) {
    std::fprintf(stderr, ", %llu %%", static_cast<unsigned long long>(done * 100 / total_));
  }
}

void Progress::showLastStep(const char* step) {
  if (!isWanted_ || Clock::now() - start_ < kInterval) return;
  isShown_ = true;
  std::fprintf(stderr, "%s%s: %s", kWipe, task_.c_str(), step);
}

}  // namespace tarns
