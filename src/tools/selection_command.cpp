#include "tools/selection_command.h"

#include <tarns/select/TarnSelection.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tools/Findings.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/shown_text.h"
#include "tools/where_clause.h"

namespace tarns {

namespace {

std::string LookedAt(const std::vector<std::string>& indexes) {
  if (indexes.empty()) return "children";
  std::string text = indexes.size() == 1 ? "entries of the index" : "entries of the indexes";
  const char* separator = " of \"";
  for (const std::string& index : indexes) {
    text += separator + Shown(index) + '"';
    separator = " and \"";
  }
  return text;
}

}  // namespace

int PrintSelection(OpenDatabase& database, const std::string& path, const xcptref<TarnQuery>& query,
                   const SelectionOptions& options) {
  if (options.format == Format::kTree) throw UsageError{"This command has no --format tree."};
  Output out;
  Findings findings(out, options.format);
  std::optional<Progress> progress;
  if (!out.isTerminal()) progress.emplace("Searching", 0, "nodes");
  const std::string prefix = path.empty() ? "" : path + "~";
  TarnSelection selection(database.node(path), query);
  selection.limitTo(options.limit);
  if (!options.after.empty()) selection.startBehind(options.after);
  for (const auto& [name, child] : selection) {
    findings.add(prefix + name, NodeView(child));
    if (progress) progress->show(0, selection.getNumLooked());
  }
  const std::size_t found = findings.finish();
  if (options.explains) {
    const std::string what = LookedAt(selection.getIndexesUsed());
    std::fprintf(stderr, "tarns: %s: looked at %llu %s of \"%s\"%s, %zu found.\n",
                 Shown(WhereOf(*query.read())).c_str(),
                 static_cast<unsigned long long>(selection.getNumLooked()), what.c_str(),
                 Shown(path).c_str(), selection.isAtEnd() ? "" : ", not at the rest", found);
  }
  return found != 0 ? ExitStatus::kDone : ExitStatus::kNotFound;
}

}  // namespace tarns
