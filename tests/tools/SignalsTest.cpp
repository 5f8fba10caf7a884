// What the command does with signals, within one process.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "tools/signals.h"

namespace tarns {
namespace {

// Each case runs in a process of its own, which must end by the signal. The tests themselves may
// have been started to ignore some.
void StopIgnoring() {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) ::signal(signal, SIG_DFL);
}

TEST(SignalsDeathTest, TheSecondSignalEndsTheProgram) {
  for (const int second : {SIGHUP, SIGINT, SIGTERM}) {
    EXPECT_EXIT(
        {
          StopIgnoring();
          const SignalWatch watch;
          ::raise(SIGTERM);
          ::raise(second);
          std::_Exit(0);
        },
        testing::KilledBySignal(second), "");
  }
}

TEST(SignalsDeathTest, WithoutAWatchTheFirstDoes) {
  EXPECT_EXIT(
      {
        StopIgnoring();
        { const SignalWatch watch; }
        ::raise(SIGINT);
        std::_Exit(0);
      },
      testing::KilledBySignal(SIGINT), "");
}

TEST(SignalsDeathTest, ASignalIsNotedOnceAndWakesWhoWaits) {
  EXPECT_EXIT(
      {
        StopIgnoring();
        SignalWatch watch;
        const SignalWatch inner;
        int files[2];
        if (::pipe(files) != 0) std::_Exit(1);
        std::thread([] {
          std::this_thread::sleep_for(std::chrono::milliseconds(50));
          ::kill(::getpid(), SIGTERM);
        }).detach();
        try {
          WaitUntilReadable(files[0]);  // which nobody writes to
        } catch (const Interrupted&) {
          EndBySignal();
        }
        std::_Exit(2);
      },
      testing::KilledBySignal(SIGTERM), "");
}

TEST(SignalsDeathTest, WhatIsIgnoredFromTheBeginningStaysIgnored) {
  EXPECT_EXIT(
      {
        ::signal(SIGHUP, SIG_IGN);
        SignalWatch watch;
        ::raise(SIGHUP);
        ::raise(SIGHUP);
        ThrowIfInterrupted();
        watch.end();
        ::raise(SIGHUP);
        std::_Exit(7);
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace tarns
