#include "tools/StorageChanges.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "tools/signals.h"
#include "tools/unique_file.h"

namespace tarns {

namespace {

constexpr const char* kLockName = "lock";  // opened by everybody who looks

bool Drain(int file) {
  bool wasThere = false;
  std::array<char, 4096> room{};
  while (::read(file, room.data(), room.size()) > 0) wasThere = true;
  return wasThere;
}

// As "0: file:./data?mmap=off" names them; a file that cannot be understood names none.
std::vector<std::string> DirectoriesIn(const std::string& configuration) {
  constexpr std::string_view kAddress = "file:";
  std::vector<std::string> directories;
  std::ifstream lines(configuration);
  std::string line;
  std::getline(lines, line);  // their number
  while (std::getline(lines, line)) {
    const std::size_t address = line.find(kAddress);
    if (address == std::string::npos) continue;
    std::string named = line.substr(address + kAddress.size());
    named.resize(std::min(named.find('?'), named.size()));
    named.resize(named.find_last_not_of(" \t\r") + 1);
    const auto directory = std::filesystem::path(configuration).parent_path() / named;
    std::error_code ignored;
    if (std::filesystem::is_directory(directory, ignored)) {
      directories.push_back(directory.string());
    }
  }
  return directories;
}

}  // namespace

StorageChanges::StorageChanges(const std::string& configuration)
    : directories_(DirectoriesIn(configuration)) {
  constexpr std::uint32_t kEvents =
      IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_ONLYDIR;
  notices_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  either_ = ::epoll_create1(EPOLL_CLOEXEC);
  try {
    if (notices_ < 0 || timer_ < 0 || either_ < 0) ThrowSystemError("Cannot watch files");
    for (const int file : {notices_, timer_}) {
      epoll_event event{};
      event.events = EPOLLIN;
      if (::epoll_ctl(either_, EPOLL_CTL_ADD, file, &event) != 0) {
        ThrowSystemError("Cannot watch files");
      }
    }
    for (const std::string& directory : directories_) {
      if (::inotify_add_watch(notices_, directory.c_str(), kEvents) < 0) {
        ThrowSystemError("Cannot watch \"" + directory + "\"");
      }
    }
  } catch (...) {
    close();
    throw;
  }
}

StorageChanges::~StorageChanges() { close(); }

void StorageChanges::close() noexcept {
  for (const int file : {notices_, timer_, either_}) {
    if (file >= 0) ::close(file);
  }
}

StorageChanges::Stamps StorageChanges::look() const {
  Stamps stamps;
  for (const std::string& directory : directories_) {
    std::error_code ignored;  // of files that go meanwhile
    for (const auto& file : std::filesystem::directory_iterator(directory, ignored)) {
      struct stat status {};
      if (file.path().filename() == kLockName) continue;
      if (::stat(file.path().c_str(), &status) != 0) continue;
      stamps[file.path().string()] = {status.st_ino, static_cast<std::uint64_t>(status.st_size),
                                      status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    }
  }
  return stamps;
}

void StorageChanges::noteHeld() { held_ = look(); }

bool StorageChanges::areThere() const {
  for (const auto& [name, stamp] : look()) {
    const auto known = held_.find(name);
    if (known == held_.end() || known->second != stamp) return true;
  }
  return false;
}

bool StorageChanges::wait(std::optional<std::chrono::milliseconds> limit) {
  itimerspec when{};
  if (limit) {
    const auto nanoseconds = std::max<std::int64_t>(1, limit->count() * 1'000'000);
    when.it_value.tv_sec = nanoseconds / 1'000'000'000;
    when.it_value.tv_nsec = nanoseconds % 1'000'000'000;
  }
  ::timerfd_settime(timer_, 0, &when, nullptr);
  WaitUntilReadable(either_);
  Drain(timer_);
  return Drain(notices_);
}

}  // namespace tarns
