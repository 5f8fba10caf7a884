#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/services/DatabaseWorker.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace {

using testing::HasSubstr;
using namespace tarns;

class DatabaseWorkerTest : public session_test {};

TEST_F(DatabaseWorkerTest, RunsBothKindsOfRequestsOnOneThreadInItsSession) {
  DatabaseWorker worker;
  worker.start(configuration().c_str());
  struct Seen {
    TarnManager* manager = nullptr;
    std::thread::id thread;
    std::uint32_t number = 0;
  };
  Seen first, second;
  worker.execute(
      [](TarnManager& in, const void* argument) {
        in.set("a~b", 5);
        auto* const seen = static_cast<Seen*>(const_cast<void*>(argument));
        *seen = {&in, std::this_thread::get_id(), 0};
      },
      &first);
  worker.execute(
      [](TarnManager& in, std::uint32_t number, const void* argument) {
        auto* const seen = static_cast<Seen*>(const_cast<void*>(argument));
        *seen = {&in, std::this_thread::get_id(), number};
      },
      0xFFFF'FFFF, &second);
  EXPECT_EQ(first.manager, &worker);
  EXPECT_EQ(second.manager, &worker);
  EXPECT_EQ(first.thread, second.thread);
  EXPECT_NE(first.thread, std::this_thread::get_id());
  EXPECT_EQ(second.number, 0xFFFF'FFFFu);
  EXPECT_EQ(manager().getSint32("a~b"), 5);
}

TEST_F(DatabaseWorkerTest, WhatARequestThrowsReachesItsCallerAndNobodyElse) {
  DatabaseWorker worker;
  worker.start(configuration().c_str());
  EXPECT_THAT([&] { worker.run([](TarnManager& in) { in.getSint32("not~there"); }); },
              ThrowsTarn(7, HasSubstr("not~there")));
  // A transaction that it left open is gone, and the thread attached again.
  worker.run([](TarnManager& in) {
    in.db().session().begin_transaction();
    in.set("half", 1);
  });
  worker.run([](TarnManager& in) { in.detach(); });
  worker.run([](TarnManager& in) { in.set("whole", 1); });
  EXPECT_EQ(picture(), "whole=1");
  int depth = 0;
  worker.run([&](TarnManager&) { worker.run([&](TarnManager&) { ++depth; }); });
  EXPECT_EQ(depth, 1);
}

TEST_F(DatabaseWorkerTest, ARequestMayDisconnectTheSession) {
  class Worker : public DatabaseWorker {
   public:
    using DatabaseWorker::freeDB;
  } worker;
  worker.start(configuration().c_str());
  worker.run([&](TarnManager&) { worker.freeDB(); });
  EXPECT_THAT([&] { worker.run([](TarnManager& in) { in.set("a", 1); }); },
              ThrowsTarn(4, testing::_));
  worker.terminate(true);
  EXPECT_TRUE(worker.hasStopped());
}

TEST_F(DatabaseWorkerTest, RequestsOfManyThreadsComeOneAfterTheOther) {
  DatabaseWorker worker;
  worker.start(configuration().c_str());
  int running = 0, most = 0, count = 0;  // of the worker's thread
  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      for (int k = 0; k < 200; ++k) {
        worker.run([&](TarnManager&) {
          most = std::max(most, ++running);
          ++count;
          --running;
        });
      }
    });
  }
  callers.clear();
  EXPECT_EQ(count, 1600);
  EXPECT_EQ(most, 1);
}

TEST_F(DatabaseWorkerTest, RefusesRequestsBeforeItsStartAndAfterItsEnd) {
  DatabaseWorker worker;
  const auto request = [&] { worker.run([](TarnManager&) {}); };
  EXPECT_THAT(request, ThrowsTarn(111, HasSubstr("stopped")));
  worker.start(configuration().c_str());
  request();
  EXPECT_THAT([&] { worker.run([&](TarnManager&) { worker.terminate(true); }); },
              ThrowsTarn(111, HasSubstr("its own end")));
  worker.run([&](TarnManager&) { worker.terminate(false); });
  EXPECT_THAT(request, ThrowsTarn(111, HasSubstr("stopped")));
  worker.terminate(true);
  EXPECT_TRUE(worker.hasStopped());
  worker.terminate(true);
  EXPECT_THAT([&] { worker.start(configuration().c_str()); }, ThrowsTarn(111, HasSubstr("once")));
}

// Whoever has handed over a request gets it run or is refused, and nobody waits for ever.
TEST_F(DatabaseWorkerTest, EndsWhileOthersMakeRequests) {
  for (int round = 0; round < 20; ++round) {
    DatabaseWorker worker;
    worker.start(configuration().c_str());
    std::atomic<int> accepted{0}, run{0};
    std::vector<std::jthread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&] {
        try {
          while (true) {
            worker.run([&](TarnManager&) { ++run; });
            ++accepted;
          }
        } catch (const TarnException& error) {
          EXPECT_EQ(error.getErrorID(), 111u);
        }
      });
    }
    while (run < 20) std::this_thread::yield();
    worker.terminate(round % 2 == 0);
    callers.clear();
    EXPECT_EQ(accepted, run);
  }
}

}  // namespace
