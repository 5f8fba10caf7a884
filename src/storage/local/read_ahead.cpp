#include "storage/local/read_ahead.h"

#include <algorithm>
#include <atomic>
#include <vector>

namespace goods {

read_ahead::read_ahead(const newest_states::sources& from, const connection_settings& database)
    : readers_({.file = database.file, .store = database.store, .mapped = false}),
      from_{.store = from.store,
            .cache = from.cache,
            .overlay = from.overlay,
            .presence = from.presence,
            .readers = readers_,
            .versions = from.versions} {}

read_ahead::~read_ahead() {
  std::thread ending;
  {
    guarded_scope scope(lock_);
    stopping_ = true;
    wake_.notify_one();
    ending.swap(thread_);
  }
  if (ending.joinable()) ending.join();
}

// Without memory, or another thread, the hint is dropped.
void read_ahead::expect(std::span<const object_number> numbers) noexcept try {
  std::vector<segment_number> absent;
  for (const object_number number : numbers) {
    const segment_number wanted = segment_of(number);
    if (!absent.empty() && absent.back() == wanted) continue;
    if (!from_.cache.contains(wanted)) absent.push_back(wanted);
  }
  if (absent.empty()) return;
  const std::size_t most = std::min(most_waiting, from_.cache.limit() / cache_for_each);
  guarded_scope scope(lock_);
  if (stopping_ || waiting_.size() + absent.size() > most) return;
  waiting_.insert(waiting_.end(), absent.begin(), absent.end());
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  wake_.notify_one();
} catch (...) {  // NOLINT(bugprone-empty-catch): see above
}

// False when it is time to end.
bool read_ahead::wait() {
  guarded_scope scope(lock_);
  while (!stopping_ && waiting_.empty()) wake_.wait(lock_);
  return !stopping_;
}

bool read_ahead::take(segment_number& next) {
  guarded_scope scope(lock_);
  if (stopping_ || waiting_.empty()) return false;
  next = waiting_.front();
  waiting_.pop_front();
  return true;
}

void read_ahead::run() {
  while (wait()) {
    try {
      read_some();
    } catch (...) {  // NOLINT(bugprone-empty-catch): see the class comment
    }
    readers_.end_idle();
  }
}

void read_ahead::read_some() {
  newest_states newest(from_, newest_states::reading::in_passing);
  segment_number next = 0;
  for (std::size_t i = 0; i < most_at_once && take(next); ++i) {
    if (from_.cache.contains(next)) continue;
    // Before anything is looked at, as in a load.
    const commit_version as_of = from_.versions.visible.load(std::memory_order_acquire);
    newest.find(next, as_of);
  }
}

}  // namespace goods
