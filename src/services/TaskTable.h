#pragma once

#include <tarns/services/TarnTasks.h>

#include <chrono>
#include <compare>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace tarns {

// The nodes below the node of tasks, and what happens to a task in them:
//
//   LastNumber    Uint64
//   Tasks         all tasks, by number in 20 digits; the tasks' parent
//   Due           the scheduled ones, by time and number in 20 digits each
//   Suspended     the others, by number
//
// What changes something is called within a transaction. It takes the task first and then all the
// lists that it needs, in the order of their paths. Threads: as for the session.
class TaskTable {
 public:
  struct DueEntry {
    TarnTask::Time due;
    std::uint64_t number;
    friend auto operator<=>(const DueEntry&, const DueEntry&) = default;
  };

  TaskTable(TarnManager& manager, std::string_view path);

  static std::string NameOf(std::uint64_t number);
  static std::optional<std::uint64_t> ParseName(std::string_view name);  // none: not one of these
  static std::string DueNameOf(const DueEntry& entry);
  static std::optional<DueEntry> ParseDueName(std::string_view name);

  std::string pathOf(const char* list) const;
  // The task of that number that a list has under a name; null when there is none.
  xcptref<TarnTask> find(const char* list, std::string_view name, std::uint64_t number) const;

  xcptref<TarnTask> add(const TarnTasks::Plan& plan);
  // Takes it out of all lists.
  void end(const xcptref<TarnTask>& task);
  void resume(const xcptref<TarnTask>& task, TarnTask::Time due);
  // A run has done its work: ends the task, or plans its next time after `now`.
  void finishRun(const xcptref<TarnTask>& task, TarnTask::Time now);
  // A run has failed: to be tried again at `due`, or, with none, suspended.
  void failRun(const xcptref<TarnTask>& task, std::string_view why,
               std::optional<TarnTask::Time> due);
  // Keeps in the task why it cannot be run, which is no error of its own. Locks nothing else.
  void noteReason(const xcptref<TarnTask>& task, std::string_view why);
  // Takes out of Due, or Suspended, the entry of a task that is not in Tasks any more.
  void dropEntry(const char* list, std::string_view name);

 private:
  void lock(std::initializer_list<const char*> lists) const;
  std::uint64_t nextNumber();
  TarnRef nodeOf(const char* list) const;
  void enter(const xcptref<TarnTask>& task, const char* list, const std::string& name);
  void leave(const char* list, std::string_view name);
  void leaveDue(const xcptref<TarnTask>& task);
  void scheduleFor(const xcptref<TarnTask>& task, TarnTask::Time due);

  TarnManager& manager_;
  const std::string path_;
};

}  // namespace tarns
