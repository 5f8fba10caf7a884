// Runs the tasks of a database with two schedulers, and is killed while it does. Each run appends
// its key to a file first, which no transaction takes back.
// Usage: PROGRAM CONFIGURATION FILE; ends when there are no more tasks but suspended ones.
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

void Note(const tarns::TarnTaskRun& run) {
  const std::string line = run.getKey() + '\n';
  if (::write(runsFile, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    throw std::runtime_error("the file cannot be written");
  }
}

class CountRun : public CountingDelegate {
  void run(tarns::TarnTaskRun& run) override {
    Note(run);
    Count(run);
    std::this_thread::sleep_for(std::chrono::milliseconds(4));
  }
};
TARN_REGISTER_TASK_DELEGATE(CountRun);

// Below done~NUMBER, of the task; the tenth is the last one.
class CountTenRuns : public CountingDelegate {
  void run(tarns::TarnTaskRun& run) override {
    Note(run);
    const std::uint64_t number = run.getTask()->getNumber();
    CountBelow("done~" + std::to_string(number), run);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (run.getTask()->getRuns() < 9) return;
    tarns::TarnTasks(run.getManager()).cancel(number);
  }
};
TARN_REGISTER_TASK_DELEGATE(CountTenRuns);

class FailRun : public CountingDelegate {
  void run(tarns::TarnTaskRun& run) override {
    Note(run);
    Count(run);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    throw std::runtime_error("as it was told");
  }
};
TARN_REGISTER_TASK_DELEGATE(FailRun);

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
  tarns::TaskScheduler::Options options;
  options.firstDelay = std::chrono::milliseconds(1);
  const tarns::TaskScheduler first(configuration, options), second(configuration, options);
  const auto numSuspended = [&] { return manager.getNumChildren("scheduler~Suspended"); };
  manager.getNoFail("scheduler~Suspended");
  while (tasks.getNumTasks() > numSuspended()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  return argc == 3 ? Work(argv[1], argv[2]) : 2;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
