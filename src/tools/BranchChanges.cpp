#include "tools/BranchChanges.h"

#include <tarns/util/PInOut.h>

#include <sstream>
#include <string_view>
#include <unordered_map>

namespace tarns {

namespace {

// The lines of a text, each with the path of the node that it belongs to.
std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  if (text.empty()) return lines;
  std::istringstream stream(text);
  PInOut in;
  in.readFrom(stream);
  std::vector<std::string> names;  // what stands at each level
  while (!in.isAtEnd()) {
    const std::size_t level = in.getLineLevel();
    in.setLevel(level);
    const std::string command = in.getCommand();
    const std::string value = in.getValue();
    names.resize(level + 1);
    std::string path;
    for (std::size_t i = 1; i < level; ++i) {
      if (names[i].empty()) continue;
      if (!path.empty()) path += '~';
      path += names[i];
    }
    const bool isList = value == "{" || command == "}";
    names[level] = isList ? std::string() : in.hasValue() ? value : command;
    if (!isList) {
      if (!path.empty()) path += ": ";
      path += command;
      if (in.hasValue()) path.append(" ").append(value);
      lines.push_back(path);
    }
    in.readLine();
  }
  return lines;
}

using Lines = std::vector<std::string>;

// Which of `lines` the others have as well.
std::vector<bool> FoundIn(const Lines& others, const Lines& lines) {
  std::unordered_map<std::string_view, long> counts;
  for (const std::string& line : others) ++counts[line];
  std::vector<bool> found;
  found.reserve(lines.size());
  for (const std::string& line : lines) found.push_back(--counts[line] >= 0);
  return found;
}

// Adds the lines from `at` on up to one that both texts have, and moves behind that.
void AddMissing(const Lines& lines, const std::vector<bool>& found, char sign, std::size_t& at,
                Lines& changes) {
  for (; at < lines.size() && !found[at]; ++at) {
    changes.push_back(std::string(1, sign) + " " + lines[at]);
  }
  ++at;
}

}  // namespace

// Both texts have as many lines in common, and mostly in the same order.
std::vector<std::string> BranchChanges(const std::string& before, const std::string& after) {
  const Lines old = LinesOf(before), fresh = LinesOf(after);
  const std::vector<bool> kept = FoundIn(fresh, old), known = FoundIn(old, fresh);
  Lines changes;
  for (std::size_t i = 0, j = 0; i < old.size() || j < fresh.size();) {
    AddMissing(old, kept, '-', i, changes);
    AddMissing(fresh, known, '+', j, changes);
  }
  return changes;
}

}  // namespace tarns
