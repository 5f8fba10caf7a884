#pragma once

#include <tarns/logging/Log.h>

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Keeps what is logged while it lives, in place of standard error. One at a time in a process.
class captured_log {
 public:
  captured_log()
      : previous_(tarns::Log::Redirect([this](tarns::Log::Level level, std::string_view line) {
          const std::scoped_lock lock(mutex_);
          lines_.emplace_back(line);
          levels_.push_back(level);
        })) {}
  captured_log(const captured_log&) = delete;
  captured_log& operator=(const captured_log&) = delete;
  ~captured_log() { tarns::Log::Redirect(std::move(previous_)); }

  std::vector<std::string> lines() const {
    const std::scoped_lock lock(mutex_);
    return lines_;
  }
  std::vector<tarns::Log::Level> levels() const {
    const std::scoped_lock lock(mutex_);
    return levels_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<tarns::Log::Level> levels_;
  tarns::Log::Sink previous_;
};
