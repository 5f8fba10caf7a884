#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/services/TarnTasks.h>

#include <algorithm>
#include <utility>

#include "services/RunningTasks.h"
#include "services/TaskTable.h"

namespace tarns {

namespace {

// Of the library, whose order of locks the checks of transactions do not know.
template <class Work>
auto InTransaction(TarnManager& manager, const Work& work) {
  return manager.db().session().atomically(work, goods::caller::library);
}

TarnTasks::Info InfoOf(const xcptref<TarnTask>& task) {
  const auto body = task.read();
  TarnTasks::Info info;
  info.number = body->getNumber();
  info.delegate = body->getDelegate();
  info.state = body->getState();
  info.due = body->getDue();
  info.period = body->getPeriod();
  info.runs = body->getRuns();
  info.errors = body->getErrors();
  info.lastError = body->getLastError();
  return info;
}

}  // namespace

TarnTasks::TarnTasks(TarnManager& manager, std::string path)
    : manager_(manager), path_(std::move(path)) {}

TarnTasks::Time TarnTasks::Now() {
  return std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
}

std::uint64_t TarnTasks::schedule(const Plan& plan) {
  return InTransaction(manager_, [&] { return TaskTable(manager_, path_).add(plan)->getNumber(); });
}

bool TarnTasks::cancelNow(std::uint64_t number) {
  return InTransaction(manager_, [&] {
    const xcptref<TarnTask> task = getTask(number);
    if (task.is_null() || task->getState() == TarnTask::Ended) return false;
    TaskTable(manager_, path_).end(task);
    return true;
  });
}

// In the caller's transaction the run might wait for what the caller has locked: there it is a lock
// like any other.
bool TarnTasks::cancel(std::uint64_t number) {
  if (manager_.db().session().in_transaction()) return cancelNow(number);
  while (true) {
    const xcptref<TarnTask> task = getTask(number);
    if (task.is_null()) return false;
    const RunningTasks::Watch watch(RunningTasks::KeyOf(manager_, task));
    try {
      return cancelNow(number);
    } catch (const TarnException& error) {
      if (error.getErrorID() != ErrorID::LockTimeOut || !watch.hasSeenRun()) throw;
    }
  }
}

bool TarnTasks::resume(std::uint64_t number, Time due) {
  return InTransaction(manager_, [&] {
    const xcptref<TarnTask> task = getTask(number);
    if (task.is_null() || task->getState() != TarnTask::Suspended) return false;
    TaskTable(manager_, path_).resume(task, std::clamp(due, Time(), kLatest));
    return true;
  });
}

xcptref<TarnTask> TarnTasks::getTask(std::uint64_t number) const {
  return TaskTable(manager_, path_).find(kTasks, TaskTable::NameOf(number), number);
}

std::optional<TarnTasks::Info> TarnTasks::getInfo(std::uint64_t number) const {
  const xcptref<TarnTask> task = getTask(number);
  if (task.is_null()) return std::nullopt;
  return InfoOf(task);
}

std::vector<TarnTasks::Info> TarnTasks::list(std::uint64_t after, std::size_t limit) const {
  const TaskTable table(manager_, path_);
  std::vector<Info> tasks;
  const std::string path = table.pathOf(kTasks);
  std::string last = TaskTable::NameOf(after);
  while (tasks.size() < limit && !manager_.getObject(path).is_null()) {
    const std::size_t wanted = std::min(limit - tasks.size(), kPage);
    const std::vector<std::string> names = manager_.getChildNames(path, last, wanted);
    for (const std::string& name : names) {
      const auto number = TaskTable::ParseName(name);
      if (!number) continue;
      const xcptref<TarnTask> task = table.find(kTasks, name, *number);
      if (!task.is_null()) tasks.push_back(InfoOf(task));  // else gone meanwhile, or no task
    }
    if (names.size() < wanted) break;
    last = names.back();
  }
  return tasks;
}

unsigned long TarnTasks::getNumTasks() const {
  const TarnRef node = manager_.getObject(TaskTable(manager_, path_).pathOf(kTasks));
  return node.is_null() ? 0 : node->getNumAbstractChildren();
}

}  // namespace tarns
