#include "services/WatchedEvents.h"

#include <goods/cache_manager.h>
#include <goods/database.h>
#include <goods/task.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/services/DatabaseWorker.h>
#include <tarns/services/TarnWatcher.h>
#include <tarns/session/TarnAttachment.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarns {

namespace {

constexpr auto kPriority = static_cast<goods::task::priority>(2);
constexpr std::size_t kStackSize = 0x40000;  // bytes
constexpr int kMostAttempts = 100;           // to start a thread, with a pause after each
constexpr auto kAttemptPause = std::chrono::milliseconds(1);

// How many callbacks, or the ends of such, the calling thread is in.
thread_local int callbacksHere = 0;

class CallbackScope {
 public:
  CallbackScope() { ++callbacksHere; }
  ~CallbackScope() { --callbacksHere; }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;
};

}  // namespace

// Keeps close() from returning.
class WatchedEvents::Use {
 public:
  explicit Use(WatchedEvents& in) : in_(in) {}  // counted by the caller, under the lock
  ~Use() {
    const std::lock_guard guard(in_.lock_);
    --in_.uses_;
    in_.unused_.notify_all();
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  WatchedEvents& in_;
};

struct WatchedEvents::Execution {
  std::shared_ptr<WatchedEvents> events;
  std::uint64_t id;
  TarnWatcherEvent::Calls calls;
};

// ---- Watching

// A new event, or one that waits already, now with this callback.
WatchedEvents::Event WatchedEvents::join(std::uint64_t id, const CallBack& callBack, bool& isNew,
                                         bool& isAdded) {
  const std::lock_guard guard(lock_);
  if (isClosed_) {
    throw TarnException("The watcher has been stopped: nothing can be watched any more.",
                        ErrorID::BadUsage);
  }
  const XObject* const client = callBack.getClient();
  auto target = client != nullptr ? targets_.getNoFail(client) : nullptr;
  const auto found = events_.find(id);
  isNew = found == events_.end();
  Event event = isNew ? std::make_shared<TarnWatcherEvent>(*this, id) : found->second;
  isAdded = event->addCallback(callBack, std::move(target));
  if (isNew) {
    live_.emplace(event.get(), event);
    try {
      events_.emplace(id, event);
    } catch (...) {
      live_.erase(event.get());
      throw;
    }
  }
  ++uses_;
  return event;
}

void WatchedEvents::watch(std::uint64_t id, const CallBack& callBack,
                          std::optional<std::uint64_t> version) {
  bool isNew = false, isAdded = false;
  const Event event = join(id, callBack, isNew, isAdded);
  const Use use(*this);
  if (isNew) {
    arm(event);
  } else {
    event->waitUntilArmed();
  }
  if (!version) return;
  try {
    callIfChanged(event, callBack, *version);
  } catch (...) {
    if (isAdded) withdraw(event, callBack);
    throw;
  }
}

void WatchedEvents::arm(const Event& event) {
  try {
    worker_.execute(TarnWatcher::SignalEvent, event.get());
  } catch (...) {
    forget(*event);
    event->setArmed(std::current_exception());
    std::vector<const void*> unused;
    // Others that have joined it meanwhile fail as well.
    for (const auto& [client, target] : event->takeCalls().targets) unused.push_back(client);
    for (const void* const client : unused) targets_.removeUnused(client);
    throw;
  }
  event->setArmed();
  std::unique_lock guard(lock_);
  const bool wasGivenUp = !live_.contains(event.get());
  guard.unlock();
  if (wasGivenUp) giveUp(event);  // in between; or it has been signalled already
}

void WatchedEvents::callIfChanged(const Event& event, const CallBack& callBack,
                                  std::uint64_t version) {
  const std::uint64_t id = event->getObjectID();
  bool hasChanged = false;
  worker_.run([&](TarnManager& manager) {
    hasChanged = manager.db().session().may_have_changed(id, version);
  });
  if (!hasChanged) return;
  // Made before it is taken out of the event: then it is not lost when that fails.
  TarnWatcherEvent::Calls calls;
  calls.callBacks.add(callBack);
  std::shared_ptr<TarnWatcherTarget>& target = calls.targets[callBack.getClient()];
  Event empty;
  {
    const std::lock_guard guard(lock_);
    if (isClosed_ || !event->removeCallback(callBack, &target)) return;  // called, or withdrawn
    empty = takeIfEmpty(event);
  }
  if (empty != nullptr) giveUp(empty);
  {
    const std::lock_guard guard(lock_);  // close() is still waiting for watch()
    ++uses_;
  }
  execute(id, std::move(calls));
}

void WatchedEvents::withdraw(const Event& event, const CallBack& callBack) {
  Event empty;
  {
    const std::lock_guard guard(lock_);
    if (event->removeCallback(callBack)) empty = takeIfEmpty(event);
  }
  if (empty != nullptr) giveUp(empty);
  targets_.removeUnused(callBack.getClient());
}

// ---- Giving up

// With lock_. The event when nobody waits for it any more, which is forgotten then.
WatchedEvents::Event WatchedEvents::takeIfEmpty(const Event& event) {
  if (!event->isEmpty() || live_.erase(event.get()) == 0) return nullptr;
  const auto found = events_.find(event->getObjectID());
  if (found != events_.end() && found->second == event) events_.erase(found);
  return event;
}

void WatchedEvents::forget(const TarnWatcherEvent& event) {
  const std::lock_guard guard(lock_);
  live_.erase(&event);
  const auto found = events_.find(event.getObjectID());
  if (found != events_.end() && found->second.get() == &event) events_.erase(found);
}

void WatchedEvents::giveUp(const Event& event) {
  const bool isDone = worker_.useSession(
      [&](TarnManager& manager) { manager.db().session().withdraw_signal(event.get()); });
  if (isDone) return;
  const std::lock_guard guard(lock_);
  outlived_.push_back(event);
}

void WatchedEvents::removeEvent(std::uint64_t id) {
  const std::lock_guard guard(lock_);
  events_.erase(id);
}

// What the client's callbacks register while they are waited for goes as well.
void WatchedEvents::removeClient(const void* client) {
  do {
    std::vector<Event> concerned;
    std::unique_lock guard(lock_);
    for (const auto& [event, owner] : live_) {
      if (owner->removeCallback(client)) concerned.push_back(owner);
    }
    giveUpIfEmpty(concerned, std::move(guard));
    targets_.removeKey(client);
  } while (targets_.isRegistered(client));
}

void WatchedEvents::removeClient(const void* client, std::uint64_t id) {
  do {
    std::vector<Event> concerned;
    std::unique_lock guard(lock_);
    const auto found = events_.find(id);
    if (found != events_.end() && found->second->removeCallback(client)) {
      concerned.push_back(found->second);
    }
    giveUpIfEmpty(concerned, std::move(guard));
    targets_.removeKey(client);
  } while (targets_.isRegistered(client));
}

// Ends `guard`, which is of lock_.
void WatchedEvents::giveUpIfEmpty(const std::vector<Event>& events,
                                  std::unique_lock<std::mutex> guard) {
  std::vector<Event> empty;
  for (const Event& event : events) {
    if (Event one = takeIfEmpty(event)) empty.push_back(std::move(one));
  }
  if (empty.empty()) return;
  ++uses_;
  guard.unlock();
  const Use use(*this);
  for (const Event& event : empty) giveUp(event);
}

void WatchedEvents::VerifyOutsideCallbacks() {
  if (callbacksHere == 0) return;
  throw TarnException("A callback of the watcher cannot wait for the watcher's end.",
                      ErrorID::BadUsage);
}

void WatchedEvents::close(bool wait) {
  if (wait) VerifyOutsideCallbacks();
  decltype(live_) forgotten;
  {
    const std::lock_guard guard(lock_);
    isClosed_ = true;
    events_.clear();
    forgotten.swap(live_);
  }
  for (const auto& [event, owner] : forgotten) giveUp(owner);
  if (!wait) return;
  std::unique_lock guard(lock_);
  unused_.wait(guard, [this] { return uses_ == 0; });
}

// ---- Calling back

WatchedEvents::Event WatchedEvents::fired(TarnWatcherEvent& event) {
  Event owner;
  {
    const std::lock_guard guard(lock_);
    const auto live = live_.extract(&event);
    if (live.empty()) return nullptr;  // given up; whoever does that keeps it as long as needed
    owner = live.mapped();
    const auto found = events_.find(event.getObjectID());
    if (found != events_.end() && found->second == owner) events_.erase(found);
    if (isClosed_ || event.isEmpty()) return owner;
    ++uses_;
  }
  call(event);
  return owner;
}

// The caller has counted the use.
void WatchedEvents::call(TarnWatcherEvent& event) noexcept {
  try {
    execute(event.getObjectID(), event.takeCalls());
  } catch (const std::exception& error) {
    logFailure(event.getObjectID(), error.what());
  }
}

void WatchedEvents::callAll() {
  decltype(live_) waiting;
  std::vector<Event> outlived;
  {
    const std::lock_guard guard(lock_);
    outlived.swap(outlived_);
    if (isClosed_) return;
    events_.clear();
    waiting.swap(live_);
    uses_ += waiting.size();
  }
  for (const auto& [event, owner] : waiting) call(*owner);
}

// On a new thread. The caller has counted the use.
void WatchedEvents::execute(std::uint64_t id, TarnWatcherEvent::Calls calls) {
  std::unique_ptr<Execution> execution;
  try {
    execution = std::make_unique<Execution>(Execution{shared_from_this(), id, std::move(calls)});
  } catch (...) {
    const Use ended(*this);
    throw;
  }
  const auto run = [](void* argument) {
    std::unique_ptr<Execution> mine(static_cast<Execution*>(argument));
    const std::shared_ptr<WatchedEvents> events = mine->events;
    const Use use(*events);
    const CallbackScope within;
    events->executeCallbacks(mine->id, mine->calls);
    mine.reset();  // nothing of the calls is left when close() returns
  };
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    try {
      goods::task thread = goods::task::create(run, execution.get(), kPriority, kStackSize);
      (void)execution.release();
      thread.detach();
      return;
    } catch (...) {  // too many threads for now, or too little memory
      std::this_thread::sleep_for(kAttemptPause);
    }
  }
  // Rather late, and holding up others, than not at all.
  run(execution.release());
}

