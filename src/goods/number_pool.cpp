#include "goods/number_pool.h"

#include <algorithm>
#include <utility>

namespace goods {

number_pool::range number_pool::take() {
  const std::lock_guard guard(lock_);
  if (!begun_.empty()) {
    const range last = begun_.back();
    begun_.pop_back();
    return last;
  }
  if (fresh_.next == fresh_.end) {
    fresh_.next = storage_.allocate(block_);
    fresh_.end = fresh_.next + block_;
    block_ = std::min(block_ * 2, largest_block);
  }
  // Up to where the storage's next group of neighbours begins.
  const object_number end =
      std::min<object_number>(fresh_.end, (fresh_.next / neighbours + 1) * neighbours);
  return {std::exchange(fresh_.next, end), end};
}

void number_pool::give_back(range unused) {
  const std::lock_guard guard(lock_);
  begun_.push_back(unused);
}

}  // namespace goods
