// Runs the tasks of a database with two schedulers, and is killed while it does. Each run appends
// its key to a file first, which no transaction takes back.
// Usage: PROGRAM CONFIGURATION FILE; ends when there are no more tasks.
#include <fcntl.h>
#include <tarns/services/TarnTaskDelegate.h>
#include <tarns/services/TaskScheduler.h>
#include <tarns/session/TarnAttachment.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include "services/CountingDelegate.h"

namespace {

int runsFile = -1;

class CountRun : public CountingDelegate {
  void run(tarns::TarnTaskRun& run) override {
    const std::string line = run.getKey() + '\n';
    if (::write(runsFile, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      throw std::runtime_error("the file cannot be written");
    }
    Count(run);
    std::this_thread::sleep_for(std::chrono::milliseconds(4));
  }
};
TARN_REGISTER_TASK_DELEGATE(CountRun);

int Work(const char* configuration, const char* file) {
  runsFile = ::open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (runsFile < 0) return 1;
  tarns::TarnManager::Initialize();
  tarns::TarnManager manager;
  manager.connect(configuration);
  const tarns::TarnAttachment attachment(manager);
  std::puts("open");
  std::fflush(stdout);
  const tarns::TarnTasks tasks(manager);
  const tarns::TaskScheduler first(configuration), second(configuration);
  while (tasks.getNumTasks() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  return argc == 3 ? Work(argv[1], argv[2]) : 2;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
