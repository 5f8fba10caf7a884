#include "services/TaskTable.h"

#include <fmt/format.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnScalarValue.h>
#include <tarns/core/TarnValues.h>
#include <tarns/session/TarnTransaction.h>

#include <algorithm>
#include <charconv>
#include <string>

namespace tarns {

namespace {

constexpr std::size_t kDigits = 20;  // of any 64-bit number

using std::chrono::microseconds;

std::int64_t CountOf(TarnTask::Time time) { return time.time_since_epoch().count(); }

template <class Number>
bool Parse(std::string_view digits, Number& number) {
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number);
  return error == std::errc() && stop == end;
}

constexpr microseconds kLongest = std::chrono::hours(24) * 36'525;  // period

void Verify(const TarnTasks::Plan& plan) {
  const char* fault = nullptr;
  if (plan.delegate.empty()) fault = "it names no delegate";
  if (plan.due < TarnTask::Time() || plan.due > TarnTasks::kLatest) {
    fault = "its time is not between 1970 and the end of 9999";
  }
  if (plan.period < microseconds(0) || plan.period > kLongest) {
    fault = "its period is not between 0 and 100 years";
  }
  if (fault != nullptr) {
    throw TarnException(fmt::format("A task cannot be scheduled: {}.", fault).c_str(),
                        ErrorID::Unspecified);
  }
}

// The first of the planned times that is after `now`. What is stored may be anything.
TarnTask::Time NextPlanned(TarnTask::Time planned, microseconds period, TarnTask::Time now) {
  planned = std::clamp(planned, TarnTask::Time(), TarnTasks::kLatest);
  period = std::clamp(period, microseconds(1), kLongest);
  const std::int64_t passed = now < planned ? 0 : (now - planned) / period;
  return std::min(planned + (passed + 1) * period, TarnTasks::kLatest);
}

}  // namespace

TaskTable::TaskTable(TarnManager& manager, std::string_view path)
    : manager_(manager), path_(path) {}

std::string TaskTable::NameOf(std::uint64_t number) { return fmt::format("{:020}", number); }

std::optional<std::uint64_t> TaskTable::ParseName(std::string_view name) {
  std::uint64_t number = 0;
  if (name.size() != kDigits || !Parse(name, number)) return std::nullopt;
  return number;
}

std::string TaskTable::DueNameOf(const DueEntry& entry) {
  return fmt::format("{:020}-{:020}", CountOf(entry.due), entry.number);
}

std::optional<TaskTable::DueEntry> TaskTable::ParseDueName(std::string_view name) {
  std::int64_t due = 0;
  DueEntry entry{};
  const bool isOne = name.size() == 2 * kDigits + 1 && name[kDigits] == '-' &&
                     Parse(name.substr(0, kDigits), due) && due >= 0 &&
                     Parse(name.substr(kDigits + 1), entry.number);
  if (!isOne) return std::nullopt;
  entry.due = TarnTask::Time(microseconds(due));
  return entry;
}

std::string TaskTable::pathOf(const char* list) const {
  return path_.empty() ? list : path_ + '~' + list;
}

// Looked for outside of the transaction first: a look-up in it would lock shared what is written
// next, and two transactions that do so end in a deadlock.
xcptref<TarnTask> TaskTable::find(const char* list, std::string_view name,
                                  std::uint64_t number) const {
  const std::string path = pathOf(list) + '~' + std::string(name);
  TarnRef node =
      manager_.db().session().outside_transaction([&] { return manager_.getObject(path); });
  if (node.is_null()) node = manager_.getObject(path);  // made in this very transaction
  if (!node.isA<TarnTask>()) return {};
  xcptref<TarnTask> task(node);
  return task->getNumber() == number ? task : xcptref<TarnTask>();
}

// Those that are missing are made when they are needed, which writes to the node above them.
void TaskTable::lock(std::initializer_list<const char*> lists) const {
  XStringList paths;
  bool isMissing = false;
  (void)manager_.getRoot();  // made where there is none: not while nothing may be written
  manager_.db().session().outside_transaction([&] {
    for (const char* list : lists) isMissing |= manager_.getObject(pathOf(list)).is_null();
  });
  if (isMissing && !path_.empty()) paths.addLast(path_.c_str());
  for (const char* list : lists) paths.addLast(pathOf(list).c_str());
  TarnTransaction::Lock(manager_, paths);
}

TarnRef TaskTable::nodeOf(const char* list) const { return manager_.getNoFail(pathOf(list)); }

