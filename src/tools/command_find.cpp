#include <fnmatch.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include "tools/BranchWalk.h"
#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/shown_text.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

struct FindOptions {
  std::string path;
  std::optional<std::string> name;
  std::optional<std::string> value;
  std::optional<std::string> type;
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

// Writes what was found one by one, in the format wanted.
class Findings {
 public:
  Findings(Output& out, Format format)
      : out_(out), format_(format), listing_(out, {"PATH", "TYPE", "VALUE"}) {}

  void add(const std::string& path, const NodeView& view) {
    switch (format_) {
      case Format::kTable:
        listing_.add({Shown(path), TypeOf(view), SummaryOf(view)});
        break;
      case Format::kJson:
        out_ << (count_ == 0 ? "[" : ",") << "\n  {\"path\": " << Quoted(TextOfName(path))
             << ", \"type\": " << Quoted(TypeOf(view));
        if (view.value) out_ << ", \"value\": " << JsonOfValue(*view.value);
        out_ << "}";
        break;
      case Format::kRaw:
        out_ << path << '\n';
        break;
      default:
        out_ << Shown(path) << '\n';
    }
    ++count_;
  }

  std::size_t finish() {
    if (format_ == Format::kTable) listing_.finish();
    if (format_ == Format::kJson) out_ << (count_ == 0 ? "[]\n" : "\n]\n");
    out_.finish();
    return count_;
  }

 private:
  Output& out_;
  Format format_;
  Listing listing_;
  std::size_t count_ = 0;
};

// A class may be one that only other programs know, so it cannot be told from a mistake.
int SayNothingWasFound(const FindOptions& options) {
  const bool isClass = options.type && *options.type != "Node" && !TypeByName(*options.type);
  if (isClass) {
    std::fprintf(stderr, "tarns: There is no value of a type, and no node of a class, \"%s\".\n",
                 Shown(*options.type).c_str());
  }
  return ExitStatus::kNotFound;
}

int Find(const Invocation& invocation, const FindOptions& options) {
  if (invocation.format == Format::kTree) throw UsageError{"find has no --format tree."};
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
      "tarns -d data --format table find --type Sint64 --value '40*'");
  auto options = std::make_shared<FindOptions>();
  command.add_option("PATH", options->path, "The branch to look in; without it everything");
  command.add_option("--name", options->name, "A pattern for the name")->type_name("PATTERN");
  command.add_option("--value", options->value, "A pattern for the value")->type_name("PATTERN");
  command.add_option("--type", options->type, "A value's type, Node, or a class");
  command.add_option("--limit", options->limit, "Stop after so many")
      ->check(CLI::NonNegativeNumber);
  command.callback([&invocation, options] {
    const auto type = options->type ? TypeByName(*options->type) : std::nullopt;
    if (type) options->type = TarnData::GetTypeAsString(*type);
    invocation.action = [&invocation, options] { return Find(invocation, *options); };
  });
}

}  // namespace tarns
