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

std::uint32_t TarnWatcherTarget::ownCount() const {
  return static_cast<std::uint32_t>(std::ranges::count(LockedHere(), this));
}

void TarnWatcherTarget::beginWaitingWithin(std::uint32_t own) {
  const std::lock_guard guard(lock_);
  waitingWithin_ += own;
  unlocked_.notify_all();
}

void TarnWatcherTarget::endWaitingWithin(std::uint32_t own) {
  const std::lock_guard guard(lock_);
  waitingWithin_ -= own;
}

// Who is in no callback of the client holds up none, and waits for all of them.
void TarnWatcherTarget::waitUntilFree(bool isWithin) {
  std::unique_lock guard(lock_);
  unlocked_.wait(guard, [&] { return count_ <= (isWithin ? waitingWithin_ : 0); });
}

void TarnWatcherTarget::waitUntilFree() {
  const std::uint32_t own = ownCount();
  beginWaitingWithin(own);
  waitUntilFree(own > 0);
  endWaitingWithin(own);
}

// Waits for none before it is known to all that the thread waits: a callback of an earlier
// registration may wait for one of a later one, and the other way round.
void TarnWatcherTarget::WaitUntilAllFree(
    std::span<const std::shared_ptr<TarnWatcherTarget>> ofOneClient) {
  bool isWithin = false;
  for (const auto& target : ofOneClient) {
    const std::uint32_t own = target->ownCount();
    target->beginWaitingWithin(own);
    isWithin |= own > 0;
  }
  for (const auto& target : ofOneClient) target->waitUntilFree(isWithin);
  for (const auto& target : ofOneClient) target->endWaitingWithin(target->ownCount());
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
  TarnWatcherTarget::WaitUntilAllFree(mine);
  guard.lock();
  // What the calling thread itself is in stays: others wait for that.
  std::erase_if(leaving_, [](const auto& entry) { return entry.second->isFree(); });
}

void Uint32ToTarnWatcherTargetMap::removeUnused(const void* client) {
  const std::lock_guard guard(lock_);
  const auto found = targets_.find(client);
  if (found != targets_.end() && found->second.use_count() == 1) targets_.erase(found);
}

}  // namespace tarns
