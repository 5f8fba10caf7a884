#include "tools/tree_text.h"

#include <string>
#include <vector>

#include "tools/BranchWalk.h"
#include "tools/Listing.h"
#include "tools/shown_text.h"

namespace tarns {

namespace {

// Lines of levels further up are not drawn: a tree may be a million levels deep.
constexpr std::size_t kMostLines = 100;

std::string LinesOf(const std::vector<bool>& isLast) {
  const bool isCut = isLast.size() > kMostLines;
  std::string lines = isCut ? "… " : "";
  for (std::size_t i = isCut ? isLast.size() - kMostLines : 0; i < isLast.size(); ++i) {
    lines += isLast[i] ? "    " : "│   ";
  }
  return lines;
}

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
  const NodeView top(node);
  const bool isCounted = depth == 0 && top.numChildren != 0 && !top.value;
  write((title.empty() ? "(root)" : Shown(title)) + Described(top) +
        (isCounted ? " " + SummaryOf(top) : ""));
  if (depth == 0) return;
  BranchWalk walk(node);
  std::vector<bool> isLast;  // of the levels above
  while (const BranchWalk::Step* step = walk.next()) {
    isLast.resize(step->depth - 1);
    std::string line = LinesOf(isLast);
    line += step->isLast ? "└── " : "├── ";
    isLast.push_back(step->isLast);
    const NodeView view(step->node);
    line += Shown(step->name) + Described(view);
    if (step->isCircle) {
      line += " (a node above)";
    } else if (step->isElsewhere) {
      line += " (the node at " + Shown(PlaceOf(step->node)) + ")";
    } else if (step->depth >= depth) {
      if (view.numChildren != 0 && !view.value) line += " " + SummaryOf(view);
      walk.skipChildren();
    }
    write(std::move(line));
  }
}

}  // namespace tarns
