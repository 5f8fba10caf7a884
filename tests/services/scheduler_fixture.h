// A database with tasks, and a delegate for them that does what the test says.
#pragma once

#include <gtest/gtest.h>
#include <tarns/services/TarnTaskDelegate.h>
#include <tarns/services/TaskScheduler.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "support/session_fixture.h"

// Registered by SchedulerTest.cpp.
class SaidDelegate : public tarns::TarnTaskDelegate {
 public:
  static inline std::function<void(tarns::TarnTaskRun&)> what;
  void run(tarns::TarnTaskRun& run) override { what(run); }
};

class scheduler_test : public session_test {
 protected:
  ~scheduler_test() override { SaidDelegate::what = nullptr; }

  // With delays that a test can wait for.
  static tarns::TaskScheduler::Options Quick() {
    tarns::TaskScheduler::Options options;
    options.mostErrors = 3;
    options.firstDelay = std::chrono::milliseconds(1);
    return options;
  }
  std::string config() const { return configuration(); }

  template <class Test>
  static void WaitUntil(Test test) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!test()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "waited in vain";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  void waitUntilNoneAreLeft() {
    WaitUntil([this] { return tasks_.getNumTasks() == 0; });
  }

  tarns::TarnTasks tasks_{manager()};
};
