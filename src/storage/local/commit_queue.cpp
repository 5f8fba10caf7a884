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
  if (leads) lead();
  if (self.failure) std::rethrow_exception(self.failure);
  return self.version;
}

std::vector<commit_queue::waiting*> commit_queue::take_group() {
  std::size_t size = 0, count = 0;
  while (count < queue_.size()) {
    size += size_of(*queue_[count]->request);
    if (count != 0 && size > largest_group) break;
    ++count;
  }
  const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(count);
  std::vector<waiting*> group(queue_.begin(), end);
  queue_.erase(queue_.begin(), end);
  return group;
}

void commit_queue::lead() {
  // Until the turn comes, others join.
  writer_turn::hold turn(turn_);
  std::vector<waiting*> group;
  {
    guarded_scope scope(lock_);
    group = take_group();
  }
  const std::vector<queued_commit*> members(group.begin(), group.end());
  write_(members);

  guarded_scope scope(lock_);
  for (waiting* member : group) {
    member->done = true;
    member->wake.notify_one();
  }
  has_leader_ = !queue_.empty();
  if (!has_leader_) return;
  queue_.front()->leads = true;
  queue_.front()->wake.notify_one();
}

}  // namespace goods
