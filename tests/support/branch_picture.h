#pragma once

#include <gtest/gtest.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// What a branch is, looked at through nodes and not through text: for each place that leads to a
// node its class, value and members, or the place where the node was met before. Two branches are
// the same when their pictures are equal; NaNs are all alike.
class branch_picture {
 public:
  // Adds what only the test knows of a class.
  using Line = std::pair<std::string, std::string>;  // behind the node's place, and what is there
  using Details = std::function<std::vector<Line>(const tarns::TarnRef& node)>;

  explicit branch_picture(const tarns::TarnRef& top, const Details& details = {}) {
    std::vector<std::pair<std::string, tarns::TarnRef>> open{{"", top}};
    while (!open.empty()) {
      const auto [path, node] = open.back();
      open.pop_back();
      const auto [met, isNew] = met_.emplace(node.handle(), path);
      held_.push_back(node);
      if (!isNew) {
        lines_[path] = "same as " + met->second;
        continue;
      }
      tarns::TarnData value;
      lines_[path] =
          node->getType() + (node->get(nullptr, value) ? " " + Bits(value) : std::string());
      addMembers(path, node, open);
      if (details) {
        for (const auto& [place, line] : details(node)) lines_[path + place] = line;
      }
      std::map<std::string, int> numbers;
      for (const auto& [name, child] : node->children()) {
        const int number = numbers[name]++;
        const std::string below = path + "~" + name + "#" + std::to_string(number);
        lines_[below + "?"] = child->getParent() == node ? "at home" : "listed";
        open.emplace_back(below, child);
      }
    }
  }

  friend bool operator==(const branch_picture& left, const branch_picture& right) {
    return left.lines_ == right.lines_;
  }
  // The lines that only one of them has, for messages.
  std::string differences(const branch_picture& other) const {
    std::string text;
    for (const auto& [path, line] : lines_) text += other.missing("- ", path, line);
    for (const auto& [path, line] : other.lines_) text += missing("+ ", path, line);
    return text;
  }
  friend void PrintTo(const branch_picture& picture, std::ostream* out) {
    for (const auto& [path, line] : picture.lines_) *out << path << " : " << line << '\n';
  }

 private:
  std::string missing(const char* sign, const std::string& path, const std::string& line) const {
    const auto found = lines_.find(path);
    if (found != lines_.end() && found->second == line) return {};
    return sign + testing::PrintToString(path) + " : " + testing::PrintToString(line) + "\n";
  }

  static std::string Bits(const tarns::TarnData& value) {
    std::string text = value.getTypeAsString();
    if (value.isRealNumber()) {
      const double number = value.getDouble();
      return text + (std::isnan(number)
                         ? " nan"
                         : " " + std::to_string(std::bit_cast<std::uint64_t>(number)));
    }
    return text + " " + std::string(value.getText());
  }

  void addMembers(const std::string& path, const tarns::TarnRef& node,
                  std::vector<std::pair<std::string, tarns::TarnRef>>& open) {
    const auto body = *node;
    const unsigned long count = body->getClass().getNumDataMembers();
    for (unsigned long i = 0; i < count; ++i) {
      const tarns::XString name = body->getChildName(i);
      const std::string below = path + "." + std::string(name.view());
      const tarns::TarnFieldDescriptor* field = body->getClass().findMember(name.getText());
      tarns::TarnRef target;
      if (field->isForNodes()) field->copyFrom(&*body, target, name);
      if (!target.is_null()) {
        open.emplace_back(below, target);
        continue;
      }
      tarns::TarnData value(tarns::TarnData::Uint64);
      if (field->getValue(*body, name, value)) lines_[below] = Bits(value);
    }
  }

  std::map<std::string, std::string> lines_;
  std::map<const void*, std::string> met_;
  std::vector<tarns::TarnRef> held_;
};
