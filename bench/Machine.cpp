#include "Machine.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tarns::bench {
namespace {

// What follows the colon on the first line of `file` that starts with `name`; empty without one.
std::string LineOf(const char* file, const std::string& name) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, name.size(), name) != 0) continue;
    const std::size_t from = line.find_first_not_of(" \t", line.find(':') + 1);
    return from == std::string::npos ? std::string() : line.substr(from);
  }
  return {};
}

std::uint64_t KibibytesOf(const char* file, const std::string& name) {
  return std::strtoull(LineOf(file, name).c_str(), nullptr, 10) * 1024;
}

std::string Kernel() {
  utsname names = {};
  uname(&names);
  return std::string(names.sysname) + " " + names.release;
}

std::string LoadAverages() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

}  // namespace

Machine DescribeMachine() {
  return {LineOf("/proc/cpuinfo", "model name"),
          std::thread::hardware_concurrency(),
          KibibytesOf("/proc/meminfo", "MemTotal"),
          Kernel(),
          "C++ " __VERSION__,
          BENCH_BUILD_TYPE,
          LoadAverages()};
}

double SyncsPerSecond(const std::filesystem::path& directory) {
  constexpr int kWrites = 500;
  const std::string name = directory / "syncs";
  const int file = open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  const std::vector<char> block(4096, 'x');
  const auto write = [&](int i) {
    return pwrite(file, block.data(), block.size(), i * off_t{4096}) == 4096;
  };
  bool good = file >= 0;
  for (int i = 0; i < kWrites; ++i) good = good && write(i);
  good = good && fsync(file) == 0;
  const Stopwatch watch = Stopwatch::Wall();
  for (int i = 0; i < kWrites; ++i) good = good && write(i) && fdatasync(file) == 0;
  const double seconds = watch.seconds();
  close(file);
  unlink(name.c_str());
  if (!good) throw std::runtime_error("Cannot write and sync " + name);
  return kWrites / seconds;
}

std::uint64_t PeakMemoryBytes() { return KibibytesOf("/proc/self/status", "VmHWM"); }

std::uint64_t BytesBelow(const std::filesystem::path& directory) {
  std::uint64_t bytes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) bytes += entry.file_size();
  }
  return bytes;
}

void WarmPageCache(const std::filesystem::path& directory) {
  std::vector<char> block(1 << 20);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    while (in.read(block.data(), static_cast<std::streamsize>(block.size()))) continue;
  }
}

void DropPageCache() {
  sync();
  std::ofstream out("/proc/sys/vm/drop_caches");
  out << "3" << std::flush;
  if (!out) throw std::runtime_error("--drop-caches: not allowed to empty the page cache.");
}

}  // namespace tarns::bench
