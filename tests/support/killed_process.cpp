#include "support/killed_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <thread>

killed_process::killed_process(const std::vector<std::string>& arguments) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0)
    throw std::system_error(errno, std::generic_category(), "pipe");
  output_ = ends[0];
  std::vector<char*> pointers;
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const int failure =
      ::posix_spawn(&process_, pointers[0], &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  if (failure != 0) {
    ::close(output_);
    throw std::system_error(failure, std::generic_category(), arguments[0]);
  }
}

killed_process::~killed_process() {
  if (process_ > 0) {
    ::kill(process_, SIGKILL);
    wait();
  }
  ::close(output_);
}

bool killed_process::read_more(std::chrono::milliseconds limit) {
  pollfd readable{output_, POLLIN, 0};
  if (::poll(&readable, 1, static_cast<int>(limit.count())) <= 0) return true;
  std::array<char, 4096> buffer{};
  const ssize_t got = ::read(output_, buffer.data(), buffer.size());
  if (got > 0) pending_.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
}

std::string killed_process::next_line(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (pending_.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !read_more(left)) return {};
  }
  const std::size_t length = pending_.find('\n');
  std::string line = pending_.substr(0, length);
  pending_.erase(0, length + 1);
  return line;
}

std::vector<std::string> killed_process::kill_after(std::chrono::microseconds time) {
  // The moment is the point here: nothing is waited for.
  std::this_thread::sleep_for(time);
  ::kill(process_, SIGKILL);
  while (read_more(std::chrono::milliseconds(-1))) continue;
  wait();
  std::vector<std::string> lines;
  for (std::string line = next_line(std::chrono::milliseconds(1)); !line.empty();
       line = next_line(std::chrono::milliseconds(1)))
    lines.push_back(line);
  return lines;
}

int killed_process::wait() {
  int status = 0;
  while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) continue;
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
