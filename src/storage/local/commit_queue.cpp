#include "storage/local/commit_queue.h"

#include <algorithm>

namespace goods {
namespace {

// One group does not grow beyond this, unless by a single commit.
constexpr std::size_t largest_group = std::size_t{32} << 20;  // bytes

constexpr std::chrono::nanoseconds longest_gathering = std::chrono::milliseconds(1);
// Less is not worth going to sleep for.
constexpr std::chrono::nanoseconds shortest_gathering = std::chrono::microseconds(20);
constexpr unsigned most_in_vain = 6;  // then one more is waited for with every 64th group

std::size_t size_of(const commit_request& request) {
  std::size_t size = 0;
  for (const object_change& change : request.changes) size += sizeof change + change.body.size();
  return size;
}

}  // namespace

commit_version commit_queue::commit(const commit_request& request) {
  waiting self;
  self.request = &request;
  bool leads = false;
  {
    guarded_scope scope(lock_);
    queue_.push_back(&self);
    if (has_leader_) {
      if (gathered_for_ != 0 && queue_.size() >= gathered_for_) gathered_.notify_one();
      while (!self.done && !self.leads) self.wake.wait(lock_);
      leads = self.leads;
    } else {
      has_leader_ = leads = true;
    }
  }
  if (leads) lead(self);
  if (self.failure) std::rethrow_exception(self.failure);
  return self.version;
}

std::vector<queued_commit*> commit_queue::take_group() {
  std::size_t size = 0, count = 0;
  while (count < queue_.size()) {
    size += size_of(*queue_[count]->request);
    if (count != 0 && size > largest_group) break;
    ++count;
  }
  const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(count);
  std::vector<queued_commit*> group(queue_.begin(), end);
  queue_.erase(queue_.begin(), end);
  return group;
}

void commit_queue::gather() {
  guarded_scope scope(lock_);
  const bool tries_one_more = patience_ == 0;
  if (patience_ > 0) --patience_;
  const std::size_t wanted = std::min(expected_, together_ + (tries_one_more ? 1 : 0));
  const std::chrono::nanoseconds limit = std::min(flush_ / 2, longest_gathering);
  const auto until = written_at_ + limit;
  if (queue_.size() >= wanted || limit < shortest_gathering || clock::now() >= until) return;
  gathered_for_ = wanted;
  while (queue_.size() < wanted && gathered_.wait_until(lock_, until) == std::cv_status::no_timeout)
    continue;
  gathered_for_ = 0;
  in_vain_ = queue_.size() >= wanted ? 0 : std::min(in_vain_ + 1, most_in_vain);
  patience_ = (1U << in_vain_) - 1;
}

void commit_queue::note_written(std::size_t group, std::chrono::nanoseconds took) {
  flush_ = flush_.count() == 0 ? took : (flush_ * 7 + took) / 8;
  written_at_ = clock::now();
  together_ = group;
  // Who waits already has not been in it.
  expected_ = group + queue_.size();
}

void commit_queue::lead(waiting& self) {
  gather();
  // Until the turn comes, others join.
  writer_turn::hold turn(turn_);
  std::vector<queued_commit*> group;
  try {
    guarded_scope scope(lock_);
    group = take_group();
  } catch (...) {  // out of memory
    leave_queue(self);
    throw;
  }
  const auto begin = clock::now();
  write_(group);

  guarded_scope scope(lock_);
  note_written(group.size(), clock::now() - begin);
  for (queued_commit* member : group) {
    auto* const waiter = static_cast<waiting*>(member);
    waiter->done = true;
    waiter->wake.notify_one();
  }
  hand_over();
}

// The others may have more luck.
void commit_queue::leave_queue(waiting& self) noexcept {
  guarded_scope scope(lock_);
  std::erase(queue_, &self);
  hand_over();
}

void commit_queue::hand_over() noexcept {
  has_leader_ = !queue_.empty();
  if (!has_leader_) return;
  queue_.front()->leads = true;
  queue_.front()->wake.notify_one();
}

}  // namespace goods
