#include "goods/thread_attachment.h"

#include <goods/errors.h>

namespace goods {

transaction& thread_attachment::open_or_join(bool is_explicit) {
  if (pauses > 0)
    throw_error(error_code::usage,
                "Within outside_transaction() nothing is written, and no transaction begun.");
  if (transaction_ == nullptr) {
    transaction_ = std::make_unique<transaction>(*session_, locks_, known_, states_, is_explicit);
  } else if (is_explicit) {
    transaction_->verify_not_doomed();
    transaction_->join();
  }
  return *transaction_;
}

std::unique_ptr<transaction> thread_attachment::close_prepared() {
  try {
    transaction_->prepare();
  } catch (...) {
    transaction_.reset();
    throw;
  }
  return close();
}

void thread_attachment::leave_session() {
  transaction_.reset();
  states_.release_groups();
  session_ = nullptr;
}

}  // namespace goods
