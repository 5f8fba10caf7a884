#pragma once

#include <goods/set_member.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace tarns {

// A child as a range over children hands it out.
struct TarnChild {
  std::string name;
  xcptref<TarnObject> child;  // not loaded yet
};

// The abstract children of a node as a range, in the order of their names:
//
//   for (const auto& [name, child] : node->children()) ...
//
// Fetches a batch at a time and holds nothing in between, so the body of the loop may do anything.
// Each batch is of one state of the database; a child that is added or removed while the loop runs
// may or may not be met, every other one is met once. For one state throughout: a transaction.
// Threads: one at a time.
class TARNS_API TarnChildren {
 public:
  static constexpr std::size_t kBatchSize = 128;

  class TARNS_API Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = TarnChild;
    using difference_type = std::ptrdiff_t;
    using reference = const TarnChild&;
    using pointer = const TarnChild*;

    Iterator() = default;
    explicit Iterator(xcptref<TarnObjects> index);

    const TarnChild& operator*() const { return batch_[at_]; }
    const TarnChild* operator->() const { return &batch_[at_]; }
    Iterator& operator++();
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return at_ == batch_.size(); }

   private:
    void fetch();

    xcptref<TarnObjects> index_;
    std::vector<TarnChild> batch_;
    std::optional<goods::index_position> last_;  // the entry of the batch's last child
    std::size_t at_ = 0;
    bool isLastBatch_ = true;
  };

  explicit TarnChildren(xcptref<TarnObjects> index) : index_(std::move(index)) {}
  Iterator begin() const { return Iterator(index_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  xcptref<TarnObjects> index_;  // null for a node without children
};

}  // namespace tarns
