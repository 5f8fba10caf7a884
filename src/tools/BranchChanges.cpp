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

using Counts = std::unordered_map<std::string_view, long>;

Counts CountsOf(const std::vector<std::string>& lines) {
  Counts counts;
  for (const std::string& line : lines) ++counts[line];
  return counts;
}

// Adds those of `lines` that the others do not have.
void AddMissing(const std::vector<std::string>& lines, Counts others, char sign,
                std::vector<std::string>& changes) {
  for (const std::string& line : lines) {
    if (--others[line] < 0) changes.push_back(std::string(1, sign) + " " + line);
  }
}

}  // namespace

std::vector<std::string> BranchChanges(const std::string& before, const std::string& after) {
  const std::vector<std::string> old = LinesOf(before), fresh = LinesOf(after);
  std::vector<std::string> changes;
  AddMissing(old, CountsOf(fresh), '-', changes);
  AddMissing(fresh, CountsOf(old), '+', changes);
  return changes;
}

}  // namespace tarns
