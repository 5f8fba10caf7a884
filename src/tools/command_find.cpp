#include <fnmatch.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include "tools/BranchWalk.h"
#include "tools/Findings.h"
#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/selection_command.h"
#include "tools/shown_text.h"
#include "tools/value_text.h"
#include "tools/where_clause.h"

namespace tarns {

namespace {

struct FindOptions {
  std::string path;
  std::optional<std::string> name;
  std::optional<std::string> value;
  std::optional<std::string> type;
  std::optional<std::string> where;
  std::string after;
  bool explains = false;
  std::size_t limit = std::numeric_limits<std::size_t>::max();
};

bool Matches(const std::optional<std::string>& pattern, const std::string& text) {
  return !pattern || ::fnmatch(pattern->c_str(), text.c_str(), 0) == 0;
}

bool IsWanted(const FindOptions& options, const BranchWalk::Step& step, const NodeView& view) {
  if (!Matches(options.name, step.name)) return false;
  if (options.type && TypeOf(view) != *options.type) return false;
  return !options.value || (view.value && Matches(options.value, ValueText(*view.value)));
}

// A class may be one that only other programs know, so it cannot be told from a mistake.
int SayNothingWasFound(const FindOptions& options) {
  const bool isClass = options.type && *options.type != "Node" && !TypeByName(*options.type);
  if (isClass) {
    std::fprintf(stderr, "tarns: There is no value of a type, and no node of a class, \"%s\".\n",
                 Shown(*options.type).c_str());
  }
  return ExitStatus::kNotFound;
}

int FindWhere(const Invocation& invocation, const FindOptions& options) {
  if (options.name || options.value || options.type) {
    throw UsageError{"--where goes with --limit and --explain, not with patterns."};
  }
  const xcptref<TarnQuery> query = ParseWhere(*options.where);
  OpenDatabase database(invocation);
  return PrintSelection(database, options.path, query,
                        {invocation.format, options.after, options.limit, options.explains});
}

int Find(const Invocation& invocation, const FindOptions& options) {
  if (invocation.format == Format::kTree) throw UsageError{"find has no --format tree."};
  if (options.where) return FindWhere(invocation, options);
  if (options.explains || !options.after.empty()) {
    throw UsageError{"--explain and --after go with --where."};
  }
  OpenDatabase database(invocation);
  Output out;
  Findings findings(out, invocation.format);
  const std::string prefix = options.path.empty() ? "" : options.path + "~";
  BranchWalk walk(database.node(options.path));
  std::optional<Progress> progress;
  if (!out.isTerminal()) progress.emplace("Searching", 0, "nodes");
  std::uint64_t looked = 0;
  std::size_t found = 0;
  while (const BranchWalk::Step* step = found < options.limit ? walk.next() : nullptr) {
    if (progress) progress->show(0, ++looked);
    const NodeView view(step->node);
    if (!IsWanted(options, *step, view)) continue;
    findings.add(prefix + walk.path(), view);
    ++found;
  }
  return findings.finish() != 0 ? ExitStatus::kDone : SayNothingWasFound(options);
}

}  // namespace

void AddFind(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "find",
      "Print the paths of nodes that match all patterns; * ? and [...] are as in file names",
      "tarns -d data find packages --name 'lib*dev'",
      "tarns -d data find packages --where 'Section = libs and Package starts libx' --limit 5");
  auto options = std::make_shared<FindOptions>();
  command.add_option("PATH", options->path, "The branch to look in; without it everything");
  command.add_option("--name", options->name, "A pattern for the name")->type_name("PATTERN");
  command.add_option("--value", options->value, "A pattern for the value")->type_name("PATTERN");
  command.add_option("--type", options->type, "A value's type, Node, or a class");
  command
      .add_option("--where", options->where,
                  "Conditions on the values below each child of PATH: Name OP TEXT [and|or ...]; "
                  "OP is < > = != >= <= starts or contains")
      ->type_name("CONDITIONS");
  command.add_option("--after", options->after, "With --where: begin behind children of this name")
      ->type_name("NAME");
  command.add_flag("--explain", options->explains,
                   "Tell on standard error what --where has looked at");
  command.add_option("--limit", options->limit, "Stop after so many")
      ->check(CLI::NonNegativeNumber);
  command.callback([&invocation, options] {
    const auto type = options->type ? TypeByName(*options->type) : std::nullopt;
    if (type) options->type = TarnData::GetTypeAsString(*type);
    invocation.action = [&invocation, options] { return Find(invocation, *options); };
  });
}

}  // namespace tarns
