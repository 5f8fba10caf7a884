// When watchers call back, and when they do not.
#include <gmock/gmock.h>
#include <goods/semaphore.h>
#include <gtest/gtest.h>
#include <tarns/services/TarnWatcher.h>
#include <tarns/services/TarnWatcherEvent.h>

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "services/WatchedEvents.h"
#include "support/captured_log.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace {

using namespace std::chrono_literals;
using namespace tarns;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr auto kLong = 20s;

// Counts the calls of a client, by argument.
class Client : public XObject {
 public:
  void called(const void* argument) {
    {
      const std::lock_guard guard(lock_);
      arguments_.push_back(argument);
    }
    calls.signal();
  }
  void throws(const void*) {
    calls.signal();
    throw XException("the callback's own");
  }
  std::size_t count() const {
    const std::lock_guard guard(lock_);
    return arguments_.size();
  }
  goods::semaphore calls;

 private:
  mutable std::mutex lock_;
  std::vector<const void*> arguments_;
};

struct Plain {
  goods::semaphore calls;
  static void Call(const void* plain) {
    static_cast<Plain*>(const_cast<void*>(plain))->calls.signal();
  }
};

class WatcherTest : public session_test {
 protected:
  WatcherTest() {
    TarnWatcher::Initialize(configuration().c_str());
    manager().set("a~number", 1);
    manager().set("a~text", "one");
    manager().set("b~c~d", 1);
    manager().set("marker", 0);
  }
  ~WatcherTest() override { TarnWatcher::Destroy(); }

  TarnWatcher& watcher() { return *TarnWatcher::GetWatcher(); }
  std::uint64_t id(const char* path) { return manager().getObjectID(path); }

  // All that has happened by now has been signalled, and its callbacks have been started: those of
  // a later change have run.
  void settle() {
    goods::semaphore done;
    const TarnWatch watch = watcher().watch(id("marker"), [&] { done.signal(); });
    manager().set("marker", manager().getSint32("marker") + 1);
    ASSERT_TRUE(done.wait(kLong));
  }
};

