#include "goods/number_pool.h"

#include <algorithm>
#include <utility>

#include <goods/kept_numbers.h>

namespace goods {

number_pool::~number_pool() {
  for (const range& unused : begun_) storage_.give_back({unused.next, unused.left});
  for (const range& unused : {again_, fresh_})
    if (unused.left != 0) storage_.give_back({unused.next, unused.left});
}

number_pool::range number_pool::take() {
  const std::lock_guard guard(lock_);
  const std::size_t all = begun_.size() + taken_.size() + 1;
  if (begun_.capacity() < all) begun_.reserve(2 * all);
  if (begun_.empty()) begin_range();
  const range next = begun_.back();
  taken_.insert(neighbours::group_of(next.next));
  begun_.pop_back();
  return next;
}

// Up to where the storage's next group of neighbours begins.
void number_pool::begin_range() {
  if (again_.left == 0) reuse();
  range& from = again_.left != 0 ? again_ : fresh_;
  if (from.left == 0) {
    from = {storage_.allocate(block_), block_};
    block_ = std::min(block_ * 2, largest_block);
  }
  const std::uint32_t count = std::min(from.left, neighbours::most - from.next % neighbours::most);
  begun_.push_back({from.next, count});
  from.next += count;
  from.left -= count;
}

void number_pool::reuse() {
  const number_range more = storage_.reuse(most_at_once);
  // Asked afterwards: whoever comes later cannot know what has been removed by now.
  if (more.count != 0 && kept_numbers::is_any()) return storage_.give_back(more);
  again_ = {more.first, more.count};
}

void number_pool::put_back(range left, object_number group) noexcept {
  const std::lock_guard guard(lock_);
  taken_.erase(group);
  if (left.left != 0) begun_.push_back(left);
}

bool number_pool::has(object_number group) const {
  const auto touches = [group](const range& some) {
    return some.left != 0 && neighbours::group_of(some.next) <= group &&
           group <= neighbours::group_of(some.next + (some.left - 1));
  };
  const std::lock_guard guard(lock_);
  return touches(again_) || touches(fresh_) || taken_.contains(group) ||
         std::ranges::any_of(begun_, touches);
}

// The first ranges are the next to be taken again.
number_run::~number_run() {
  for (auto used = used_.rbegin(); used != used_.rend(); ++used) {
    number_pool::range left{};
    if (is_withdrawn_)
      left = *used;
    else if (used == used_.rbegin())
      left = range_;
    pool_.put_back(left, neighbours::group_of(used->next));
  }
}

object_number number_run::next() {
  if (range_.left == 0) {
    if (used_.size() == used_.capacity()) used_.reserve(2 * used_.size() + 1);
    range_ = pool_.take();
    used_.push_back(range_);
    groups_.insert(neighbours::group_of(range_.next));
  }
  --range_.left;
  return range_.next++;
}

}  // namespace goods
