#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/metaobject.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnTransaction.h>

#include <exception>

namespace tarns {

namespace {

// How often the calling thread has rolled back: by this an outer transaction knows that an inner
// one has ended it.
unsigned long& Rollbacks() {
  thread_local unsigned long count = 0;
  return count;
}

goods::cache_manager& AttachedTo(TarnManager& manager) {
  manager.verifyIsInitialized();
  TarnCacheManager& session = manager.db().getCacheManager();
  session.verifyMayAttach();
  manager.attach();
  return session;
}

}  // namespace

TarnTransaction::TarnTransaction() : session_(goods::cache_manager::require()) { begin(); }

TarnTransaction::TarnTransaction(TarnManager& manager) : session_(AttachedTo(manager)) { begin(); }

void TarnTransaction::begin() {
  exceptions_ = std::uncaught_exceptions();
  goods::pessimistic_scheme.begin_transaction();
  rollbacks_ = Rollbacks();
  isOpen_ = true;
}

TarnTransaction::~TarnTransaction() noexcept(false) {
  if (!isOpen_) return;
  if (std::uncaught_exceptions() > exceptions_) {
    rollback();
  } else {
    commit();
  }
}

void TarnTransaction::commit() {
  const bool wasOpen = std::exchange(isOpen_, false);
  if (!wasOpen || rollbacks_ != Rollbacks() || !session_.in_transaction()) {
    goods::throw_error(goods::error_code::usage,
                       "The transaction cannot be committed: it has been ended before.");
  }
  goods::pessimistic_scheme.end_transaction();
}

void TarnTransaction::rollback() noexcept {
  if (!std::exchange(isOpen_, false) || rollbacks_ != Rollbacks()) return;
  ++Rollbacks();
  goods::pessimistic_scheme.abort_transaction();
}

}  // namespace tarns
