// A place in an index, to look around from.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <goods/B_tree.h>
#include <goods/index_page.h>
#include <goods/reader.h>

namespace goods {

// Throws corrupt_data: pages of an index do not fit together.
[[noreturn]] void throw_contradiction();

// Points at an entry or behind the last one, and knows the pages above. Trusts no stored page:
// levels must go down one by one, so that a walk ends whatever refers to what. Threads: one. Valid
// as long as the reader.
class B_tree_walk {
 public:
  B_tree_walk(reader& in, const B_tree& tree) : in_(in), root_(tree.root()) {}

  // At the first entry whose name is not less (greater) than `name`, or at the end.
  void seek_lower(std::string_view name);
  void seek_upper(std::string_view name);
  void seek_index(std::uint64_t index);
  void seek_end();
  // At the entry that comes after `position` (at the one before which `position` is).
  void seek_behind(const index_position& position);
  void seek_before(const index_position& position);

  // From now on the place of the first entry whose name is not less than `name` counts as the end.
  // The name outlives the walk; empty: no such limit. To be called before a seek.
  void end_at(std::string_view name) { limit_ = name; }

  bool at_end() const { return leaf().at >= leaf_end_; }
  // The entry here, or one that is so many further on this page.
  index_entry entry(std::size_t ahead = 0) const {
    const place& here = leaf();
    const std::size_t at = here.at + ahead;
    return {here.page->name(at), here.page->member(at), here.page->target(at)};
  }
  // The number of entries from here to the end of the page, or of the walk.
  std::size_t left_on_page() const { return leaf_end_ - std::min(leaf().at, leaf_end_); }
  void next();      // requires !at_end()
  bool previous();  // false, and nothing changed, at the first entry

  // The number of entries before this place.
  std::uint64_t index() const;

 private:
  struct place {
    const index_page* page;
    std::size_t at;
  };
  const place& leaf() const { return places_[depth_]; }
  // At the entry of `position`; false when there is none.
  bool seek(const index_position& position);
  // At the last (first) entry of the name that is among `members`; false when there is none.
  bool seek_last(std::string_view name, const std::vector<ref<set_member>>& members);
  bool seek_first(std::string_view name, const std::vector<ref<set_member>>& members);
  void start();
  bool is_on_leaf() const { return places_[depth_].page->is_leaf(); }
  void enter(std::size_t at);  // goes down into a page of this one
  void settle();               // from behind a leaf's last entry to the next leaf's first
  void arrive();               // on a leaf: finds out where it ends

  reader& in_;
  const index_page& root_;
  std::string_view limit_;    // see end_at()
  std::size_t leaf_end_ = 0;  // in the leaf
  std::size_t depth_ = 0;
  std::array<place, index_page::max_level + 1> places_;
};

}  // namespace goods
