#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/metaobject.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnTransaction.h>

#include <exception>

namespace tarns {

namespace {

void AttachTo(TarnManager& manager) {
  manager.verifyIsInitialized();
  manager.db().getCacheManager().verifyMayAttach();
  manager.attach();
}

}  // namespace

TarnTransaction::TarnTransaction() { begin(); }

TarnTransaction::TarnTransaction(TarnManager& manager) {
  AttachTo(manager);
  begin();
}

void TarnTransaction::begin() {
  exceptions_ = std::uncaught_exceptions();
  goods::pessimistic_scheme.begin_transaction();
  number_ = goods::cache_manager::require().transaction_number();
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

// The thread may have left the session, or ended the transaction by other means; another one may be
// open by now.
bool TarnTransaction::isTheOpenOne() const {
  const goods::cache_manager* const session = goods::cache_manager::current();
  return session != nullptr && session->transaction_number() == number_;
}

void TarnTransaction::commit() {
  if (!std::exchange(isOpen_, false) || !isTheOpenOne()) {
    goods::throw_error(goods::error_code::usage,
                       "The transaction cannot be committed: it has been ended before.");
  }
  goods::pessimistic_scheme.end_transaction();
}

void TarnTransaction::rollback() noexcept {
  if (!std::exchange(isOpen_, false) || !isTheOpenOne()) return;
  goods::pessimistic_scheme.abort_transaction();
}

}  // namespace tarns
