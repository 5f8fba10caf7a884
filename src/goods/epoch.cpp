#include "goods/epoch.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <vector>

namespace goods {

namespace {

constexpr std::uint64_t outside = 0;
constexpr std::size_t cache_line = 64;
constexpr std::size_t retired_before_collecting = 256;

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

// Gives the record back when the thread ends.
struct thread_participant {
  participant* record = epoch_domain::get().take_participant();
  ~thread_participant() { record->taken.store(false, std::memory_order_release); }
};

participant& this_thread() {
  thread_local thread_participant mine;
  return *mine.record;
}

}  // namespace

void reader_section::enter() {
  participant& mine = this_thread();
  if (mine.depth++ == 0) mine.entered.store(epoch_domain::get().epoch.load());
}

void reader_section::leave() {
  participant& mine = this_thread();
  if (--mine.depth == 0) mine.entered.store(outside, std::memory_order_release);
}

void retire(void* what, void (*release)(void*)) {
  epoch_domain& domain = epoch_domain::get();
  bool collect = false;
  {
    const std::lock_guard guard(domain.lock);
    domain.retired.push_back({domain.epoch.load(), what, release});
    collect = domain.retired.size() % retired_before_collecting == 0;
  }
  if (collect) collect_retired();
}

void collect_retired() {
  epoch_domain& domain = epoch_domain::get();
  std::vector<retired_item> free;
  {
    const std::lock_guard guard(domain.lock);
    domain.epoch.fetch_add(1);
    const std::uint64_t oldest = domain.oldest_section();
    const auto first_kept =
        std::find_if(domain.retired.begin(), domain.retired.end(),
                     [&](const retired_item& item) { return item.epoch >= oldest; });
    free.assign(domain.retired.begin(), first_kept);
    domain.retired.erase(domain.retired.begin(), first_kept);
  }
  // Outside the lock: releasing may retire more.
  for (const retired_item& item : free) item.release(item.what);
}

}  // namespace goods
