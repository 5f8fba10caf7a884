// A branch as text that shows whether all of it is there, and which one it is.
#pragma once

#include <tarns/session/TarnManager.h>

#include <cstdint>
#include <sstream>
#include <string>

// Groups of values, all of which say the branch's number.
class NumberedBranch {
 public:
  static constexpr const char* kPath = "imported~branch";
  static constexpr std::size_t kNodesAtATime = 100;

  explicit NumberedBranch(int groups) : groups_(groups) {}

  void import(tarns::TarnManager& manager, int number) const {
    std::istringstream stream(text(number));
    tarns::PInOut in;
    in.readFrom(stream);
    manager.importTo(kPath, in, nullptr, kNodesAtATime);
  }

  // Of the branch that is there: 0 when there is none, -1 when it is not whole.
  int numberOf(const tarns::TarnManager& manager) const {
    const tarns::TarnRef branch = manager.getObject(kPath);
    if (branch.is_null()) return 0;
    int number = 0, groups = 0;
    for (const auto& [name, group] : branch->children()) {
      if (group->getNumChildren() != kValues) return -1;
      for (const auto& [key, value] : group->children()) {
        const int found = value->getSint32(nullptr);
        if (number != 0 && found != number) return -1;
        number = found;
      }
      ++groups;
    }
    return groups == groups_ ? number : -1;
  }

 private:
  static constexpr unsigned kValues = 7;

  std::string text(int number) const {
    std::string lines = "TarnObject branch\n  Children {\n";
    for (int group = 0; group < groups_; ++group) {
      lines += "    TarnObject g" + std::to_string(group) + "\n      Children {\n";
      for (unsigned value = 0; value < kValues; ++value) {
        lines += "        TarnSint32Value v" + std::to_string(value) + "\n          Value " +
                 std::to_string(number) + "\n";
      }
      lines += "      }\n";
    }
    return lines + "  }\n";
  }

  const int groups_;
};
