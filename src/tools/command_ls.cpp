#include <limits>
#include <memory>

#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/shown_text.h"
#include "tools/signals.h"
#include "tools/tree_text.h"

namespace tarns {

namespace {

struct LsOptions {
  std::string path;
  std::string after;
  std::size_t limit = std::numeric_limits<std::size_t>::max();
};

// Calls visit(name, node) for the children that the options select.
template <class Visit>
void ForEachListed(const TarnRef& node, const LsOptions& options, Visit&& visit) {
  std::size_t listed = 0;
  if (options.after.empty()) {
    for (const auto& [name, child] : node->children()) {
      if (listed++ == options.limit) return;
      ThrowIfInterrupted();
      visit(name, child);
    }
    return;
  }
  TarnIterator place = node->getIterToOrAfter(options.after.c_str());
  while (!place.isNull() && listed < options.limit) {
    ThrowIfInterrupted();
    XString name;
    const TarnRef child = place.next(&name);
    if (name.view() == options.after) continue;
    visit(std::string(name.view()), child);
    ++listed;
  }
}

void WriteTable(Output& out, const TarnRef& node, const LsOptions& options) {
  Listing listing(out, {"NAME", "TYPE", "VALUE"});
  ForEachListed(node, options, [&](const std::string& name, const TarnRef& child) {
    const NodeView view(child);
    listing.add({Shown(name), TypeOf(view), SummaryOf(view)});
  });
  listing.finish();
}

void WriteJson(Output& out, const TarnRef& node, const LsOptions& options) {
  const char* separator = "[";
  ForEachListed(node, options, [&](const std::string& name, const TarnRef& child) {
    const NodeView view(child);
    out << separator << "\n  {\"name\": " << Quoted(TextOfName(name))
        << ", \"type\": " << Quoted(TypeOf(view));
    if (view.value) out << ", \"value\": " << JsonOfValue(*view.value);
    out << ", \"children\": " << std::to_string(view.numChildren) << "}";
    separator = ",";
  });
  out << (*separator == '[' ? "[]\n" : "\n]\n");
}

void WriteNames(Output& out, const TarnRef& node, const LsOptions& options, bool raw) {
  ForEachListed(node, options, [&](const std::string& name, const TarnRef&) {
    out << (raw ? name : Shown(name)) << '\n';
  });
}

int Ls(const Invocation& invocation, const LsOptions& options) {
  const bool isPart = !options.after.empty() || options.limit != LsOptions().limit;
  if (invocation.format == Format::kTree && isPart) {
    throw UsageError{"--after and --limit do not go with --format tree."};
  }
  OpenDatabase database(invocation);
  const TarnRef node = database.node(options.path);
  Output out;
  Format format = invocation.format;
  if (format == Format::kAutomatic && out.isTerminal()) format = Format::kTable;
  switch (format) {
    case Format::kTable:
      WriteTable(out, node, options);
      break;
    case Format::kJson:
      WriteJson(out, node, options);
      break;
    case Format::kTree:
      WriteTree(out, options.path, node, 1);
      break;
    default:
      WriteNames(out, node, options, format == Format::kRaw);
  }
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddLs(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "ls", "List the children of a node", "tarns -d data ls machines",
                 "tarns -d data ls packages --after bash --limit 20");
  auto options = std::make_shared<LsOptions>();
  command.add_option("PATH", options->path, "The node; without it the root");
  command.add_option("--after", options->after, "Begin with the first name behind this one");
  command.add_option("--limit", options->limit, "List no more than so many")
      ->check(CLI::NonNegativeNumber);
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Ls(invocation, *options); };
  });
}

}  // namespace tarns