TEST_F(WatcherTest, WhatModifiesANode) {
  struct Case {
    const char* what;
    const char* watched;
    std::function<void(TarnManager&)> change;
    int calls;
  };
  const Case cases[] = {
      {"a number", "a~number", [](TarnManager& m) { m.set("a~number", 2); }, 1},
      {"a text, in place", "a~text", [](TarnManager& m) { m.set("a~text", "two"); }, 1},
      {"a long text", "a~text",
       [](TarnManager& m) { m.set("a~text", std::string(9999, 'x').c_str()); }, 1},
      {"a new child", "a", [](TarnManager& m) { m.set("a~more", 2); }, 1},
      {"the first child", "a~number", [](TarnManager& m) { m.set("a~number~below", 2); }, 1},
      {"a child gone", "a", [](TarnManager& m) { m.deleteBranch("a~more"); }, 1},
      {"a child renamed", "a",
       [](TarnManager& m) { modify(m.getObject("a~text"))->setName("words"); }, 1},
      {"its own name", "a~words",
       [](TarnManager& m) { modify(m.getObject("a~words"))->setName("text"); }, 1},
      {"another place", "a~text", [](TarnManager& m) { m.moveBranch("a~text", "e~text"); }, 1},
      {"a child exchanged", "e", [](TarnManager& m) { m.set("e~text", TarnObject::Create()); }, 1},
      {"touched", "a", [](TarnManager& m) { TarnWatcher::SetModified(m.getObject("a")); }, 1},
      {"deleted", "a~number", [](TarnManager& m) { m.deleteBranch("a~number"); }, 1},
      {"a child's value", "b~c", [](TarnManager& m) { m.set("b~c~d", 2); }, 0},
      {"something below", "b", [](TarnManager& m) { m.set("b~c~e", 2); }, 0},
      {"an ancestor gone", "b~c~d", [](TarnManager& m) { m.deleteBranch("b"); }, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::atomic<int> calls{0};
    const TarnWatch watch = watcher().watch(id(c.watched), [&] { ++calls; });
    c.change(manager());
    settle();
    if (c.calls > 0) {
      for (int i = 0; i < 2000 && calls == 0; ++i) std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(calls, c.calls);
  }
}

TEST_F(WatcherTest, CallsEachCallbackOnceUntilItIsWatchedAgain) {
  Client client;
  Plain plain;
  const int first = 0, second = 0;
  const std::uint64_t object = id("a~number");
  for (int twice = 0; twice < 2; ++twice) {
    watcher().watch(object, &client, &Client::called, &first);
    watcher().watch(object, &client, &Client::called, &second);
    watcher().watch(object | 0x1234'0000'0000'0000, Plain::Call, &plain);  // high bits are ignored
  }
  for (int value = 10; value < 13; ++value) manager().set("a~number", value);
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(client.calls.wait(kLong));
  ASSERT_TRUE(plain.calls.wait(kLong));
  settle();
  EXPECT_EQ(client.count(), 2u);
  EXPECT_EQ(plain.calls.count(), 0u);

  watcher().watch(object, &client, &Client::called, &first);
  manager().set("a~number", 20);
  ASSERT_TRUE(client.calls.wait(kLong));
  watcher().removeAllEventsForClient(&client);
  EXPECT_EQ(client.count(), 3u);
}

TEST_F(WatcherTest, RefusesWhatCannotBeWatched) {
  Plain plain;
  const auto watch = [&](std::uint64_t object) {
    return [&plain, object] { TarnWatcher::GetWatcher()->watch(object, Plain::Call, &plain); };
  };
  EXPECT_THAT(watch(0), ThrowsX("Cannot watch non-existent object with ID 0."));
  EXPECT_THAT(watch(std::uint64_t{9} << 32 | 70000), ThrowsTarn(7, HasSubstr("9:70000")));
  EXPECT_THAT(watch(65535), ThrowsTarn(14, HasSubstr("class definition domain")));
  for (int twice = 0; twice < 2; ++twice) {
    EXPECT_THAT(watch(0x7FFF'FFF0), ThrowsTarn(108, testing::_));
  }
  // What is stored only when the transaction commits is not there yet.
  manager().transaction([&] {
    const auto made = manager().getNoFail("fresh");
    EXPECT_THAT(watch(TarnObject::GetObjectID(made)), testing::Throws<XException>());
  });
}

TEST_F(WatcherTest, ATransactionOfTheCallerHasNoPartInIt) {
  goods::semaphore calls;
  std::optional<TarnWatch> watch;
  {
    TarnTransaction transaction(manager());
    manager().set("a~number", 50);
    watch = watcher().watch(id("a~number"), [&] { calls.signal(); });
    EXPECT_EQ(calls.count(), 0u);
  }
  EXPECT_TRUE(calls.wait(kLong));
}

TEST_F(WatcherTest, NothingIsLostSinceTheVersionThatWasRead) {
  const std::uint64_t object = id("a~number");
  const std::uint64_t before = manager().getVersion(object);
  goods::semaphore late, early, joins;
  manager().set("a~number", 2);
  const TarnWatch one = watcher().watch(
      object, [&] { late.signal(); }, before);
  EXPECT_TRUE(late.wait(kLong));
  const TarnWatch two = watcher().watch(
      object, [&] { early.signal(); }, manager().getVersion(object));
  // Joins an event that waits already, and was registered after the change.
  const TarnWatch three = watcher().watch(
      object, [&] { joins.signal(); }, before);
  EXPECT_TRUE(joins.wait(kLong));
  settle();
  EXPECT_EQ(late.count() + early.count() + joins.count(), 0u);
  manager().set("a~number", 3);
  EXPECT_TRUE(early.wait(kLong));
  settle();
  EXPECT_EQ(late.count() + joins.count(), 0u);
}

TEST_F(WatcherTest, CallbacksMayWatchAgainAndReadWhatHasChanged) {
  const std::uint64_t object = id("a~number");
  std::atomic<int> last{0};
  goods::semaphore done;
  std::function<void()> call;
  std::mutex lock;
  std::vector<TarnWatch> watches;
  call = [&] {
    const TarnAttachment attachment(manager());
    const std::uint64_t version = manager().getVersion(object);
    last = manager().getSint32("a~number");
    if (last == 300) {
      done.signal();
      return;
    }
    TarnWatch next = watcher().watch(object, call, version);
    const std::lock_guard guard(lock);
    watches.push_back(std::move(next));
  };
  const TarnWatch first = watcher().watch(object, call);
  for (int i = 2; i <= 300; ++i) manager().set("a~number", i);
  EXPECT_TRUE(done.wait(kLong)) << last;
}

TEST_F(WatcherTest, RemovalWaitsForRunningCallbacks) {
  class SlowClient : public XObject {
   public:
    void call(const void*) {
      started.signal();
      goOn.wait();
      isDone = true;
    }
    goods::semaphore started, goOn;
    std::atomic<bool> isDone{false};
  };
  SlowClient slow;
  watcher().watch(id("a~number"), &slow, &SlowClient::call, nullptr);
  watcher().watch(id("b"), &slow, &SlowClient::call, nullptr);
  manager().set("a~number", 2);
  ASSERT_TRUE(slow.started.wait(kLong));
  std::vector<std::jthread> removers;
  std::atomic<int> tooEarly{0};
  for (int i = 0; i < 3; ++i) {
    removers.emplace_back([&] {
      TarnWatcher::GetWatcher()->removeAllEventsForClient(&slow);
      if (!slow.isDone) ++tooEarly;
    });
  }
  settle();
  slow.goOn.signal();
  removers.clear();
  EXPECT_EQ(tooEarly, 0);
  manager().set("b~more", 2);
  settle();
  EXPECT_EQ(slow.started.count(), 0u);
}

TEST_F(WatcherTest, ACallbackMayRemoveItsOwnClient) {
  goods::semaphore done;
  std::optional<TarnWatch> watch;
  goods::semaphore hasWatch;
  watch = watcher().watch(id("a~number"), [&] {
    hasWatch.wait();
    watch.reset();
    done.signal();
  });
  hasWatch.signal();
  manager().set("a~number", 2);
  EXPECT_TRUE(done.wait(kLong));

  class Leaving : public XObject {
   public:
    void call(const void*) {
      TarnWatcher::GetWatcher()->removeAllEventsForClient(this);
      done.signal();
    }
    goods::semaphore done;
  } leaving;
  watcher().watch(id("a~number"), &leaving, &Leaving::call, nullptr);
  manager().set("a~number", 3);
  EXPECT_TRUE(leaving.done.wait(kLong));
  watcher().removeAllEventsForClient(&leaving);  // waits for the callback
}

// Two callbacks of one client that both wait for its last one: of one registration, and of two.
TEST_F(WatcherTest, CallbacksOfOneClientMayAllRemoveIt) {
  class Leaving : public XObject {
   public:
    void call(const void* other) {
      if (other != nullptr) {
        TarnWatcher::GetWatcher()->removeAllEventsForClient(this);
        TarnWatcher::GetWatcher()->watch(*static_cast<const std::uint64_t*>(other), this,
                                         &Leaving::call, nullptr);
        isWatching.signal();
      }
      both.arrive_and_wait();
      TarnWatcher::GetWatcher()->removeAllEventsForClient(this);
      done.signal();
    }
    std::latch both{2};
    goods::semaphore isWatching, done;
  };
  const std::uint64_t first = id("a~number"), second = id("b");
  for (const bool isAgain : {false, true}) {
    SCOPED_TRACE(isAgain);
    Leaving leaving;
    watcher().watch(first, &leaving, &Leaving::call, isAgain ? &second : nullptr);
    if (!isAgain) watcher().watch(second, &leaving, &Leaving::call, nullptr);
    manager().set("a~number", isAgain ? 2 : 3);
    if (isAgain) {
      ASSERT_TRUE(leaving.isWatching.wait(kLong));
    }
    manager().set(isAgain ? "b~again" : "b~once", 1);
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(leaving.done.wait(kLong));
    watcher().removeAllEventsForClient(&leaving);  // waits for both
  }
}

// Also that of a callback whose turn has not come when its handle goes.
TEST_F(WatcherTest, WhatACallbackHasCapturedGoesWithTheHandle) {
  goods::semaphore started, goOn;
  const TarnWatch slow = watcher().watch(id("a~number"), [&] {
    started.signal();
    goOn.wait();
  });
  auto captured = std::make_shared<int>();
  const std::weak_ptr<int> state = captured;
  TarnWatch next = watcher().watch(id("a~number"), [captured = std::move(captured)] {});
  manager().set("a~number", 2);
  ASSERT_TRUE(started.wait(kLong));
  EXPECT_FALSE(state.expired());
  next.cancel();
  EXPECT_TRUE(state.expired());
  goOn.signal();
}

TEST_F(WatcherTest, ACallbackMayAskForTheWatcherThatIsBeingDestroyed) {
  goods::semaphore started;
  std::atomic<bool> isDone{false};
  const std::uint64_t object = id("a~number");
  const TarnWatch watch = watcher().watch(object, [&] {
    started.signal();
    try {
      while (true) const TarnWatch more = TarnWatcher::GetWatcher()->watch(object, [] {});
    } catch (const TarnException&) {  // Destroy() has begun
      TarnWatcher::Initialize(configuration().c_str());
    }
    isDone = true;
  });
  manager().set("a~number", 2);
  ASSERT_TRUE(started.wait(kLong));
  TarnWatcher::Destroy();
  EXPECT_TRUE(isDone);
  EXPECT_FALSE(TarnWatcher::IsInitialized());
}

TEST_F(WatcherTest, AWatchThatFailsLeavesNothing) {
  DatabaseWorker worker;
  worker.start(configuration().c_str());
  const auto events = std::make_shared<WatchedEvents>(worker);
  Plain before, failing;
  const std::uint64_t object = id("a~number");
  events->watch(object, CallBack(Plain::Call, &before), {});
  worker.terminate(true);  // whether the object has changed cannot be asked any more
  for (Plain* plain : {&failing, &before}) {
    EXPECT_THAT([&] { events->watch(object, CallBack(Plain::Call, plain), 1); },
                ThrowsTarn(111, HasSubstr("stopped")));
  }
  Client client;
  for (const char* path : {"a~number", "a~text"}) {
    EXPECT_THAT([&] { events->watch(id(path), CallBack(&client, &Client::called, nullptr), 1); },
                ThrowsTarn(111, HasSubstr("stopped")));
    EXPECT_EQ(events->lockTarget(&client), nullptr);
  }
  manager().set("a~number", 2);
  EXPECT_TRUE(before.calls.wait(kLong));  // as it was
  events->close(true);
  EXPECT_EQ(failing.calls.count(), 0u);
}

TEST_F(WatcherTest, WhatCallbacksThrowIsLoggedWithThePath) {
  captured_log log;
  Client client;
  Plain plain;
  watcher().watch(id("a~number"), &client, &Client::throws, nullptr);
  watcher().watch(id("a~number"), Plain::Call, &plain);
  manager().set("a~number", 2);
  ASSERT_TRUE(plain.calls.wait(kLong));
  watcher().removeAllEventsForClient(&client);
  EXPECT_THAT(log.lines(), ElementsAre(AllOf(HasSubstr("a~number"), HasSubstr("callback's own"))));
}

TEST_F(WatcherTest, RemovedEventsStillCallButNobodyJoinsThem) {
  Plain first, second;
  const std::uint64_t object = id("a~number");
  watcher().watch(object, Plain::Call, &first);
  watcher().removeEvent(object);
  watcher().watch(object, Plain::Call, &second);
  manager().set("a~number", 2);
  EXPECT_TRUE(first.calls.wait(kLong));
  EXPECT_TRUE(second.calls.wait(kLong));
}

TEST_F(WatcherTest, AnObjectThatIsCollectedCallsBack) {
  goods::semaphore calls;
  manager().set("x~y", 1);
  const TarnWatch watch = watcher().watch(id("x~y"), [&] { calls.signal(); });
  manager().deleteBranch("x");
  settle();
  EXPECT_EQ(calls.count(), 0u);
  ASSERT_TRUE(manager().startGarbageCollection());
  EXPECT_TRUE(calls.wait(kLong));
}

TEST_F(WatcherTest, ThousandsOfWatches) {
  constexpr int kNodes = 5000;
  manager().transaction([&] {
    for (int i = 0; i < kNodes; ++i) manager().set("many~" + std::to_string(i), i);
  });
  goods::semaphore calls;
  std::vector<TarnWatch> watches;
  for (const auto& [name, child] : manager().children("many")) {
    watches.push_back(watcher().watch(TarnObject::GetObjectID(child), [&] { calls.signal(); }));
  }
  manager().transaction([&] {
    for (int i = 0; i < kNodes; i += 2) manager().set("many~" + std::to_string(i), -i - 1);
  });
  for (int i = 0; i < kNodes / 2; ++i) ASSERT_TRUE(calls.wait(kLong));
  watches.clear();
  manager().deleteBranch("many~1");
  settle();
  EXPECT_EQ(calls.count(), 0u);
}

TEST_F(WatcherTest, EndsWhileCallbacksRunAndEventsFire) {
  Plain plain;
  std::atomic<bool> stops{false};
  std::jthread writer([&] {
    TarnManager other;
    other.connect(configuration().c_str());
    const TarnAttachment attachment(other);
    for (int i = 0; !stops; ++i) other.set("a~number", i);
  });
  const std::uint64_t object = id("a~number");
  captured_log log;  // of callbacks that cannot watch again
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> running{0};
    goods::semaphore calls;
    std::function<void()> call;
    std::mutex lock;
    std::vector<TarnWatch> watches;
    call = [&] {
      ++running;
      calls.signal();
      EXPECT_THAT([] { TarnWatcher::Destroy(); }, ThrowsTarn(111, HasSubstr("callback")));
      try {
        TarnWatch next = TarnWatcher::GetWatcher()->watch(object, call);
        const std::lock_guard guard(lock);
        watches.push_back(std::move(next));
      } catch (const TarnException& error) {
        EXPECT_EQ(error.getErrorID(), 111u);
      }
      --running;
    };
    TarnWatch first = watcher().watch(object, call);
    ASSERT_TRUE(calls.wait(kLong));
    TarnWatcher::Destroy();
    EXPECT_EQ(running, 0);
    EXPECT_FALSE(TarnWatcher::IsInitialized());
    const std::uint32_t count = calls.count();
    watches.clear();  // handles of a watcher that is gone
    EXPECT_EQ(calls.count(), count);
    TarnWatcher::Initialize(configuration().c_str());
  }
  stops = true;
}

TEST_F(WatcherTest, NothingIsWatchedOnceItIsTerminated) {
  Plain plain;
  goods::semaphore calls;
  const TarnWatch watch = watcher().watch(id("a~number"), [&] { calls.signal(); });
  watcher().terminate(true);
  EXPECT_THAT([&] { watcher().watch(id("a"), Plain::Call, &plain); },
              ThrowsTarn(111, HasSubstr("stopped")));
  manager().set("a~number", 2);
  TarnWatcher::Destroy();
  EXPECT_EQ(calls.count(), 0u);
}

}  // namespace
