#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

// Breaks a promise of the storage contract now and then, so that a test can show that it notices.
// Concerns the storages of databases that are opened while it lives; one at a time. The linker puts
// it in the place of goods::open_storage() (see the program's CMakeLists.txt).
class planted_faults {
 public:
  enum class fault : std::uint8_t {
    skipped_lock,   // a lock is not taken
    stale_state,    // an object is loaded as it was before its last commit
    late_notice,    // a session learns later than it should what another one has changed
    late_decision,  // none, really: much happens after a commit over several storages is prepared
  };

  // The fault occurs at every n-th occasion.
  planted_faults(fault what, unsigned every);
  ~planted_faults();
  planted_faults(const planted_faults&) = delete;
  planted_faults& operator=(const planted_faults&) = delete;

  fault what() const { return what_; }
  // Whether the fault is to occur, at an occasion for it.
  bool strikes();
  std::uint64_t count() const { return count_; }  // how often it did

  // What happens then, each time that late_decision strikes, on the committing thread.
  void set_meanwhile(std::function<void()> what) { meanwhile_ = std::move(what); }
  void meanwhile() const {
    if (meanwhile_) meanwhile_();
  }

  static planted_faults* current();  // null when none is there

 private:
  const fault what_;
  const unsigned every_;
  std::function<void()> meanwhile_;
  std::atomic<std::uint64_t> occasions_{0};
  std::atomic<std::uint64_t> count_{0};
};
