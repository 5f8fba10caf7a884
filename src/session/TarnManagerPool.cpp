#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/session/TarnManagerPool.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace tarns {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kMostSessions = 10'000;
// More could not be counted.
constexpr milliseconds kLongest = std::chrono::hours(24 * 365);
// For how long a session tries to connect before it looks whether the pool was shut down.
constexpr milliseconds kTry{50};
// After which the destructor tells whom it waits for.
constexpr std::chrono::seconds kFirstWord{1}, kNextWord{60};

[[noreturn]] void ThrowShutDown() {
  throw TarnException("The pool of sessions is shut down.", ErrorID::DBuninitialized);
}

[[noreturn]] void ThrowNoneFree(std::size_t largest, milliseconds limit) {
  TarnException error;
  error << "None of the " << largest << " sessions of the pool became free within "
        << static_cast<long long>(limit.count()) << " ms.";
  error.setErrorID(ErrorID::CannotConnect);
  throw error;
}

[[noreturn]] void ThrowNotCheckedOut() {
  throw TarnException("The session is not checked out of this pool.", ErrorID::BadUsage);
}

milliseconds Clamped(milliseconds limit) { return std::clamp(limit, milliseconds(0), kLongest); }

TarnPoolOptions Verified(TarnPoolOptions options) {
  options.wait = Clamped(options.wait);
  options.idle = Clamped(options.idle);
  if (options.largest > 0 && options.largest <= kMostSessions &&
      options.smallest <= options.largest) {
    return options;
  }
  TarnException error;
  error << "A pool cannot have at least " << options.smallest << " and at most " << options.largest
        << " sessions.";
  error.setErrorID(ErrorID::BadUsage);
  throw error;
}

// Has the calling thread attached in the end to what it is attached to now.
class KeptAttachment {
 public:
  KeptAttachment() : session_(goods::cache_manager::current()) {
    if (session_ != nullptr) ticket_ = session_->ticket();
  }
  ~KeptAttachment() {
    if (goods::cache_manager::current() == session_) return;
    goods::cache_manager::detach();
    if (const auto session = ticket_.lock()) session->attach();
  }
  KeptAttachment(const KeptAttachment&) = delete;
  KeptAttachment& operator=(const KeptAttachment&) = delete;

 private:
  goods::cache_manager* const session_;
  std::weak_ptr<goods::cache_manager> ticket_;
};

}  // namespace

