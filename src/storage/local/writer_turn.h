// Who may write to a store.
#pragma once

#include <condition_variable>

#include "storage/guarded_mutex.h"

namespace goods {

// Held by one writer at a time; unlike a mutex it may be let go of by another thread than took it,
// and held while waiting for other storages.
class writer_turn {
 public:
  void take() {
    guarded_scope guard(lock_);
    while (taken_) free_.wait(lock_);
    taken_ = true;
  }

  // False when somebody has it.
  bool try_take() {
    guarded_scope guard(lock_);
    if (taken_) return false;
    taken_ = true;
    return true;
  }

  void leave() {
    guarded_scope guard(lock_);
    taken_ = false;
    free_.notify_one();
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
  bool taken_ GUARDED_BY(lock_) = false;
};

}  // namespace goods
