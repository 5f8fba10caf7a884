#pragma once

#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "support/run_program.h"

// Runs a program to its end with a terminal for its input, output and errors, whose lines have so
// many columns. What it writes is all in `out`, with "\n" for the terminal's line ends.
// Errors: std::system_error when it cannot be started.
inline program_result run_on_terminal(const std::vector<std::string>& arguments,
                                      unsigned short columns) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  const winsize size{24, columns, 0, 0};
  int terminal = -1;
  const pid_t process = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (process < 0) throw std::system_error(errno, std::generic_category(), "forkpty");
  if (process == 0) {
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) ::signal(number, SIG_DFL);
    ::execv(pointers[0], pointers.data());
    ::_exit(127);
  }
  std::string out;
  char block[4096];
  while (true) {
    const ssize_t got =
        ::read(terminal, block, sizeof block);  // fails when the other end is closed
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    for (const char byte : std::string_view(block, static_cast<std::size_t>(got))) {
      const bool isLineEnd = byte == '\n' && out.ends_with('\r');
      if (isLineEnd) out.pop_back();
      out += byte;
    }
  }
  ::close(terminal);
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) continue;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out, ""};
}
