#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/session/TarnManagerPool.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace tarns {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void ThrowShutDown() {
  throw TarnException("The pool of sessions is shut down.", ErrorID::DBuninitialized);
}

[[noreturn]] void ThrowNoneFree(std::size_t largest, std::chrono::milliseconds limit) {
  TarnException error;
  error << "None of the " << largest << " sessions of the pool became free within "
        << static_cast<long long>(limit.count()) << " ms.";
  error.setErrorID(ErrorID::CannotConnect);
  throw error;
}

[[noreturn]] void ThrowNotCheckedOut() {
  throw TarnException("The session is not checked out of this pool.", ErrorID::BadUsage);
}

bool IsOpen(const TarnManager& session) {
  try {
    session.verifyIsInitialized();
    return session.db().is_open();
  } catch (const TarnException&) {
    return false;  // somebody has tried to connect it elsewhere
  }
}

void VerifyOptions(const TarnPoolOptions& options) {
  if (options.largest > 0 && options.smallest <= options.largest) return;
  TarnException error;
  error << "A pool cannot have at least " << options.smallest << " and at most " << options.largest
        << " sessions.";
  error.setErrorID(ErrorID::BadUsage);
  throw error;
}

}  // namespace

TarnManagerPool::TarnManagerPool(const char* configPath, TarnPoolOptions options)
    : configPath_(configPath != nullptr ? configPath : ""), options_(std::move(options)) {
  VerifyOptions(options_);
  for (; total_ < options_.smallest; ++total_) {
    idle_.push_back(make());
    idle_.back().returned = Clock::now();
    ++figures_.made;
  }
}

TarnManagerPool::~TarnManagerPool() {
  shutDown();
  std::unique_lock hold(lock_);
  allReturned_.wait(hold, [this] { return total_ == 0 && waiters_.empty(); });
}

// --- Making and closing sessions: without the mutex ---------------------------------------------

TarnManagerPool::Session TarnManagerPool::make() const {
  Session session;
  session.manager = std::make_unique<TarnManager>();
  session.manager->connect(configPath_.c_str(), options_.wait);
  if (options_.prepare) options_.prepare(*session.manager);
  return session;
}

// For the room that total_ has for it.
TarnManagerPool::Session TarnManagerPool::makeOrGiveUp() {
  try {
    std::uint64_t generation = 0;
    {
      const std::lock_guard hold(lock_);
      generation = generation_;
    }
    Session session = make();
    session.generation = generation;
    const std::lock_guard hold(lock_);
    ++figures_.made;
    return session;
  } catch (...) {
    const std::lock_guard hold(lock_);
    --total_;
    giveNext();
    throw;
  }
}

void TarnManagerPool::Close(std::vector<Session> sessions) noexcept {
  for (Session& session : sessions) {
    try {
      session.manager.reset();
    } catch (const std::exception& error) {
      Log(Log::Warning) << "A session of a pool could not be closed well: " << error.what();
    }
  }
}

void TarnManagerPool::discard(Session session) {
  std::vector<Session> closing;
  closing.push_back(std::move(session));
  Close(std::move(closing));
  const std::lock_guard hold(lock_);
  --total_;
  giveNext();
}

// --- Under the mutex ----------------------------------------------------------------------------

bool TarnManagerPool::isUsable(const Session& session) const {
  return !session.isBroken && session.generation == generation_ && IsOpen(*session.manager);
}

TarnManagerPool::Session* TarnManagerPool::find(const TarnManager& session) {
  const auto found = std::ranges::find_if(
      inUse_, [&](const Session& used) { return used.manager.get() == &session; });
  return found != inUse_.end() ? &*found : nullptr;
}

// Lets the thread that has waited longest go on, when there is something for it.
void TarnManagerPool::giveNext() {
  allReturned_.notify_all();
  if (waiters_.empty() || isShutDown_) return;
  Waiter& waiter = *waiters_.front();
  if (!idle_.empty()) {
    waiter.session = std::move(idle_.back());
    idle_.pop_back();
  } else if (total_ < options_.largest) {
    ++total_;
    waiter.mayMake = true;
  } else {
    return;
  }
  waiters_.pop_front();
  waiter.given.notify_one();
}

// Idle sessions that are too many, or of no use any more.
std::vector<TarnManagerPool::Session> TarnManagerPool::takeStale() {
  std::vector<Session> stale;
  const auto now = Clock::now();
  for (std::size_t i = 0; i < idle_.size();) {
    const bool isTooOld = now - idle_[i].returned > options_.idle;
    const bool isTooMany = total_ - stale.size() > options_.smallest;
    if (!isShutDown_ && isUsable(idle_[i]) && !(isTooOld && isTooMany)) {
      ++i;
      continue;
    }
    if (!isUsable(idle_[i])) ++figures_.replaced;
    stale.push_back(std::move(idle_[i]));
    idle_.erase(idle_.begin() + static_cast<std::ptrdiff_t>(i));
  }
  return stale;
}

