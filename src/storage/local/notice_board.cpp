#include "storage/local/notice_board.h"

#include <algorithm>
#include <list>
#include <new>
#include <unordered_map>
#include <utility>

namespace goods {
namespace {

using notice_list = std::vector<std::shared_ptr<const notice>>;
using notice_queue = std::list<std::shared_ptr<const notice>>;

// Untaken notices beyond this many are merged where that is allowed.
constexpr std::size_t merge_above = 4096;

std::vector<object_number> numbers_to_tell(const commit_request& request) {
  std::vector<object_number> numbers;
  numbers.reserve(request.changes.size());
  for (const object_change& change : request.changes)
    if (!change.is_new) numbers.push_back(change.number);
  return numbers;
}

void finish_merged(notice& merged) {
  std::ranges::sort(merged.changed);
  merged.changed.erase(std::unique(merged.changed.begin(), merged.changed.end()),
                       merged.changed.end());
}

// Makes one of each run of notices that are not of `origin`.
notice_queue merge_foreign(const notice_queue& list, const void* origin) {
  notice_queue result;
  std::shared_ptr<notice> merged;
  for (const auto& next : list) {
    if (next->origin == origin) {
      if (merged) finish_merged(*merged);
      merged.reset();
      result.push_back(next);
      continue;
    }
    if (!merged) {
      merged = std::make_shared<notice>();
      result.push_back(merged);
    }
    merged->version = next->version;
    merged->changed.insert(merged->changed.end(), next->changed.begin(), next->changed.end());
  }
  if (merged) finish_merged(*merged);
  return result;
}

}  // namespace

struct notice_board::shared_part {
  // Not needed to queue notices: whoever listens holds up nobody but who tells.
  guarded_mutex telling;
  std::unordered_map<const subscription*, commit_listener*> listeners GUARDED_BY(telling);
  std::atomic<bool> has_listeners{false};  // written under telling

  guarded_mutex lock;
  std::vector<subscription*> subscriptions GUARDED_BY(lock);
  commit_version newest GUARDED_BY(lock) = 0;
  // Prepared. Attachments go to the subscriptions of their origin and to those that want all.
  notice_list plain GUARDED_BY(lock), complete GUARDED_BY(lock);

  notice_queue prepared_for(const void* origin) const REQUIRES(lock) {
    notice_queue result;
    for (std::size_t i = 0; i < complete.size(); ++i) {
      const bool is_own = origin == nullptr || plain[i]->origin == origin;
      result.push_back(is_own ? complete[i] : plain[i]);
    }
    return result;
  }
};

class notice_board::subscription : public notice_subscription {
 public:
  subscription(std::shared_ptr<shared_part> shared, const void* origin)
      : shared_(std::move(shared)), origin_(origin) {
    guarded_scope scope(shared_->lock);
    newest_ = shared_->newest;
    prepared_ = shared_->prepared_for(origin);  // of commits that are on their way
    shared_->subscriptions.push_back(this);
  }

  ~subscription() override {
    subscription::set_listener(nullptr);
    guarded_scope scope(shared_->lock);
    std::erase(shared_->subscriptions, this);
  }

  commit_version newest() const override { return newest_.load(std::memory_order_acquire); }

  notice_list take(commit_version through) override {
    guarded_scope scope(lock_);
    while (newest_.load(std::memory_order_relaxed) < through) queued_.wait(lock_);
    notice_list taken(queue_.begin(), queue_.end());
    queue_.clear();
    merge_at_ = merge_above;
    return taken;
  }

  void set_listener(commit_listener* listener) override {
    guarded_scope scope(shared_->telling);
    if (listener != nullptr) {
      shared_->listeners.insert_or_assign(this, listener);
    } else {
      shared_->listeners.erase(this);
    }
    shared_->has_listeners.store(!shared_->listeners.empty());
  }

  const void* origin() const { return origin_; }

  // Under the board's lock.
  void prepare(notice_queue next) { prepared_ = std::move(next); }
  notice_queue take_prepared() noexcept { return std::exchange(prepared_, {}); }
  void queue_prepared() noexcept {
    guarded_scope scope(lock_);
    newest_.store(prepared_.back()->version, std::memory_order_release);
    queue_.splice(queue_.end(), prepared_);
    queued_.notify_all();
    if (origin_ == nullptr || queue_.size() < merge_at_) return;
    try {
      queue_ = merge_foreign(queue_, origin_);
    } catch (const std::bad_alloc&) {  // later, then
    }
    merge_at_ = queue_.size() + merge_above;
  }

 private:
  const std::shared_ptr<shared_part> shared_;
  const void* const origin_;
  guarded_mutex lock_;
  std::condition_variable_any queued_;
  notice_queue prepared_;  // guarded by the board's lock
  notice_queue queue_ GUARDED_BY(lock_);
  std::size_t merge_at_ GUARDED_BY(lock_) = merge_above;
  std::atomic<commit_version> newest_{0};  // written under lock_
};

notice_board::notice_board(commit_version newest) : shared_(std::make_shared<shared_part>()) {
  guarded_scope scope(shared_->lock);
  shared_->newest = newest;
}

notice_board::~notice_board() = default;

std::unique_ptr<notice_subscription> notice_board::subscribe(const void* origin) {
  return std::make_unique<subscription>(shared_, origin);
}

void notice_board::prepare(std::span<const committed> commits) {
  notice_list plain, complete;
  for (const committed& commit : commits) {
    auto bare = std::make_shared<notice>();
    bare->version = commit.version;
    bare->changed = numbers_to_tell(*commit.request);
    bare->origin = commit.request->origin;
    plain.push_back(bare);
    if (!commit.request->attachment) {
      complete.push_back(std::move(bare));
      continue;
    }
    auto attached = std::make_shared<notice>(*bare);
    attached->attachment = commit.request->attachment;
    complete.push_back(std::move(attached));
  }
  guarded_scope scope(shared_->lock);
  shared_->plain.swap(plain);
  shared_->complete.swap(complete);
  for (subscription* s : shared_->subscriptions) s->prepare(shared_->prepared_for(s->origin()));
}

void notice_board::forget_prepared() noexcept {
  // Attachments go after the mutex.
  notice_list plain, complete;
  notice_queue queued;
  guarded_scope scope(shared_->lock);
  plain.swap(shared_->plain);
  complete.swap(shared_->complete);
  for (subscription* s : shared_->subscriptions) queued.splice(queued.end(), s->take_prepared());
}

void notice_board::publish() noexcept {
  guarded_scope scope(shared_->lock);
  shared_->newest = shared_->plain.back()->version;
  for (subscription* s : shared_->subscriptions) s->queue_prepared();
  shared_->plain.clear();
  shared_->complete.clear();
}

// Whoever begins to listen looks for what is new afterwards, so one who is missed here finds it.
void notice_board::tell() noexcept {
  if (!shared_->has_listeners.load()) return;
  guarded_scope scope(shared_->telling);
  for (const auto& [who, listener] : shared_->listeners) listener->committed();
}

}  // namespace goods
