#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/session/TarnManagerPool.h>
#include <tarns/session/TarnMeister.h>

#include <exception>
#include <utility>

namespace tarns {

TarnMeister::TarnMeister(TarnManagerPool& pool) : TarnMeister(pool, pool.getWait()) {}

TarnMeister::TarnMeister(TarnManagerPool& pool, std::chrono::milliseconds limit)
    : pool_(pool), session_(&pool.checkOut(limit)), former_(goods::cache_manager::current()) {
  try {
    attachment_.emplace(*session_);
  } catch (...) {
    checkIn();
    throw;
  }
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

void TarnMeister::markBroken() {
  verifyIsInitialized();
  pool_.markBroken(*session_);
}

void TarnMeister::checkIn() noexcept {
  if (session_ == nullptr) return;
  try {
    attachment_.reset();  // rolls back
    pool_.checkIn(*std::exchange(session_, nullptr));
    // The attachment cannot lead back from a session that was closed.
    if (former_ != nullptr && goods::cache_manager::current() == nullptr) former_->attach();
  } catch (const std::exception& error) {
    Log(Log::Error) << "A session could not be returned to its pool: " << error.what();
  }
}

}  // namespace tarns
