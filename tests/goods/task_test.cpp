#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>

#include <goods/event.h>
#include <goods/mutex.h>
#include <goods/semaphore.h>
#include <goods/task.h>

#include "errors_matcher.h"

namespace goods {
namespace {

using namespace std::chrono_literals;

std::size_t own_stack_size() {
  pthread_attr_t attributes;
  std::size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return size;
}

void enter_and_leave(mutex& guard) { const critical_section section(guard); }

TEST(TaskTest, RunsOnAStackOfTheSizeAskedFor) {
  struct test_case {
    std::size_t asked, least;
  };
  const test_case cases[] = {
      {256 * 1024, 256 * 1024}, {1, task::min_stack}, {(1 << 20) + 1, (1 << 20) + 1}};
  task::initialize(1 << 20);
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.asked);
    std::size_t size = 0;
    task running =
        task::create([](void* result) { *static_cast<std::size_t*>(result) = own_stack_size(); },
                     &size, task::priority::normal, c.asked);
    running.join();
    EXPECT_GE(size, c.least);
    EXPECT_FALSE(running.is_joinable());
  }
  EXPECT_EQ(code_of([] { task::create([](void*) {}, nullptr, task::priority::low, ~0UL / 2); }),
            error_code::usage);
}

TEST(TaskTest, HandsWorkOverThroughSemaphoresAndEvents) {
  struct shared {
    semaphore requests, done;
    event stopped;
    mutex guard;
    int sum GUARDED_BY(guard) = 0;
    std::atomic<bool> stop = false;
  } all;
  const auto work = [](void* argument) {
    auto& mine = *static_cast<shared*>(argument);
    while (true) {
      mine.requests.wait();
      if (mine.stop) break;
      {
        const critical_section section(mine.guard);
        enter_and_leave(mine.guard);  // by its holder
        ++mine.sum;
      }
      mine.done.signal();
    }
    mine.stopped.signal();
  };
  task first = task::create(work, &all);
  task second = task::create(work, &all);
  for (int i = 0; i < 1000; ++i) all.requests.signal();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(all.done.wait(10s));
  EXPECT_FALSE(all.done.wait(0ms));
  {
    const critical_section section(all.guard);
    EXPECT_EQ(all.sum, 1000);
  }
  EXPECT_FALSE(all.stopped.is_signalled());
  EXPECT_FALSE(all.stopped.wait(1ms));
  all.stop = true;
  all.requests.signal();
  all.requests.signal();
  EXPECT_TRUE(all.stopped.wait(10s));
  EXPECT_TRUE(all.stopped.wait(0ms));  // until it is reset
  first.join();
  second.join();
  all.stopped.reset();
  EXPECT_EQ(all.requests.count(), 0U);
}

TEST(TaskTest, ASemaphoreStopsAtItsMaximum) {
  semaphore counted(1, 2);
  EXPECT_TRUE(counted.signal());
  EXPECT_FALSE(counted.signal());
  EXPECT_EQ(counted.count(), 2U);
  counted.wait();
  EXPECT_TRUE(counted.wait(0ms));
  EXPECT_FALSE(counted.wait(0ms));
}

}  // namespace
}  // namespace goods
