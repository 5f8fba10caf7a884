#include <memory>
#include <optional>

#include "tools/BranchWalk.h"
#include "tools/Invocation.h"
#include "tools/JsonWriter.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/shown_text.h"
#include "tools/tree_text.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

struct TreeOptions {
  std::string path;
  std::optional<std::size_t> depth;
};

// One line for each value.
void WriteValues(Output& out, const TarnRef& node, std::size_t depth, bool raw) {
  Listing listing(out, {"PATH", "TYPE", "VALUE"});
  BranchWalk walk(node);
  while (const BranchWalk::Step* step = depth != 0 ? walk.next() : nullptr) {
    const NodeView view(step->node);
    if (step->depth >= depth) walk.skipChildren();
    if (!view.value) continue;
    if (raw) {
      out << walk.path() << '=' << ValueText(*view.value) << '\n';
    } else {
      listing.add({Shown(walk.path()), TypeOf(view), SummaryOf(view)});
    }
  }
  if (!raw) listing.finish();
}

int Tree(const Invocation& invocation, const TreeOptions& options) {
  if (invocation.format == Format::kJson && options.depth) {
    throw UsageError{"--depth does not go with --format json, which is always the whole branch."};
  }
  OpenDatabase database(invocation);
  const TarnRef node = database.node(options.path);
  Output out;
  switch (invocation.format) {
    case Format::kJson:
      JsonWriter(out).write(node);
      break;
    case Format::kTable:
    case Format::kRaw:
      WriteValues(out, node, options.depth.value_or(kUsualDepth),
                  invocation.format == Format::kRaw);
      break;
    default:
      WriteTree(out, options.path, node, options.depth.value_or(kUsualDepth));
  }
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddTree(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "tree", "Draw a branch with its values", "tarns -d data tree machines~press",
                 "tarns -d data --format table tree machines --depth 2");
  auto options = std::make_shared<TreeOptions>();
  command.add_option("PATH", options->path, "The branch; without it everything");
  command.add_option("--depth", options->depth, "Go down so many levels (default 64)")
      ->check(CLI::NonNegativeNumber);
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Tree(invocation, *options); };
  });
}

}  // namespace tarns
