#include <tarns/services/TarnWatcherEvent.h>

#include <algorithm>
#include <utility>

#include "services/WatchedEvents.h"

namespace tarns {

TarnWatcherEvent::TarnWatcherEvent(WatchedEvents& events, std::uint64_t objectID)
    : events_(events), objectID_(objectID) {}

TarnWatcherEvent::~TarnWatcherEvent() = default;

void TarnWatcherEvent::addCallback(CallBack::Function function, const void* argument) {
  addCallback(CallBack(function, argument), nullptr);
}

void TarnWatcherEvent::addCallback(XObject* client, CallBack::Method method, const void* argument,
                                   std::shared_ptr<TarnWatcherTarget> target) {
  addCallback(CallBack(client, method, argument), std::move(target));
}

bool TarnWatcherEvent::addCallback(const CallBack& callBack,
                                   std::shared_ptr<TarnWatcherTarget> target) {
  const std::lock_guard guard(lock_);
  if (target != nullptr) calls_.targets[callBack.getClient()] = std::move(target);
  return calls_.callBacks.add(callBack);
}

bool TarnWatcherEvent::removeCallback(const void* client) {
  const std::lock_guard guard(lock_);
  calls_.targets.erase(client);
  return calls_.callBacks.removeFor(client) > 0;
}

bool TarnWatcherEvent::removeCallback(const CallBack& callBack,
                                      std::shared_ptr<TarnWatcherTarget>* target) {
  const std::lock_guard guard(lock_);
  if (!calls_.callBacks.remove(callBack)) return false;
  const XObject* const client = callBack.getClient();
  const auto known = calls_.targets.find(client);
  if (known == calls_.targets.end()) return true;
  if (target != nullptr) *target = known->second;
  const bool isLast = std::none_of(calls_.callBacks.begin(), calls_.callBacks.end(),
                                   [&](const CallBack& one) { return one.getClient() == client; });
  if (isLast) calls_.targets.erase(known);
  return true;
}

bool TarnWatcherEvent::isEmpty() const {
  const std::lock_guard guard(lock_);
  return calls_.callBacks.getCount() == 0;
}

TarnWatcherEvent::Calls TarnWatcherEvent::takeCalls() {
  const std::lock_guard guard(lock_);
  return std::exchange(calls_, {});
}

void TarnWatcherEvent::signal() {
  const auto self = events_.fired(*this);  // goes at the end, and the event with it
  event::signal();
}

void TarnWatcherEvent::setArmed(std::exception_ptr failure) {
  const std::lock_guard guard(lock_);
  isArmed_ = true;
  failure_ = std::move(failure);
  armed_.notify_all();
}

void TarnWatcherEvent::waitUntilArmed() {
  std::unique_lock guard(lock_);
  armed_.wait(guard, [this] { return isArmed_; });
  if (failure_) std::rethrow_exception(failure_);
}

}  // namespace tarns
