#pragma once

#include <tarns/core/TarnObject.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tools/Output.h"
#include "tools/SharedNodes.h"
#include "tools/node_view.h"

namespace tarns {

// Writes branches as JSON, from which import makes the same branch again; see docs/json-form.md.
//
// Streams: of each level that is open it holds a batch of children. Does not recurse.
// Errors: TarnException for what JSON cannot express, a branch that contains itself or lists a node
// with children more than once among it; what was written until then stays written.
class JsonWriter {
 public:
  // `wrote`: called after each node, with the number of values so far.
  explicit JsonWriter(Output& out, std::function<void(std::uint64_t)> wrote = {})
      : out_(out), wrote_(std::move(wrote)) {}

  // The branch as one JSON value, with a line break behind it.
  void write(const TarnRef& node);

  std::uint64_t getCount() const { return count_; }  // values written

 private:
  struct Level {
    TarnRef node;
    ChildSource children;
    std::string name;  // of the child that is being written
    std::size_t ordinal = 1;
    bool isEmpty = true;  // nothing has been written yet
  };

  void begin(const TarnRef& node);
  void beginLevel(const TarnRef& node, const NodeView& view);
  void writeOwn(const TarnRef& node, const NodeView& view);
  void writeMember(std::string_view key, std::string_view json);
  void endLevel();
  void breakLine();
  std::vector<MemberValue> membersOf(const TarnRef& node) const;
  std::string path() const;
  std::string pathOfChild() const;
  void verifyNotShared(const TarnRef& child);
  [[noreturn]] void throwCircle() const;

  Output& out_;
  std::function<void(std::uint64_t)> wrote_;
  std::vector<Level> levels_;
  std::unordered_set<const void*> openNodes_;  // handles, which levels_ holds
  std::optional<SharedNodes> shared_;
  std::uint64_t count_ = 0;
};

}  // namespace tarns
