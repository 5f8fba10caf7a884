#pragma once

#include <goods/ref.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

#include <string>
#include <vector>

namespace goods {
class set_member;
struct held_entry;
}  // namespace goods

namespace tarns {

class TarnObject;
class TarnObjects;
class XString;

// A place among the abstract children of a node, which are in the order of their names; or null: at
// no child, which is what moving past either end gives and what no movement leaves.
//
// A child that is removed while an iterator stands at it is still there for the iterator, which
// goes on at the children that come next. Where several children bear its name, it goes on behind
// those of them that it has passed. Threads: one at a time. Each function sees what is
// committed, or its thread's transaction.
class TARNS_API TarnIterator {
 public:
  TarnIterator() = default;  // null
  TarnIterator(xcptref<TarnObjects> children, const goods::held_entry& entry);

  // The current child, and its name when `name` is not null. A null reference, and `name` without
  // text, when the iterator is null.
  xcptref<TarnObject> get(XString* name) const;
  // As get(), then moves to the next child (the one before).
  xcptref<TarnObject> next(XString* name);
  xcptref<TarnObject> back(XString* name);

  void copyName(XString& name) const;
  bool isNull() const { return entry_.is_null(); }
  bool isAtTop() const;     // at the first child
  bool isAtBottom() const;  // at the last child
  void nullify();

  // Whether both stand at the same entry, or both at none.
  friend bool operator==(const TarnIterator& left, const TarnIterator& right) {
    return left.entry_ == right.entry_;
  }

  const goods::ref<goods::set_member>& getEntry() const { return entry_; }
  const std::string& getEntryName() const { return name_; }

 private:
  enum class Direction { kForward, kBackward };
  void move(Direction direction);
  void moveTo(const goods::held_entry& entry, Direction direction);
  bool isAtEnd(Direction direction) const;

  xcptref<TarnObjects> children_;
  goods::ref<goods::set_member> entry_;
  std::string name_;
  // Entries of the same name that were passed before, behind this one, the nearest last.
  std::vector<goods::ref<goods::set_member>> before_, behind_;
};

}  // namespace tarns
