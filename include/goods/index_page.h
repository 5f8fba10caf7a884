// The entries of one page of an index, in memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include <goods/field_descriptor.h>
#include <goods/object.h>
#include <goods/object_ref.h>

namespace goods {

// An entry as it stands in a page; valid as long as what it was read through.
struct index_entry {
  std::string_view name;
  ref_word member;  // a set_member
  ref_word target;  // the object that the entry stands for
};

// Entries in byte-wise unsigned order of their names, equal names in the order of their insertion.
//
// A leaf (level 0) holds members and the objects that they stand for. A page of a higher level
// holds pages of the level below: the entry's name is a bound, not less than any name in the pages
// before it and not greater than any in its own; `count` is the number of members below it. The
// bound of a page's first entry is never looked at.
//
// Memory: one allocation for the entries, one for the names. Beside each entry stand the eight
// bytes of its name (big-endian) that follow the part that all names of the page begin with, so
// that a search rarely looks at names. Ownership: the words count the handles that they hold.
// Threads: as the body that it is part of.
class GOODS_API index_page {
 public:
  static constexpr unsigned max_level = 63;

  explicit index_page(unsigned level = 0) : level_(static_cast<std::uint8_t>(level)) {}
  index_page(const index_page& other);  // takes no more memory than needed
  index_page(index_page&& other) noexcept;
  index_page& operator=(const index_page& other);
  index_page& operator=(index_page&& other) noexcept;
  ~index_page();
  void swap(index_page& other) noexcept;

  unsigned level() const { return level_; }
  bool is_leaf() const { return level_ == 0; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::size_t name_bytes() const { return names_used_ - names_unused_; }
  std::size_t heap_bytes() const;

  std::string_view name(std::size_t i) const {
    const std::uint64_t span = spans()[i];
    return {names_.get() + (span >> 32), static_cast<std::size_t>(span & 0xFFFFFFFF)};
  }
  ref_word member(std::size_t i) const { return to_word(firsts()[i]); }   // of a leaf
  ref_word target(std::size_t i) const { return to_word(seconds()[i]); }  // of a leaf
  ref_word page(std::size_t i) const { return to_word(firsts()[i]); }     // of a higher level
  std::uint64_t count(std::size_t i) const { return seconds()[i]; }       // of a higher level
  std::uint64_t total() const;  // members in it or below it

  // The first entry whose name is not less (greater) than `name`; size() when there is none.
  std::size_t lower_bound(std::string_view name) const { return bound<false>(name); }
  std::size_t upper_bound(std::string_view name) const { return bound<true>(name); }

  void insert_member(std::size_t at, std::string_view name, ref_word member, ref_word target);
  void insert_page(std::size_t at, std::string_view bound, ref_word page, std::uint64_t count);
  void set_member_at(std::size_t at, ref_word member, ref_word target);
  void set_count(std::size_t at, std::uint64_t count) { seconds()[at] = count; }
  void erase(std::size_t at);
  void clear() { *this = index_page(level_); }

  // Moves the entries from `at` on (0 < at < size()) into a page of their own.
  index_page split_off(std::size_t at);
  // Puts the entries of `next`, which follow all of this page, behind them.
  // `first_bound`: the bound of the first of them, for pages of a higher level.
  void append(index_page&& next, std::string_view first_bound);

  // The varying parts; the level is a fixed member.
  void pack(byte_writer& out, object_id self) const;
  // Into an empty page whose level is set. Checks order, names and counts; throws corrupt_data.
  void unpack(byte_reader& in);
  // The first entry of this name in the varying parts of a leaf, without unpacking them: what is
  // passed is checked, what comes after the name is not looked at. The entry's name points into the
  // bytes.
  static std::optional<index_entry> find_packed(byte_reader in, std::string_view name);
  void visit(ref_visitor& visitor);
  // Adds the members of a page that is part of `owner` to its description.
  void describe(field_descriptor*& list, const object& owner) const;

  // Before the page goes away: its transient members forget the index that they were in.
  void forget_members() noexcept;

 private:
  static ref_word to_word(std::uint64_t bits) { return std::bit_cast<ref_word>(bits); }
  const std::uint64_t* prefixes() const { return room_.get(); }
  const std::uint64_t* firsts() const { return room_.get() + capacity_; }
  const std::uint64_t* seconds() const { return room_.get() + 2 * std::size_t{capacity_}; }
  const std::uint64_t* spans() const { return room_.get() + 3 * std::size_t{capacity_}; }
  std::uint64_t* prefixes() { return room_.get(); }
  std::uint64_t* firsts() { return room_.get() + capacity_; }
  std::uint64_t* seconds() { return room_.get() + 2 * std::size_t{capacity_}; }
  std::uint64_t* spans() { return room_.get() + 3 * std::size_t{capacity_}; }

  template <bool Upper>
  std::size_t bound(std::string_view name) const;
  // Adds an entry without counting what it holds, and without keeping prefixes.
  void place(std::size_t at, std::string_view name, std::uint64_t first, std::uint64_t second);
  void place_last(std::string_view name, std::uint64_t first, std::uint64_t second);
  void close_gap(std::size_t at);
  void resize_room(std::size_t capacity);
  void resize_names(std::size_t capacity);  // drops what is unused
  std::uint64_t add_name(std::string_view name);
  void release_words() noexcept;

  // Prefixes. The first name of a page of a higher level takes no part.
  std::size_t first_compared() const { return is_leaf() ? 0 : 1; }
  std::uint64_t prefix_of(std::string_view name) const;
  void keep_prefixes(std::size_t at);
  void set_skip(std::size_t skip);
  void find_skip();

  std::unique_ptr<std::uint64_t[]> room_;  // prefixes, firsts, seconds, spans: capacity_ of each
  std::unique_ptr<char[]> names_;
  std::uint32_t capacity_ = 0, size_ = 0;
  std::uint32_t names_capacity_ = 0, names_used_ = 0, names_unused_ = 0;
  std::uint32_t skip_ = 0;  // all names begin with the same skip_ bytes; prefixes follow those
  std::uint8_t level_ = 0;
};

}  // namespace goods