TarnManagerPool::Wait TarnManagerPool::waitFor(Waiter& waiter, std::chrono::milliseconds limit,
                                               std::unique_lock<std::mutex>& hold) {
  const auto isGiven = [&] { return waiter.session.manager != nullptr || waiter.mayMake; };
  const auto start = Clock::now();
  const auto place = waiters_.insert(waiters_.end(), &waiter);
  ++figures_.waits;
  // Longer limits than the clock can count to are no limit.
  const auto longest = std::chrono::milliseconds(std::chrono::hours(24 * 365));
  waiter.given.wait_until(hold, start + std::min(limit, longest),
                          [&] { return isGiven() || isShutDown_; });
  figures_.longestWait =
      std::max(figures_.longestWait,
               std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
  if (isGiven()) return Wait::kGiven;  // whatever else has happened
  waiters_.erase(place);
  allReturned_.notify_all();
  if (isShutDown_) return Wait::kShutDown;
  ++figures_.timeOuts;
  return Wait::kTimeOut;
}

// --- Check-out ----------------------------------------------------------------------------------

// A session, or an empty one for which the caller may make one.
TarnManagerPool::Session TarnManagerPool::take(std::chrono::milliseconds limit) {
  std::unique_lock hold(lock_);
  if (isShutDown_) ThrowShutDown();
  ++figures_.checkOuts;
  if (waiters_.empty() && !idle_.empty()) {
    Session session = std::move(idle_.back());
    idle_.pop_back();
    return session;
  }
  if (waiters_.empty() && total_ < options_.largest) {
    ++total_;
    return {};
  }
  Waiter waiter;
  switch (waitFor(waiter, limit, hold)) {
    case Wait::kShutDown:
      ThrowShutDown();
    case Wait::kTimeOut:
      ThrowNoneFree(options_.largest, limit);
    case Wait::kGiven:
      break;
  }
  return std::move(waiter.session);
}

TarnManager& TarnManagerPool::handOut(Session session) {
  const std::lock_guard hold(lock_);
  inUse_.push_back(std::move(session));
  return *inUse_.back().manager;
}

TarnManager& TarnManagerPool::checkOut(std::chrono::milliseconds limit) {
  Session session = take(limit);
  bool isBroken = false;
  if (session.manager != nullptr) {
    const std::lock_guard hold(lock_);
    isBroken = !isUsable(session);
    if (isBroken) ++figures_.replaced;
  }
  if (isBroken) {
    std::vector<Session> closing;
    closing.push_back(std::exchange(session, Session{}));
    Close(std::move(closing));
  }
  return handOut(session.manager != nullptr ? std::move(session) : makeOrGiveUp());
}

// --- Check-in -----------------------------------------------------------------------------------

void TarnManagerPool::checkIn(TarnManager& session) {
  {
    const std::lock_guard hold(lock_);
    if (find(session) == nullptr) ThrowNotCheckedOut();
  }
  if (IsOpen(session) && goods::cache_manager::current() == &session.db().getCacheManager()) {
    goods::cache_manager::detach();  // rolls back
  }
  Session returned;
  bool isKept = false;
  {
    const std::lock_guard hold(lock_);
    Session* const used = find(session);
    if (used == nullptr) ThrowNotCheckedOut();
    returned = std::move(*used);
    *used = std::move(inUse_.back());
    inUse_.pop_back();
    isKept = isUsable(returned);
    if (!isKept) ++figures_.replaced;
    isKept = isKept && !isShutDown_;
  }
  if (isKept) {
    put(std::move(returned));
  } else {
    discard(std::move(returned));
  }
}

void TarnManagerPool::put(Session session) {
  std::vector<Session> stale;
  {
    const std::lock_guard hold(lock_);
    session.returned = Clock::now();
    idle_.push_back(std::move(session));
    giveNext();
    stale = takeStale();
  }
  for (Session& old : stale) discard(std::move(old));
}

void TarnManagerPool::markBroken(TarnManager& session) {
  const std::lock_guard hold(lock_);
  Session* const used = find(session);
  if (used == nullptr) ThrowNotCheckedOut();
  used->isBroken = true;
}

void TarnManagerPool::renew() {
  std::vector<Session> stale;
  {
    const std::lock_guard hold(lock_);
    ++generation_;
    stale = takeStale();
  }
  for (Session& old : stale) discard(std::move(old));
}

bool TarnManagerPool::shutDown(std::chrono::milliseconds limit) {
  std::vector<Session> stale;
  {
    const std::lock_guard hold(lock_);
    isShutDown_ = true;
    for (Waiter* const waiter : waiters_) waiter->given.notify_one();
    stale = takeStale();
  }
  for (Session& old : stale) discard(std::move(old));
  std::unique_lock hold(lock_);
  return allReturned_.wait_for(hold, limit, [this] { return total_ == 0; });
}

TarnPoolFigures TarnManagerPool::getFigures() const {
  const std::lock_guard hold(lock_);
  TarnPoolFigures figures = figures_;
  figures.inUse = inUse_.size();
  figures.idle = idle_.size();
  figures.waiting = waiters_.size();
  return figures;
}

}  // namespace tarns
