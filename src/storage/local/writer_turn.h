// Who may write to a store.
#pragma once

#include <condition_variable>
#include <cstdint>

#include "storage/guarded_mutex.h"

namespace goods {

// Held by one writer at a time, in the order in which they asked for it; unlike a mutex it may be
// let go of by another thread than took it, and held while waiting for other storages.
class writer_turn {
 public:
  void take() {
    guarded_scope guard(lock_);
    const std::uint64_t mine = asked_++;
    while (served_ != mine) free_.wait(lock_);
  }

  // False when somebody has it.
  bool try_take() {
    guarded_scope guard(lock_);
    if (served_ != asked_) return false;
    ++asked_;
    return true;
  }

  void leave() {
    guarded_scope guard(lock_);
    if (++served_ != asked_) free_.notify_all();
  }

  // Holds it for a scope, unless it is handed on before.
  class hold {
   public:
    explicit hold(writer_turn& turn) : turn_(&turn) { turn_->take(); }
    ~hold() {
      if (turn_ != nullptr) turn_->leave();
    }
    hold(const hold&) = delete;
    hold& operator=(const hold&) = delete;

    // It stays taken; somebody else calls leave().
    void hand_on() { turn_ = nullptr; }

   private:
    writer_turn* turn_;
  };

 private:
  guarded_mutex lock_;
  std::condition_variable_any free_;
  std::uint64_t asked_ GUARDED_BY(lock_) = 0;   // who asked n-th has the turn while n are served
  std::uint64_t served_ GUARDED_BY(lock_) = 0;  // equal: nobody has it
};

}  // namespace goods
