#include "services/RunningTasks.h"

#include <goods/database.h>
#include <goods/obj_storage.h>

#include <condition_variable>
#include <map>
#include <mutex>

namespace tarns {

namespace {

struct Use {
  unsigned running = 0;  // also about to find that another one runs it
  unsigned watched = 0;
  std::uint64_t begun = 0, ended = 0;
};

struct RunRegistry {
  std::mutex lock;
  std::condition_variable ended;
  std::map<RunningTasks::Key, Use> tasks;  // under lock; those that run or are watched

  void forgetUnused(std::map<RunningTasks::Key, Use>::iterator task) {
    if (task->second.running == 0 && task->second.watched == 0) tasks.erase(task);
  }
};

RunRegistry& Tasks() {
  static auto* const registry = new RunRegistry;  // outlives schedulers of static objects
  return *registry;
}

thread_local const RunningTasks::Key* runsHere = nullptr;

}  // namespace

RunningTasks::Key RunningTasks::KeyOf(const TarnManager& manager, const xcptref<TarnTask>& task) {
  const std::uint64_t id = TarnObject::GetObjectID(task);
  return {&manager.db().storage(goods::storage_of(id)).dbs(), id};
}

RunningTasks::Scope::Scope(const Key& key) : key_(key) {
  RunRegistry& registry = Tasks();
  const std::lock_guard guard(registry.lock);
  ++registry.tasks[key].running;
  runsHere = &key_;
}

RunningTasks::Scope::~Scope() {
  RunRegistry& registry = Tasks();
  const std::lock_guard guard(registry.lock);
  runsHere = nullptr;
  const auto task = registry.tasks.find(key_);
  --task->second.running;
  ++task->second.ended;
  registry.ended.notify_all();
  registry.forgetUnused(task);
}

void RunningTasks::Scope::begins() const {
  RunRegistry& registry = Tasks();
  const std::lock_guard guard(registry.lock);
  ++registry.tasks.find(key_)->second.begun;
}

RunningTasks::Watch::Watch(const Key& key) : key_(key) {
  RunRegistry& registry = Tasks();
  std::unique_lock guard(registry.lock);
  Use& use = registry.tasks[key];
  ++use.watched;
  begun_ = use.begun;
  if (runsHere != nullptr && *runsHere == key) return;
  const std::uint64_t ended = use.ended;
  registry.ended.wait(guard, [&] { return use.running == 0 || use.ended != ended; });
}

RunningTasks::Watch::~Watch() {
  RunRegistry& registry = Tasks();
  const std::lock_guard guard(registry.lock);
  const auto task = registry.tasks.find(key_);
  --task->second.watched;
  registry.forgetUnused(task);
}

bool RunningTasks::Watch::hasSeenRun() const {
  RunRegistry& registry = Tasks();
  const std::lock_guard guard(registry.lock);
  const Use& use = registry.tasks.find(key_)->second;
  return use.running > 0 || use.begun != begun_;
}

}  // namespace tarns
