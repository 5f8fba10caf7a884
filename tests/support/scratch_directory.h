#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

// A new directory of one test, removed with everything in it when the test is over.
//
// It lies under TMPDIR (or /tmp), or in memory where the machine has a place for that: much faster
// for what syncs nothing. It has the mode 0700 and a name that no other process uses. With
// TARNS_KEEP_SCRATCH set in the environment it stays and its path is printed.
// Errors: std::system_error when the directory cannot be made.
class scratch_directory {
 public:
  enum class place : bool { on_disk, in_memory };

  explicit scratch_directory(place where = place::on_disk) {
    std::string pattern = (root(where) / "tarns-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), pattern);
    path_ = pattern;
  }

  scratch_directory(const scratch_directory&) = delete;
  scratch_directory& operator=(const scratch_directory&) = delete;

  ~scratch_directory() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no test changes the environment
    if (std::getenv("TARNS_KEEP_SCRATCH") != nullptr) {
      std::cerr << "kept: " << path_ << '\n';
      return;
    }
    try {
      std::filesystem::remove_all(path_);
    } catch (const std::exception& failure) {
      std::cerr << "left over: " << failure.what() << '\n';
    }
  }

  const std::filesystem::path& path() const { return path_; }

  // The path of `name` within; nothing is created.
  std::string file(std::string_view name) const { return (path_ / name).string(); }

 private:
  static std::filesystem::path root(place where) {
    constexpr const char* memory = "/dev/shm";
    if (where == place::in_memory && ::access(memory, W_OK | X_OK) == 0) return memory;
    return std::filesystem::temp_directory_path();
  }

  std::filesystem::path path_;
};
