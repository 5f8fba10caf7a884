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
  // Makes a member and inserts it. Throws usage for a name that is too long.
  ref<set_member> add(std::string_view name, object_ref target);

  // Finds the entry of `member`, applies `change` to it and returns true. `change` may erase the
  // entry, in which case pages are merged.
  using entry_change = std::function<void(index_page& leaf, std::size_t at)>;
  bool change(std::string_view name, const object_ref& member, const entry_change& change);

  // Gives the entry of `member` the name `next` where it stands, behind others of that name unless
  // `is_unique`. False, and nothing changed, when it would have to move for that, or is not there.
  // The member keeps its key.
  bool rename(std::string_view name, const object_ref& member, std::string_view next,
              bool is_unique);

 private:
  // A page that was split off behind another one.
  struct new_page {
    std::string bound;
    ref<B_page> page;
    std::uint64_t count;
  };

  static object_ref page_below(const index_page& above, std::size_t at);
  std::optional<new_page> insert_below(index_page& page, std::string_view name, ref_word member,
                                       ref_word target);
  bool change_below(index_page& page, std::string_view name, const object_ref& member,
                    const entry_change& change);

  bool is_place_of(std::string_view name, const index_page& leaf, std::size_t at,
                   bool is_unique) const;

  bool is_too_large(const index_page& page) const;
  static std::size_t split_position(const index_page& page, std::size_t changed_at);
  new_page split(index_page& page, std::size_t changed_at);
  void split_root(std::size_t changed_at);
  void merge_around(index_page& above, std::size_t at, std::size_t size);
  bool merge(index_page& above, std::size_t left);
  void collapse_root();

  // The bounds of the page that change_below() is at; nothing: there is none on that side.
  struct bounds {
    std::optional<std::string_view> lower, upper;
  };

  B_tree& tree_;
  std::size_t capacity_;  // entries of a page
  bounds bounds_;
};

}  // namespace goods
