#include <tarns/core/TarnValueIndex.h>

#include <memory>
#include <string>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"

namespace tarns {

namespace {

struct IndexOptions {
  std::string path;
  std::string below;
};

int Ls(const Invocation& invocation, const IndexOptions& options) {
  OpenDatabase database(invocation);
  Output out;
  const bool isJson = invocation.format == Format::kJson;
  const char* separator = "";
  if (isJson) out << '[';
  for (const std::string& below : TarnValueIndex::List(database.node(options.path))) {
    if (isJson) {
      out << separator << Quoted(below);
      separator = ", ";
    } else {
      out << (invocation.format == Format::kRaw ? below : Shown(below)) << '\n';
    }
  }
  if (isJson) out << "]\n";
  out.finish();
  return ExitStatus::kDone;
}

int Add(const Invocation& invocation, const IndexOptions& options) {
  OpenDatabase database(invocation);
  if (TarnValueIndex::Declare(database.node(options.path), options.below)) return ExitStatus::kDone;
  throw UsageError{"\"" + options.path + "\" has an index of \"" + options.below + "\" already."};
}

int Drop(const Invocation& invocation, const IndexOptions& options) {
  OpenDatabase database(invocation);
  const bool isGone = TarnValueIndex::Drop(database.node(options.path), options.below);
  return isGone ? ExitStatus::kDone : ExitStatus::kNotFound;
}

int Rebuild(const Invocation& invocation, const IndexOptions& options) {
  OpenDatabase database(invocation);
  const bool isThere = TarnValueIndex::Rebuild(database.node(options.path), options.below);
  return isThere ? ExitStatus::kDone : ExitStatus::kNotFound;
}

}  // namespace

void AddIndex(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "index", "Keep an index of a node's children by a value below each, which find uses",
      "tarns -d data index add packages Section", "tarns -d data index ls packages");
  command.require_subcommand(1);
  auto options = std::make_shared<IndexOptions>();
  const auto add = [&](const char* name, const char* text,
                       int (*run)(const Invocation&, const IndexOptions&), bool hasValue) {
    CLI::App* const one = command.add_subcommand(name, text);
    one->add_option("PATH", options->path, "The node whose children are indexed")->required();
    if (hasValue) {
      one->add_option("BELOW", options->below, "The path of the value below each child")
          ->required();
    }
    one->callback([&invocation, options, run] {
      invocation.action = [&invocation, options, run] { return run(invocation, *options); };
    });
  };
  add("add", "Declare an index; from then on every change keeps it", Add, true);
  add("drop", "Give an index up", Drop, true);
  add("rebuild", "Make an index anew from the values", Rebuild, true);
  add("ls", "Print the paths that have an index", Ls, false);
}

}  // namespace tarns
