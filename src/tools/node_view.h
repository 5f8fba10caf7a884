// What the command looks at of a node.
#pragma once

#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tarns {

// A node's class and value at one time.
struct NodeView {
  explicit NodeView(const TarnRef& node);

  std::string className;
  std::optional<TarnData> value;
  std::size_t numChildren;  // abstract ones
  bool isPlain;             // a plain node or the root: neither value nor members
  bool isPlainValue;        // of the class that the value's type has by itself
};

// The members of an application's class, elements of arrays singly. A null text and a null
// reference have the type None; an enumeration gives its number.
struct MemberValue {
  std::string name;
  TarnData value;
};
// Throws when a member refers to another node, or to anything else that is no text.
std::vector<MemberValue> MembersOf(const TarnRef& node);
// One of them; throws likewise, and 7 when there is no such member.
TarnData MemberOf(const TarnRef& node, const std::string& name);

// The children of a node one after the other: in the order of their names or, for an array that
// came from JSON and is complete, in the order of its elements.
class ChildSource {
 public:
  explicit ChildSource(const TarnRef& node);

  // Nothing when there are no more.
  std::optional<TarnChild> next();
  bool isAtEnd() const;
  // Whether the children are the elements of a complete array.
  bool isArray() const { return isArray_; }

 private:
  TarnRef node_;
  bool isArray_;
  std::size_t element_ = 0;  // the next one
  std::size_t numElements_ = 0;
  TarnChildren::Iterator place_;
};

}  // namespace tarns
