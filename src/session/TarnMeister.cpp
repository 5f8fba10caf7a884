#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/session/TarnManagerPool.h>
#include <tarns/session/TarnMeister.h>

#include <exception>
#include <utility>

namespace tarns {

// Where a thread was before it came to a session, and so where it is to be afterwards. The stays of
// a thread form a chain, since that may be gone by then.
struct TarnMeister::Stay {
  std::weak_ptr<goods::cache_manager> session;  // of the TarnMeister
  bool hasFormer = false;
  std::weak_ptr<goods::cache_manager> former;
  std::shared_ptr<Stay> outer;  // of the one that was made before

  // Takes the place of outer stays that have ended while this one goes on.
  void skipEnded() {
    while (hasFormer && former.expired() && outer != nullptr && outer->session.expired()) {
      const std::shared_ptr<Stay> ended = std::move(outer);
      hasFormer = ended->hasFormer;
      former = ended->former;
      outer = ended->outer;
    }
  }
  std::shared_ptr<goods::cache_manager> findPlace() const {
    if (!hasFormer) return nullptr;
    if (auto place = former.lock()) return place;
    if (outer == nullptr) return nullptr;
    auto place = outer->session.lock();
    return place != nullptr ? place : outer->findPlace();
  }

  static thread_local std::weak_ptr<Stay> Innermost;
};

thread_local std::weak_ptr<TarnMeister::Stay> TarnMeister::Stay::Innermost;

std::shared_ptr<TarnMeister::Stay> TarnMeister::Begin() {
  TarnCacheManager::VerifyMayLeave();
  auto stay = std::make_shared<Stay>();
  if (goods::cache_manager* const former = goods::cache_manager::current()) {
    stay->hasFormer = true;
    stay->former = former->ticket();
  }
  stay->outer = Stay::Innermost.lock();
  if (stay->outer != nullptr) stay->outer->skipEnded();
  return stay;
}

// Leads the thread back, unless it has gone elsewhere meanwhile.
void TarnMeister::End(const std::shared_ptr<Stay>& stay) {
  stay->skipEnded();
  if (Stay::Innermost.lock() == stay) Stay::Innermost = stay->outer;
  if (goods::cache_manager::current() != nullptr) return;
  if (const auto place = stay->findPlace()) place->attach();
}

TarnMeister::TarnMeister(TarnManagerPool& pool) : TarnMeister(pool, pool.getWait()) {}

TarnMeister::TarnMeister(TarnManagerPool& pool, std::chrono::milliseconds limit)
    : pool_(pool), stay_(Begin()), session_(&pool.checkOut(limit)) {
  try {
    stay_->session = session_->db().getCacheManager().ticket();
    session_->attach();
  } catch (...) {
    checkIn();
    throw;
  }
  Stay::Innermost = stay_;
}

TarnMeister::~TarnMeister() { checkIn(); }

TarnDatabase& TarnMeister::db() const {
  if (session_ == nullptr) TarnException::ThrowDBuninitialized();
  return session_->db();
}

void TarnMeister::verifyIsInitialized() const {
  if (session_ == nullptr) TarnException::ThrowDBuninitialized();
  session_->verifyIsInitialized();
}

const char* TarnMeister::getDBconfigFilePath() const { return pool_.getDBconfigFilePath(); }

void TarnMeister::verifyMayConnect() const {
  throw TarnException("A session that was taken from a pool cannot be connected to a database.",
                      ErrorID::BadUsage);
}

void TarnMeister::markBroken() {
  verifyIsInitialized();
  pool_.markBroken(*session_);
}

void TarnMeister::checkIn() noexcept {
  if (session_ == nullptr) return;
  try {
    pool_.checkIn(*std::exchange(session_, nullptr));  // rolls back and detaches
  } catch (const std::exception& error) {
    Log(Log::Error) << "A session could not be returned to its pool: " << error.what();
  }
  try {
    End(std::exchange(stay_, nullptr));
  } catch (const std::exception& error) {
    Log(Log::Error) << "A thread could not be attached to what it was attached to before a session "
                       "of a pool: "
                    << error.what();
  }
}

}  // namespace tarns
