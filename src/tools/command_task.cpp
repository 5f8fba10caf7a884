#include <fmt/chrono.h>
#include <fmt/format.h>
#include <tarns/services/TarnTasks.h>

#include <chrono>
#include <ctime>
#include <memory>

#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

struct TaskOptions {
  std::string path = TarnTasks::kDefaultPath;
  std::uint64_t number = 0;
};

// 2026-11-22T05:10:00.250000Z
std::string InUtc(TarnTask::Time time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                     fmt::gmtime(static_cast<std::time_t>(seconds.time_since_epoch().count())),
                     (time - seconds).count());
}

std::string SecondsOf(std::chrono::microseconds time) {
  return fmt::format("{}", static_cast<double>(time.count()) / 1e6);
}

const char* NameOf(TarnTask::State state) {
  switch (state) {
    case TarnTask::Scheduled:
      return "scheduled";
    case TarnTask::Suspended:
      return "suspended";
    case TarnTask::Ended:
      return "ended";
  }
  return "unknown";
}

// Calls `each` for all tasks, in the order of their numbers.
template <class Function>
void ForEachTask(const TarnTasks& tasks, const Function& each) {
  std::uint64_t last = 0;
  while (true) {
    const auto page = tasks.list(last);
    for (const TarnTasks::Info& info : page) {
      ThrowIfInterrupted();
      each(info);
    }
    if (page.size() < TarnTasks::kPage) return;
    last = page.back().number;
  }
}

void WriteTable(Output& out, const TarnTasks& tasks) {
  Listing listing(out, {"TASK", "DELEGATE", "STATE", "DUE", "PERIOD", "RUNS", "ERRORS", "REASON"});
  ForEachTask(tasks, [&](const TarnTasks::Info& info) {
    listing.add({std::to_string(info.number), Shown(info.delegate), NameOf(info.state),
                 InUtc(info.due), info.period.count() == 0 ? "" : SecondsOf(info.period) + " s",
                 std::to_string(info.runs), std::to_string(info.errors), Shown(info.lastError)});
  });
  listing.finish();
}

void WriteJson(Output& out, const TarnTasks& tasks) {
  out << '[';
  const char* separator = "";
  ForEachTask(tasks, [&](const TarnTasks::Info& info) {
    out << separator
        << fmt::format(
               "\n  {{\"task\": {}, \"delegate\": {}, \"state\": \"{}\", \"due\": \"{}\", "
               "\"period\": {}, \"runs\": {}, \"errors\": {}, \"reason\": {}}}",
               info.number, Quoted(TextOfName(info.delegate)), NameOf(info.state), InUtc(info.due),
               SecondsOf(info.period), info.runs, info.errors, Quoted(TextOfName(info.lastError)));
    separator = ",";
  });
  out << (*separator == '\0' ? "]\n" : "\n]\n");
}

int List(const Invocation& invocation, const TaskOptions& options) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"task ls has the formats table and json."};
  }
  OpenDatabase database(invocation);
  database.node(options.path);
  const TarnTasks tasks(*database, options.path);
  Output out;
  if (invocation.format == Format::kJson) {
    WriteJson(out, tasks);
  } else {
    WriteTable(out, tasks);
  }
  out.finish();
  return ExitStatus::kDone;
}

int Cancel(const Invocation& invocation, const TaskOptions& options) {
  OpenDatabase database(invocation);
  if (TarnTasks(*database, options.path).cancel(options.number)) return ExitStatus::kDone;
  throw TarnException(
      fmt::format("There is no task {} at \"{}\".", options.number, options.path).c_str(),
      ErrorID::NonExistentPath);
}

int Resume(const Invocation& invocation, const TaskOptions& options) {
  OpenDatabase database(invocation);
  TarnTasks tasks(*database, options.path);
  if (tasks.resume(options.number)) return ExitStatus::kDone;
  throw TarnException(
      fmt::format("There is no suspended task {} at \"{}\".", options.number, options.path).c_str(),
      ErrorID::NonExistentPath);
}

}  // namespace

void AddTask(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "task", "List, cancel and resume what programs have scheduled",
                 "tarns -d data task ls", "tarns -d data task resume 17");
  command.require_subcommand(1);
  auto options = std::make_shared<TaskOptions>();
  const auto add = [&](const char* name, const char* text,
                       int (*run)(const Invocation&, const TaskOptions&)) {
    CLI::App* const one = command.add_subcommand(name, text);
    one->add_option("--at", options->path, "The node of the tasks (default \"scheduler\")")
        ->type_name("PATH");
    one->callback([&invocation, options, run] {
      invocation.action = [&invocation, options, run] { return run(invocation, *options); };
    });
    return one;
  };
  add("ls", "List the tasks; times are in UTC", List);
  add("cancel", "Take a task away", Cancel)
      ->add_option("TASK", options->number, "Its number")
      ->required();
  add("resume", "Let a suspended task be run again", Resume)
      ->add_option("TASK", options->number, "Its number")
      ->required();
}

}  // namespace tarns
