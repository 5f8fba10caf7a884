#pragma once

#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <string>

namespace tarns {

class TarnClassDescriptor;

// Goes through everything below a node: each node before its children, those in the order of their
// names. What a loop over children() for every node would give, and many times faster: nothing is
// kept in memory for what the walk only passes by.
//
//   for (const TarnBranchWalk::Step& step : TarnBranchWalk(node)) ...
//
//   TarnBranchWalk walk(node);
//   while (const TarnBranchWalk::Step* step = walk.next()) ...
//
// Reads a batch of steps at a time and holds nothing in between but the nodes above, so the body of
// the loop may do anything. Each batch is of one state of the database; a node that is added or
// removed while the walk goes on may or may not be met, every other one is met once. For one state
// throughout: a transaction.
// A node is not entered below itself, nor where the walk is told so. Does not recurse, however deep
// the tree is.
// Threads: one at a time. Errors: those of looking at the nodes; next() may then be called again.
class TARNS_API TarnBranchWalk {
 public:
  struct Step {
    std::string name;
    xcptref<TarnObject> node;  // not loaded
    const TarnClassDescriptor* cls = nullptr;
    std::size_t depth = 0;          // from 1 for a child of the node
    unsigned long numChildren = 0;  // abstract ones
    bool hasIndex = false;          // also true for one that is empty
    xcptref<TarnObject> lister;     // the node that lists it here; null where that is its place, so
                                    // that its parent link is this very entry
    bool hasValue = false;
    TarnData value;         // empty where there is none
    bool isLast = false;    // of its parent's children, or of those in the range
    bool isCircle = false;  // it is one of the nodes above it
  };

  // Children of the node where a walk begins: those whose names are not less than `from`, and less
  // than `to` unless that is empty.
  struct Range {
    std::string from, to;
  };

  explicit TarnBranchWalk(const xcptref<TarnObject>& from);
  // Goes through these children only, and what is below them.
  TarnBranchWalk(const xcptref<TarnObject>& from, Range range);
  TarnBranchWalk(TarnBranchWalk&& other) noexcept;
  TarnBranchWalk& operator=(TarnBranchWalk&& other) noexcept;
  ~TarnBranchWalk();

  // The next one, which is unchanged until the next call; null at the end.
  const Step* next();
  // Passes over what is below the step that next() gave last.
  void skipChildren();
  // The path of that step from the node where the walk began.
  std::string path() const;

  class Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = Step;
    using difference_type = std::ptrdiff_t;
    using reference = const Step&;
    using pointer = const Step*;

    explicit Iterator(TarnBranchWalk& walk) : walk_(&walk), step_(walk.next()) {}
    const Step& operator*() const { return *step_; }
    const Step* operator->() const { return step_; }
    Iterator& operator++() {
      step_ = walk_->next();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return step_ == nullptr; }

   private:
    TarnBranchWalk* walk_;  // outlives the iterator
    const Step* step_;
  };

  Iterator begin() { return Iterator(*this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  class Stack;

  std::unique_ptr<Stack> stack_;
};

}  // namespace tarns
