// Changes an index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <goods/B_page.h>
#include <goods/B_tree.h>

namespace goods {

// One change of an index whose body the caller holds for writing. Pages are opened for writing on
// the way down. What throws leaves pages that fit together, without the change. Threads: one.
class B_tree_writer {
 public:
  explicit B_tree_writer(B_tree& tree);

  void insert(std::string_view name, ref_word member, ref_word target);

  // Finds the entry of `member`, applies `change` to it and returns true. `change` may erase the
  // entry, in which case pages are merged.
  using entry_change = std::function<void(index_page& leaf, std::size_t at)>;
  bool change(std::string_view name, const object_ref& member, const entry_change& change);

 private:
  // A page that was split off behind another one.
  struct new_page {
    std::string bound;
    ref<B_page> page;
    std::uint64_t count;
  };

  static ref<B_page> page_below(const index_page& above, std::size_t at);
  std::optional<new_page> insert_below(index_page& page, std::string_view name, ref_word member,
                                       ref_word target);
  bool change_below(index_page& page, std::string_view name, const object_ref& member,
                    const entry_change& change);

  bool is_too_large(const index_page& page) const;
  static std::size_t split_position(const index_page& page, std::size_t changed_at);
  new_page split(index_page& page, std::size_t changed_at);
  void split_root(std::size_t changed_at);
  void merge_around(index_page& above, std::size_t at, std::size_t size);
  bool merge(index_page& above, std::size_t left);
  void collapse_root();

  B_tree& tree_;
  std::size_t capacity_;  // entries of a page
};

}  // namespace goods
