#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "support/scratch_directory.h"

// What a program left behind.
struct program_result {
  int status;  // the exit status, or 128 and the signal that ended it
  std::string out, err;
};

// Runs a program to its end. `arguments` begin with its path, `input` is its standard input.
// Signals do what they usually do, also where the tests were started to ignore some. Errors:
// std::system_error when it cannot be started.
inline program_result run_program(const std::vector<std::string>& arguments,
                                  const std::string& input = {}) {
  const scratch_directory files;
  std::ofstream(files.file("in"), std::ios::binary) << input;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, files.file("in").c_str(), O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 1, files.file("out").c_str(), O_WRONLY | O_CREAT,
                                     0600);
  ::posix_spawn_file_actions_addopen(&actions, 2, files.file("err").c_str(), O_WRONLY | O_CREAT,
                                     0600);
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t signals;
  ::sigfillset(&signals);
  ::posix_spawnattr_setsigdefault(&attributes, &signals);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t process = 0;
  const int failure =
      ::posix_spawn(&process, pointers[0], &actions, &attributes, pointers.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), arguments[0]);
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) continue;
  const auto content = [&](const char* name) {
    std::ifstream file(files.file(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), content("out"),
          content("err")};
}
