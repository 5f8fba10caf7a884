#pragma once

#include <tarns/services/TarnTask.h>
#include <tarns/session/TarnManager.h>

#include <compare>
#include <cstdint>

namespace goods {
class dbs_storage;
}

namespace tarns {

// Which tasks the schedulers of this process are running, for who waits until one does no more.
// Threads: any.
class RunningTasks {
 public:
  // A task, whichever session it is looked at in.
  struct Key {
    const goods::dbs_storage* storage;
    std::uint64_t id;
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  static Key KeyOf(const TarnManager& manager, const xcptref<TarnTask>& task);

  // From before the task is locked until the run's transaction has ended.
  class Scope {
   public:
    explicit Scope(const Key& key);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    void begins() const;  // the lock has been given

   private:
    const Key key_;
  };

  // Sees whether the task runs while it lives.
  class Watch {
   public:
    explicit Watch(const Key& key);  // waits until it is not running
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    bool hasSeenRun() const;

   private:
    const Key key_;
    std::uint64_t begun_ = 0;
  };
};

}  // namespace tarns