// A thread is in a function of the pool that may use it after the last session was returned.
class TarnManagerPool::Call {
 public:
  explicit Call(TarnManagerPool& pool) : pool_(pool) {
    const std::lock_guard hold(pool_.lock_);
    ++pool_.calls_;
  }
  ~Call() {
    const std::lock_guard hold(pool_.lock_);
    --pool_.calls_;
    pool_.allReturned_.notify_all();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

 private:
  TarnManagerPool& pool_;
};

TarnManagerPool::TarnManagerPool(const char* configPath, TarnPoolOptions options)
    : configPath_(configPath != nullptr ? configPath : ""), options_(Verified(std::move(options))) {
  // A session on its way from one list to the other cannot be lost for want of memory.
  idle_.reserve(options_.largest);
  inUse_.reserve(options_.largest);
  const TimePoint deadline = Clock::now() + options_.wait;
  while (total_ < options_.smallest) {
    Session session;
    ++total_;
    make(session, deadline);
    session.returned = Clock::now();
    idle_.push_back(std::move(session));
  }
}

TarnManagerPool::~TarnManagerPool() {
  shutDown();
  std::unique_lock hold(lock_);
  std::chrono::seconds patience = kFirstWord;
  while (!allReturned_.wait_for(hold, patience, [this] { return total_ == 0 && calls_ == 0; })) {
    const std::string holders = describeHolders();
    hold.unlock();
    Log(Log::Warning) << "A pool of sessions on \"" << configPath_
                      << "\" cannot end before its sessions are returned: " << holders << ".";
    hold.lock();
    patience = kNextWord;
  }
}

// --- Making and closing sessions: without the mutex ---------------------------------------------

// For the room that total_ has for it, which it gives back when it throws.
void TarnManagerPool::make(Session& room, TimePoint deadline) {
  try {
    room.manager = std::make_unique<TarnManager>();
    connect(*room.manager, deadline);
    room.wasFailed = room.manager->db().has_failed();
    room.ticket = room.manager->db().getCacheManager().ticket();
    if (options_.prepare) prepare(room);
    room.settings = SettingsOf(*room.manager);
  } catch (...) {
    room.manager.reset();
    const std::lock_guard hold(lock_);
    giveBackRoom(room.generation);
    throw;
  }
  const std::lock_guard hold(lock_);
  ++figures_.made;
}

void TarnManagerPool::connect(TarnManager& manager, TimePoint deadline) const {
  const char* const libraries =
      options_.libraryPath.empty() ? nullptr : options_.libraryPath.c_str();
  manager.supportDependencies(options_.supportDependencies);
  for (;;) {
    {
      const std::lock_guard hold(lock_);
      if (isShutDown_) ThrowShutDown();
    }
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    try {
      manager.connect(configPath_.c_str(), std::clamp(left, milliseconds(0), kTry),
                      options_.loadDataLibraries, libraries);
      return;
    } catch (const TarnException& error) {
      if (error.getErrorID() != ErrorID::DatabaseInUse || left <= kTry) throw;
    }
  }
}

void TarnManagerPool::prepare(const Session& session) const {
  TarnCacheManager::VerifyMayLeave();
  const KeptAttachment kept;
  options_.prepare(*session.manager);
  if (!session.ticket.expired()) return;
  throw TarnException("A session was closed or connected anew by the function that prepares it.",
                      ErrorID::BadUsage);
}

TarnManagerPool::Settings TarnManagerPool::SettingsOf(const TarnManager& session) {
  const TarnCacheManager& cache = session.db().getCacheManager();
  return {cache.lock_timeout(), cache.transaction_limit(), cache.cache_limit(),
          cache.remembersValues()};
}

// Leaves nothing of the session's last user to the next one.
void TarnManagerPool::TidyUp(Session& session) {
  const auto used = session.ticket.lock();
  if (used == nullptr) return;  // closed, or connected anew
  try {
    if (goods::cache_manager::current() == used.get()) goods::cache_manager::detach();
    used->revoke_tickets();
    session.ticket = used->ticket();
    TarnCacheManager& cache = session.manager->db().getCacheManager();
    const Settings& settings = session.settings;
    cache.set_lock_timeout(settings.lockTimeout);
    cache.set_transaction_limit(settings.transactionLimit);
    if (cache.cache_limit() != settings.cacheLimit) cache.setCacheLimit(settings.cacheLimit);
    if (cache.remembersValues() != settings.remembersValues) {
      cache.rememberValues(settings.remembersValues);
    }
  } catch (const std::exception& error) {
    session.isBroken = true;
    Log(Log::Warning) << "A session of a pool is closed, since it could not be tidied up: "
                      << error.what();
  }
}

void TarnManagerPool::discard(Session session) {
  session.manager.reset();
  const std::lock_guard hold(lock_);
  giveBackRoom(session.generation);
}

// Closes idle sessions that are too many, or of no use any more.
void TarnManagerPool::closeStale() {
  for (;;) {
    Session stale;
    {
      const std::lock_guard hold(lock_);
      if (!takeStale(stale)) return;
    }
    discard(std::move(stale));
  }
}

// --- Under the mutex ----------------------------------------------------------------------------

bool TarnManagerPool::isUsable(const Session& session) const {
  return !session.isBroken && session.generation == generation_ && !session.ticket.expired();
}

// All sessions that there are, or for which there is room, become old.
void TarnManagerPool::startRenewal() {
  ++generation_;
  old_ = total_;
}

void TarnManagerPool::renewWhenFailed(const Session& session) {
  if (isUsable(session) && session.manager->db().has_failed()) startRenewal();
}

// A store that had failed when the session was made is not cured by making it anew, while somebody
// outside of the pool has it open.
void TarnManagerPool::renewWhenCurable(const Session& session) {
  if (!session.wasFailed) return renewWhenFailed(session);
  if (!isUsable(session)) return;
  const auto failed = session.manager->db().failed_storages();
  const auto isOurs = [this](const auto& storage) {
    return static_cast<std::size_t>(storage.use_count()) <= total_;
  };
  if (!failed.empty() && std::ranges::all_of(failed, isOurs)) startRenewal();
}

TarnManagerPool::Session* TarnManagerPool::find(const TarnManager& session) {
  const auto found = std::ranges::find_if(
      inUse_, [&](const Session& used) { return used.manager.get() == &session; });
  return found != inUse_.end() ? &*found : nullptr;
}

void TarnManagerPool::giveBackRoom(std::uint64_t generation) {
  --total_;
  if (generation != generation_) --old_;
  giveNext();
}

// Lets the threads that have waited longest go on, as far as there is something for them.
void TarnManagerPool::giveNext() {
  allReturned_.notify_all();
  while (!waiters_.empty() && !isShutDown_ && old_ == 0) {
    Waiter& waiter = *waiters_.front();
    if (!idle_.empty()) {
      waiter.session = std::move(idle_.back());
      idle_.pop_back();
    } else if (total_ < options_.largest) {
      ++total_;
      waiter.session.generation = generation_;
    } else {
      return;
    }
    waiter.isGiven = true;
    waiters_.pop_front();
    waiter.given.notify_one();
  }
}

bool TarnManagerPool::takeStale(Session& into) {
  const auto now = Clock::now();
  const bool areMany = idle_.size() + inUse_.size() > options_.smallest;
  const auto stale = std::ranges::find_if(idle_, [&](const Session& session) {
    const bool isTooOld = areMany && now - session.returned > options_.idle;
    return isShutDown_ || isTooOld || !isUsable(session);
  });
  if (stale == idle_.end()) return false;
  if (!isUsable(*stale)) ++figures_.replaced;
  into = std::move(*stale);
  idle_.erase(stale);
  return true;
}

std::string TarnManagerPool::describeHolders() const {
  if (inUse_.empty()) return "some are being closed";
  std::string text = "the threads that have taken them are";
  for (const Session& session : inUse_) text += ' ' + std::to_string(session.thread);
  return text;
}

// --- Check-out ----------------------------------------------------------------------------------

// A session, or the room for one that the caller is to make. `isFirst`: before all others that
// wait.
TarnManagerPool::Session TarnManagerPool::take(milliseconds limit, TimePoint deadline,
                                               bool isFirst) {
  std::unique_lock hold(lock_);
  if (isShutDown_) ThrowShutDown();
  if (!isFirst) ++figures_.checkOuts;
  Waiter waiter;
  const auto place = waiters_.insert(isFirst ? waiters_.begin() : waiters_.end(), &waiter);
  giveNext();
  if (!waiter.isGiven) {
    const auto start = Clock::now();
    ++figures_.waits;
    waiter.given.wait_until(hold, deadline, [&] { return waiter.isGiven || isShutDown_; });
    figures_.longestWait =
        std::max(figures_.longestWait,
                 std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
  }
  if (waiter.isGiven) return std::move(waiter.session);
  waiters_.erase(place);
  if (isShutDown_) ThrowShutDown();
  ++figures_.timeOuts;
  ThrowNoneFree(options_.largest, limit);
}

// Null when the session was closed, since it is of no use.
TarnManager* TarnManagerPool::handOut(Session session) {
  {
    const std::lock_guard hold(lock_);
    if (!session.wasFailed) renewWhenFailed(session);  // it can be read
    if (!isShutDown_ && isUsable(session)) {
      session.thread = ::gettid();
      inUse_.push_back(std::move(session));
      return inUse_.back().manager.get();
    }
    if (!isUsable(session)) ++figures_.replaced;
  }
  closeStale();
  discard(std::move(session));
  return nullptr;
}

TarnManager& TarnManagerPool::checkOut(milliseconds limit) {
  const Call call(*this);
  limit = Clamped(limit);
  const TimePoint deadline = Clock::now() + limit;
  for (bool isFirst = false;; isFirst = true) {
    Session session = take(limit, deadline, isFirst);
    if (session.manager == nullptr) make(session, deadline);
    if (TarnManager* const given = handOut(std::move(session))) return *given;
  }
}

// --- Check-in -----------------------------------------------------------------------------------

TarnManagerPool::Session TarnManagerPool::takeBack(const TarnManager& session) {
  const std::lock_guard hold(lock_);
  Session* const used = find(session);
  if (used == nullptr) ThrowNotCheckedOut();
  std::swap(*used, inUse_.back());
  Session returned = std::move(inUse_.back());
  inUse_.pop_back();
  return returned;
}

void TarnManagerPool::checkIn(TarnManager& session) {
  const Call call(*this);
  Session returned = takeBack(session);
  TidyUp(returned);
  {
    const std::lock_guard hold(lock_);
    renewWhenCurable(returned);
    const bool isGood = isUsable(returned);
    if (!isGood) ++figures_.replaced;
    if (isGood && !isShutDown_) {
      returned.returned = Clock::now();
      idle_.push_back(std::exchange(returned, Session{}));
      giveNext();
    }
  }
  closeStale();
  if (returned.manager != nullptr) discard(std::move(returned));
}

void TarnManagerPool::markBroken(TarnManager& session) {
  const std::lock_guard hold(lock_);
  Session* const used = find(session);
  if (used == nullptr) ThrowNotCheckedOut();
  used->isBroken = true;
}

void TarnManagerPool::renew() {
  const Call call(*this);
  {
    const std::lock_guard hold(lock_);
    startRenewal();
  }
  closeStale();
}

bool TarnManagerPool::shutDown(milliseconds limit) {
  {
    const std::lock_guard hold(lock_);
    isShutDown_ = true;
    for (Waiter* const waiter : waiters_) waiter->given.notify_one();
  }
  closeStale();
  std::unique_lock hold(lock_);
  return allReturned_.wait_for(hold, Clamped(limit), [this] { return total_ == 0; });
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