void WatchedEvents::executeCallbacks(std::uint64_t id, const TarnWatcherEvent::Calls& calls) {
  for (const CallBack& callBack : calls.callBacks) {
    const XObject* const client = callBack.getClient();
    if (client == nullptr) {
      callOne(id, callBack);
      continue;
    }
    const std::unique_ptr<TarnWatcherTargetLock> lock(lockTarget(client));
    const auto target = calls.targets.find(client);
    const bool isMeant =
        lock != nullptr && target != calls.targets.end() && lock->getTarget() == target->second;
    if (isMeant) callOne(id, callBack);
  }
}

void WatchedEvents::callOne(std::uint64_t id, const CallBack& callBack) {
  try {
    callBack.execute();
  } catch (const std::exception& error) {
    logFailure(id, error.what());
  } catch (...) {
    logFailure(id, "something that is no exception");
  }
}

void WatchedEvents::logFailure(std::uint64_t id, const char* why) noexcept {
  try {
    std::string name = "object " + std::to_string(goods::storage_of(id)) + ":" +
                       std::to_string(goods::number_of(id));
    try {
      worker_.useSession([&](TarnManager& manager) {
        const TarnAttachment attachment(manager);
        name = manager.db().session().name_of(id);
      });
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): the number will do
    }
    Log(Log::Error) << "A callback that watched " << name.c_str() << " failed: " << why;
  } catch (...) {  // NOLINT(bugprone-empty-catch): there is nobody to tell
  }
}

}  // namespace tarns
