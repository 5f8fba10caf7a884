#include <tarns/services/TarnWatcherTarget.h>

#include <algorithm>
#include <utility>

namespace tarns {

namespace {

// The targets that the calling thread has locked.
std::vector<const TarnWatcherTarget*>& LockedHere() {
  thread_local std::vector<const TarnWatcherTarget*> locked;
  return locked;
}

}  // namespace

TarnWatcherTargetLock::TarnWatcherTargetLock(std::shared_ptr<TarnWatcherTarget> target)
    : target_(std::move(target)) {
  target_->lockTarget();
}

TarnWatcherTargetLock::~TarnWatcherTargetLock() { target_->unlockTarget(); }

TarnWatcherTarget::~TarnWatcherTarget() { waitUntilFree(); }

void TarnWatcherTarget::lockTarget() {
  LockedHere().push_back(this);
  const std::lock_guard guard(lock_);
  ++count_;
}

void TarnWatcherTarget::unlockTarget() {
  auto& here = LockedHere();
  const auto found = std::ranges::find(here, this);
  if (found != here.end()) here.erase(found);
  const std::lock_guard guard(lock_);
  --count_;
  unlocked_.notify_all();
}

bool TarnWatcherTarget::isFree() {
  const std::lock_guard guard(lock_);
  return count_ == 0;
}

void TarnWatcherTarget::waitUntilFree() {
  const auto own = static_cast<std::uint32_t>(std::ranges::count(LockedHere(), this));
  std::unique_lock guard(lock_);
  unlocked_.wait(guard, [&] { return count_ <= own; });
}

std::shared_ptr<TarnWatcherTarget> Uint32ToTarnWatcherTargetMap::getNoFail(const void* client) {
  const std::lock_guard guard(lock_);
  const auto found = targets_.find(client);
  if (found != targets_.end()) return found->second;
  return targets_.emplace(client, std::make_shared<TarnWatcherTarget>())->second;
}

bool Uint32ToTarnWatcherTargetMap::isRegistered(const void* client) {
  const std::lock_guard guard(lock_);
  return targets_.contains(client);
}

TarnWatcherTargetLock* Uint32ToTarnWatcherTargetMap::getLock(const void* client) {
  const std::lock_guard guard(lock_);
  const auto found = targets_.find(client);
  if (found == targets_.end()) return nullptr;
  return new TarnWatcherTargetLock(found->second);
}

void Uint32ToTarnWatcherTargetMap::removeKey(const void* client) {
  std::vector<std::shared_ptr<TarnWatcherTarget>> mine;
  std::unique_lock guard(lock_);
  if (auto node = targets_.extract(client)) leaving_.insert(std::move(node));
  const auto [first, last] = leaving_.equal_range(client);
  for (auto one = first; one != last; ++one) mine.push_back(one->second);
  guard.unlock();
  for (const auto& target : mine) target->waitUntilFree();
  guard.lock();
  // What the calling thread itself is in stays: others wait for that.
  std::erase_if(leaving_, [](const auto& entry) { return entry.second->isFree(); });
}

}  // namespace tarns
