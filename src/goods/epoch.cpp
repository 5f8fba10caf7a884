#include "goods/epoch.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

namespace goods {

namespace {

constexpr std::uint64_t outside = 0;
constexpr std::size_t cache_line = 64;
constexpr std::size_t retired_before_collecting = 256;
constexpr std::size_t bytes_before_collecting = std::size_t{4} << 20;

// What one thread shows to those who free memory: the epoch in which its section began.
struct alignas(cache_line) participant {
  std::atomic<std::uint64_t> entered{outside};
  std::atomic<bool> taken{true};  // by a thread; the record is reused after it ends
  participant* next = nullptr;    // fixed once linked
  int depth = 0;                  // the owning thread's
};

struct retired_item {
  std::uint64_t epoch;
  void* what;
  void (*release)(void*);
};

// Process-wide and never destroyed: threads may end after static destructors have run.
struct epoch_domain {
  std::atomic<std::uint64_t> epoch{1};
  std::atomic<participant*> participants{nullptr};
  std::mutex lock;
  std::vector<retired_item> retired;  // under lock; epochs ascend
  std::size_t retired_bytes = 0;      // under lock; since the last attempt to free
  // Under lock: for each thread that is releasing items, the epoch of the first of them.
  std::vector<std::uint64_t> releasing;

  static epoch_domain& get() {
    static auto* domain = new epoch_domain;
    return *domain;
  }

  participant* take_participant() {
    for (participant* p = participants.load(std::memory_order_acquire); p != nullptr; p = p->next) {
      bool taken = false;
      if (p->taken.compare_exchange_strong(taken, true)) return p;
    }
    auto* added = new participant;
    added->next = participants.load(std::memory_order_relaxed);
    while (!participants.compare_exchange_weak(added->next, added)) {
    }
    return added;
  }

  // Sections that began before the result may still be open.
  std::uint64_t oldest_section() const {
    std::uint64_t oldest = epoch.load();
    for (participant* p = participants.load(); p != nullptr; p = p->next) {
      const std::uint64_t entered = p->entered.load();
      if (entered != outside) oldest = std::min(oldest, entered);
    }
    return oldest;
  }
};

// The record of this thread; null before its first section and after it gave the record back.
// Looked at so often that it is worth a place that is found without a call.
[[gnu::tls_model("initial-exec")]] thread_local participant* this_record = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local bool thread_ends = false;

void give_back_record() {
  this_record->taken.store(false, std::memory_order_release);
  this_record = nullptr;
}

// Gives the record back when the thread ends. Other objects of the thread may be destroyed after
// this one and enter sections again: from then on each section takes a record and gives it back.
struct record_keeper {
  ~record_keeper() {
    thread_ends = true;
    if (this_record != nullptr && this_record->depth == 0) give_back_record();
  }
};

participant& take_record() {
  if (!thread_ends) {
    thread_local record_keeper keeper;
    (void)keeper;
  }
  this_record = epoch_domain::get().take_participant();
  return *this_record;
}

participant& this_thread() { return this_record != nullptr ? *this_record : take_record(); }

}  // namespace

void reader_section::enter() {
  participant& mine = this_thread();
  if (mine.depth++ == 0) mine.entered.store(epoch_domain::get().epoch.load());
}

void reader_section::leave() {
  participant& mine = this_thread();
  if (--mine.depth != 0) return;
  mine.entered.store(outside, std::memory_order_release);
  if (thread_ends) give_back_record();
}

bool reader_section::is_inside() { return this_record != nullptr && this_record->depth > 0; }

void retire(void* what, void (*release)(void*), std::size_t bytes) noexcept {
  epoch_domain& domain = epoch_domain::get();
  bool collect = false;
  try {
    const std::lock_guard guard(domain.lock);
    domain.retired.push_back({domain.epoch.load(), what, release});
    domain.retired_bytes += bytes;
    collect = domain.retired.size() % retired_before_collecting == 0 ||
              domain.retired_bytes >= bytes_before_collecting;
  } catch (const std::bad_alloc&) {
    collect = true;  // `what` is lost, others may be freed
  }
  if (collect) collect_retired();
}

void collect_retired() noexcept {
  epoch_domain& domain = epoch_domain::get();
  std::vector<retired_item> free;
  try {
    const std::lock_guard guard(domain.lock);
    domain.retired_bytes = 0;
    domain.epoch.fetch_add(1);
    const std::uint64_t oldest = domain.oldest_section();
    const auto first_kept =
        std::find_if(domain.retired.begin(), domain.retired.end(),
                     [&](const retired_item& item) { return item.epoch >= oldest; });
    if (first_kept == domain.retired.begin()) return;
    free.assign(domain.retired.begin(), first_kept);
    domain.releasing.push_back(free.front().epoch);
    domain.retired.erase(domain.retired.begin(), first_kept);
  } catch (const std::bad_alloc&) {
    return;  // the next attempt frees them
  }
  // Outside the lock: releasing may retire more.
  for (const retired_item& item : free) item.release(item.what);
  const std::lock_guard guard(domain.lock);
  domain.releasing.erase(std::ranges::find(domain.releasing, free.front().epoch));
}

std::uint64_t moment_of_sections() {
  epoch_domain& domain = epoch_domain::get();
  const std::lock_guard guard(domain.lock);
  return domain.epoch.fetch_add(1);
}

bool wait_for_sections(std::uint64_t moment, std::chrono::milliseconds limit) {
  using clock = std::chrono::steady_clock;
  constexpr auto pause = std::chrono::microseconds(50);
  const clock::time_point until = clock::now() + limit;
  epoch_domain& domain = epoch_domain::get();
  const auto is_over = [&] {
    const std::lock_guard guard(domain.lock);
    return domain.oldest_section() > moment &&
           (domain.retired.empty() || domain.retired.front().epoch > moment) &&
           std::ranges::none_of(domain.releasing,
                                [&](std::uint64_t epoch) { return epoch <= moment; });
  };
  while (true) {
    collect_retired();
    if (is_over()) return true;
    if (clock::now() >= until) return false;
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace goods
