// A branch as it was at one look, to be compared with the next.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/services/TarnBranchWatch.h>

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarns {

// Something that is different between two looks.
struct LookChange {
  TarnBranchChange::Kind kind;  // never Lost
  std::string path;
  std::string from;       // of what has moved
  std::string className;  // empty for what is removed
  std::string value;      // as the look was told to keep values; empty for none
};

// All nodes of a branch by path, with class and value; of children of one name the first. Of a
// class with members these count as its value.
// Memory: names and values of the branch.
class BranchLook {
 public:
  BranchLook() = default;
  // `node`: what is at `path`; null when nothing is. Values are kept as text, or as JSON.
  BranchLook(const std::string& path, const TarnRef& node, bool asJson);

  // What has become different since `before`: what is gone (without what was below it), has moved
  // (likewise), has come and has changed, each in the order of paths. Nodes are told apart by their
  // numbers.
  std::vector<LookChange> since(const BranchLook& before) const;

 private:
  struct Seen {
    std::uint64_t id;
    std::string className;
    std::string value;
  };
  void add(const std::string& path, const TarnRef& node, std::string className, std::string value);
  const Seen* find(const std::string& path) const;
  const std::string* pathOf(const Seen& seen) const;

  std::map<std::string, Seen> nodes_;
  std::unordered_map<std::uint64_t, std::string> paths_;  // by number
};

}  // namespace tarns
