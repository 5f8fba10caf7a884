#include "goods/modification_signals.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include <goods/event.h>

#include "goods/object_cache.h"

namespace goods {

modification_signals::modification_signals(object_cache& cache, subscriptions notices,
                                           std::vector<commit_version> taken_in)
    : cache_(cache),
      notices_(notices),
      forgotten_(std::move(taken_in)),
      thread_(task::create([](void* self) { static_cast<modification_signals*>(self)->run(); },
                           this, task::priority::high)) {}

void modification_signals::stop() {
  if (!thread_.is_joinable()) return;
  for (const auto& subscription : notices_) subscription->set_listener(nullptr);
  {
    const std::scoped_lock guard(lock_, bell_);
    stops_ = true;
  }
  rung_.notify_all();
  thread_.join();
}

// ---- Who waits

void modification_signals::add(event& when, std::span<const object_id> objects,
                               std::span<const commit_version> as_of) {
  {
    const std::lock_guard guard(lock_);
    waiting_list made;
    const auto one = made.insert(made.end(), {&when, {objects.begin(), objects.end()}});
    one->is_ready = changed_after(objects, as_of);
    try {
      by_event_.emplace(&when, one);
      if (!one->is_ready) {
        for (const object_id id : objects) by_object_.emplace(id, one);
        listen();
      }
    } catch (...) {
      forget_objects_of(one);
      forget_event_of(one);
      throw;
    }
    waiting_list& into = one->is_ready ? ready_ : waiting_;
    into.splice(into.end(), made);
  }
  ring();  // also for what was committed before anybody listened
}

bool modification_signals::withdraw(const event& when) {
  std::unique_lock guard(lock_);
  bool was_waiting = false;
  for (auto found = by_event_.find(&when); found != by_event_.end();
       found = by_event_.find(&when)) {
    const auto one = found->second;
    by_event_.erase(found);
    forget_objects_of(one);
    (one->is_ready ? ready_ : waiting_).erase(one);
    was_waiting = true;
  }
  if (std::this_thread::get_id() != signaller_) {
    signalled_.wait(guard, [&] { return signalling_ != &when; });
  }
  return was_waiting;
}

bool modification_signals::have_changed(std::span<const object_id> objects,
                                        std::span<const commit_version> since) {
  const std::lock_guard guard(lock_);
  return changed_after(objects, since);
}

void modification_signals::add_feed(commit_feed& feed) {
  {
    const std::lock_guard guard(lock_);
    listen();
    feeds_.push_back(&feed);
  }
  ring();
}

void modification_signals::remove_feed(commit_feed& feed) {
  const std::lock_guard guard(lock_);
  std::erase(feeds_, &feed);
  stop_listening_if_done();
}

void modification_signals::forget_objects_of(waiting_list::iterator one) noexcept {
  for (const object_id id : one->objects) {
    const auto [first, last] = by_object_.equal_range(id);
    const auto found = std::find_if(first, last, [&](const auto& e) { return e.second == one; });
    if (found != last) by_object_.erase(found);
  }
}

void modification_signals::forget_event_of(waiting_list::iterator one) noexcept {
  const auto [first, last] = by_event_.equal_range(one->when);
  const auto found = std::find_if(first, last, [&](const auto& e) { return e.second == one; });
  if (found != last) by_event_.erase(found);
}

void modification_signals::listen() {
  if (listens_) return;
  for (const auto& subscription : notices_) subscription->set_listener(this);
  listens_ = true;
}

void modification_signals::stop_listening_if_done() noexcept {
  if (!listens_ || !waiting_.empty() || !feeds_.empty()) return;
  for (const auto& subscription : notices_) subscription->set_listener(nullptr);
  listens_ = false;
}

// ---- What has been changed

void modification_signals::remember(object_id id, commit_version version) noexcept {
  if (changes_.capacity() == 0) {
    try {
      changes_.reserve(most_changes);
    } catch (const std::bad_alloc&) {  // then nothing can be told about this commit
      forgotten_[storage_of(id)] = version;
      return;
    }
  }
  if (changes_.size() < most_changes) {
    changes_.push_back({id, version});
    return;
  }
  change& oldest = changes_[oldest_change_];
  forgotten_[storage_of(oldest.id)] = oldest.version;
  oldest = {id, version};
  oldest_change_ = (oldest_change_ + 1) % most_changes;
}

bool modification_signals::changed_after(std::span<const object_id> objects,
                                         std::span<const commit_version> as_of) const {
  for (const object_id id : objects) {
    if (as_of[storage_of(id)] < forgotten_[storage_of(id)]) return true;
  }
  // From the newest one on; mostly there are none after `as_of`. With one storage versions descend.
  for (std::size_t i = changes_.size(); i-- > 0;) {
    const change& past = changes_[(oldest_change_ + i) % changes_.size()];
    if (past.version > as_of[storage_of(past.id)]) {
      if (std::ranges::find(objects, past.id) != objects.end()) return true;
    } else if (as_of.size() == 1) {
      return false;
    }
  }
  return false;
}

void modification_signals::make_ready(waiting_list::iterator one) noexcept {
  forget_objects_of(one);
  one->is_ready = true;
  ready_.splice(ready_.end(), waiting_, one);
}

void modification_signals::note(storage_number storage, const notice& news) noexcept {
  const std::lock_guard guard(lock_);
  for (const object_number number : news.changed) {
    const object_id id = make_object_id(storage, number);
    remember(id, news.version);
    for (auto found = by_object_.find(id); found != by_object_.end(); found = by_object_.find(id)) {
      make_ready(found->second);
    }
  }
  for (commit_feed* feed : feeds_) feed->committed(storage, news.version, news.changed);
  if (!ready_.empty()) ring();
}

// ---- The thread

void modification_signals::ring() noexcept {
  {
    const std::lock_guard guard(bell_);
    if (std::exchange(is_rung_, true)) return;
  }
  rung_.notify_one();
}

void modification_signals::run() noexcept {
  {
    const std::lock_guard guard(lock_);
    signaller_ = std::this_thread::get_id();
  }
  while (true) {
    {
      std::unique_lock guard(bell_);
      rung_.wait(guard, [this] { return is_rung_ || stops_; });
      if (stops_) return;
      is_rung_ = false;
    }
    take_in();
    deliver();
  }
}

void modification_signals::take_in() noexcept {
  try {
    cache_.catch_up();
  } catch (...) {  // for lack of memory; nothing is lost
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ring();
  }
}

void modification_signals::deliver() noexcept {
  std::unique_lock guard(lock_);
  while (!ready_.empty() && !stops_) {
    event* const when = ready_.front().when;
    forget_event_of(ready_.begin());
    ready_.pop_front();
    signalling_ = when;
    guard.unlock();
    when->signal();  // it may be gone afterwards
    guard.lock();
    signalling_ = nullptr;
    signalled_.notify_all();
  }
  stop_listening_if_done();
}

}  // namespace goods
