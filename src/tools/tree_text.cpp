#include "tools/tree_text.h"

#include <string>
#include <vector>

#include "tools/BranchWalk.h"
#include "tools/Listing.h"
#include "tools/shown_text.h"

namespace tarns {

namespace {

std::string Described(const NodeView& view) {
  if (view.value && view.numChildren == 0) return " = " + SummaryOf(view);
  const std::string type = view.isPlain ? "" : " [" + TypeOf(view) + "]";
  return view.value ? type + " = " + SummaryOf(view) : type;
}

}  // namespace

void WriteTree(Output& out, std::string_view title, const TarnRef& node, std::size_t depth) {
  const auto write = [&](std::string line) {
    out << (out.isTerminal() ? CutToWidth(std::move(line), out.getColumns()) : line) << '\n';
  };
  write((title.empty() ? "(root)" : Shown(title)) + Described(NodeView(node)));
  BranchWalk walk(node);
  std::vector<bool> isLast;  // of the levels above
  while (const BranchWalk::Step* step = walk.next()) {
    isLast.resize(step->depth - 1);
    std::string line;
    for (const bool wasLast : isLast) line += wasLast ? "    " : "│   ";
    line += step->isLast ? "└── " : "├── ";
    isLast.push_back(step->isLast);
    const NodeView view(step->node);
    line += Shown(step->name) + Described(view);
    if (step->isCircle) {
      line += " (a node above)";
    } else if (step->depth >= depth) {
      if (view.numChildren != 0 && !view.value) line += " " + SummaryOf(view);
      walk.skipChildren();
    }
    write(std::move(line));
  }
}

}  // namespace tarns