std::uint64_t TaskTable::nextNumber() {
  const auto last =
      modify(manager_.getNoFail(pathOf(TarnTasks::kLastNumber), TarnUint64Value::GetType()));
  const std::uint64_t number = last->getUint64("", 0) + 1;
  last->setValue("", TarnData(number));
  return number;
}

void TaskTable::enter(const xcptref<TarnTask>& task, const char* list, const std::string& name) {
  modify(nodeOf(list))->addChild(name.c_str(), task);
  const std::string home = NameOf(task->getNumber());
  if (list != TarnTasks::kTasks) modify(nodeOf(TarnTasks::kTasks))->becomeParentOf(home.c_str());
}

void TaskTable::leave(const char* list, std::string_view name) {
  modify(nodeOf(list))->deleteChild(std::string(name).c_str());
}

void TaskTable::leaveDue(const xcptref<TarnTask>& task) {
  leave(TarnTasks::kDue, DueNameOf({task->getDue(), task->getNumber()}));
}

void TaskTable::dropEntry(const char* list, std::string_view name) {
  lock({list});
  leave(list, name);
}

void TaskTable::noteReason(const xcptref<TarnTask>& task, std::string_view why) {
  modify(task)->lastError_.set(why);
}

// The caller has taken it out of where it was.
void TaskTable::scheduleFor(const xcptref<TarnTask>& task, TarnTask::Time due) {
  modify(task)->due_ = CountOf(due);
  enter(task, TarnTasks::kDue, DueNameOf({due, task->getNumber()}));
}

xcptref<TarnTask> TaskTable::add(const TarnTasks::Plan& plan) {
  Verify(plan);
  lock({TarnTasks::kDue, TarnTasks::kLastNumber, TarnTasks::kTasks});
  const std::uint64_t number = nextNumber();
  xcptref<TarnTask> task = TarnTask::Create();
  {
    const auto body = modify(task);
    body->number_ = number;
    body->delegate_.set(std::string_view(plan.delegate));
    body->created_ = CountOf(TarnTasks::Now());
    body->planned_ = CountOf(plan.due);
    body->period_ = plan.period.count();
    if (!plan.arguments.is_null()) body->addChild(TarnTask::kArguments, plan.arguments);
  }
  enter(task, TarnTasks::kTasks, NameOf(number));
  scheduleFor(task, plan.due);
  return task;
}

void TaskTable::end(const xcptref<TarnTask>& task) {
  const std::string name = NameOf(task->getNumber());
  const bool wasScheduled = task->getState() == TarnTask::Scheduled;
  lock({wasScheduled ? TarnTasks::kDue : TarnTasks::kSuspended, TarnTasks::kTasks});
  modify(task)->state_ = TarnTask::Ended;
  leave(TarnTasks::kTasks, name);
  if (wasScheduled) {
    leaveDue(task);
  } else {
    leave(TarnTasks::kSuspended, name);
  }
}

void TaskTable::resume(const xcptref<TarnTask>& task, TarnTask::Time due) {
  lock({TarnTasks::kDue, TarnTasks::kSuspended, TarnTasks::kTasks});
  {
    const auto body = modify(task);
    body->state_ = TarnTask::Scheduled;
    body->errors_ = 0;
    body->lastError_.clear();
  }
  leave(TarnTasks::kSuspended, NameOf(task->getNumber()));
  scheduleFor(task, due);
}

void TaskTable::finishRun(const xcptref<TarnTask>& task, TarnTask::Time now) {
  lock({TarnTasks::kDue, TarnTasks::kTasks});
  {
    const auto body = modify(task);
    ++body->runs_;
    body->errors_ = 0;
    body->lastError_.clear();
  }
  const microseconds period = task->getPeriod();
  if (period == microseconds(0)) {
    end(task);
    return;
  }
  leaveDue(task);
  const TarnTask::Time planned = NextPlanned(task->getPlanned(), period, now);
  modify(task)->planned_ = CountOf(planned);
  scheduleFor(task, planned);
}

void TaskTable::failRun(const xcptref<TarnTask>& task, std::string_view why,
                        std::optional<TarnTask::Time> due) {
  lock({TarnTasks::kDue, TarnTasks::kSuspended, TarnTasks::kTasks});
  {
    const auto body = modify(task);
    ++body->errors_;
    body->lastError_.set(why);
    if (!due) body->state_ = TarnTask::Suspended;
  }
  leaveDue(task);
  if (due) {
    scheduleFor(task, std::clamp(*due, TarnTask::Time(), TarnTasks::kLatest));
  } else {
    enter(task, TarnTasks::kSuspended, NameOf(task->getNumber()));
  }
}

}  // namespace tarns
