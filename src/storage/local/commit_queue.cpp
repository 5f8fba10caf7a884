#include "storage/local/commit_queue.h"

namespace goods {
namespace {

// One group does not grow beyond this, unless by a single commit.
constexpr std::size_t largest_group = std::size_t{32} << 20;  // bytes

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

void commit_queue::lead(waiting& self) {
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
  write_(group);

  guarded_scope scope(lock_);
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
