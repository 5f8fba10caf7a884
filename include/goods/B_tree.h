// A persistent index of named objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <goods/B_page.h>
#include <goods/byte_reader.h>
#include <goods/index_page.h>
#include <goods/reader.h>
#include <goods/ref.h>
#include <goods/set_member.h>
#include <goods/set_owner.h>

namespace goods {

// A copy of an entry. Its references hold identifiers where the page does: no handle is made before
// somebody copies or follows one. The classes are not checked: look through a reader, or take
// checked_cast().
struct held_entry {
  std::string name;
  ref<set_member> member;
  object_ref target;
};

// Where a walk through an index goes on: directly after (before) this entry. When the entry is gone
// by then: where it was, as far as the entries of its name that the walk has passed tell; where
// none of these remains, at the first (after the last) entry of its name, so that nothing is left
// out.
struct index_position {
  std::string name;
  ref<set_member> member;  // null: before the first (after the last) entry of this name
  // Entries of the same name that stood before, behind `member`, the nearest one last.
  std::vector<ref<set_member>> before, behind;

  explicit index_position(std::string_view text, ref<set_member> at = {})
      : name(text), member(std::move(at)) {}
  explicit index_position(const held_entry& entry) : name(entry.name), member(entry.member) {}

  // To the last one of the entries that come next in a walk forward; none leaves it where it is.
  void move_behind(const std::vector<held_entry>& batch);
};

// Members in the byte-wise unsigned order of their keys; equal keys are allowed, a new one goes
// after its equals. Finding, inserting, removing and the n-th entry take time logarithmic in the
// size.
//
// A small index lives inside this object. Beyond max(2n, 64) entries for page number n, or 64 KiB
// of names, it spreads over pages, each object of its own; a page takes as many entries as that,
// and as the index grows a sixteenth of its size, up to 292. A page that is full and grows at its
// end leaves its entries where they are, so that an ascending load fills pages. Pages that are left
// with few entries are merged, an empty index lives inside this object again.
//
// Reading: the functions with a reader are for cache_manager::read(). Those without work on a body
// held by an access in a transaction, on a transient index, and as single calls.
// Writing: call insert() and the others on the body of a write access: modify(index)->insert(m).
// They write every page on the way to the entry, since each keeps the number of entries below it.
// Errors: corrupt_data when stored pages contradict each other; usage for a member in the wrong
// set.
class GOODS_API B_tree : public set_owner {
 public:
  static class_descriptor self_class;
  static constexpr unsigned max_page_entries = 292;

  // A new transient index of `owner` (null is allowed), placed near it. `page_number`: see above.
  static ref<B_tree> create(const object_ref& owner, unsigned page_number);

  B_tree(object_handle* handle, class_descriptor& cls) : set_owner(handle, cls) {}
  ~B_tree() override;

  unsigned page_number() const { return page_number_; }
  // Levels of pages, this object's own included: 1 for a small index, also for an empty one.
  unsigned height() const { return root().level() + 1; }

  // The first entry of this name.
  std::optional<index_entry> find(reader& in, std::string_view name) const;
  // The first entry whose name is not less than `name`.
  std::optional<index_entry> lower_bound(reader& in, std::string_view name) const;
  // The entry with `index` entries before it.
  std::optional<index_entry> at(reader& in, std::uint64_t index) const;
  std::optional<index_entry> first(reader& in) const { return at(in, 0); }
  std::optional<index_entry> last(reader& in) const;
  // The number of entries whose names are less than `name`.
  std::uint64_t rank(reader& in, std::string_view name) const;
  // Up to `limit` entries after (before) `position`, in ascending (descending) order; without a
  // position from the first (last) one on. Fewer than `limit` mean that the end is reached.
  std::vector<held_entry> entries_after(reader& in, const index_position* position,
                                        std::size_t limit) const;
  std::vector<held_entry> entries_before(reader& in, const index_position* position,
                                         std::size_t limit) const;

  // The same for callers without a reader; they copy.
  std::optional<held_entry> find(std::string_view name) const;
  std::optional<held_entry> lower_bound(std::string_view name) const;
  std::optional<held_entry> at(std::uint64_t index) const;
  std::vector<held_entry> entries_after(const index_position* position, std::size_t limit) const;
  std::vector<held_entry> entries_before(const index_position* position, std::size_t limit) const;

  // Calls `visit` for every entry in order until it returns false. `visit` may do anything, change
  // the index included: each batch goes on after the last one (see index_position).
  static void iterate(const ref<B_tree>& index,
                      const std::function<bool(const held_entry&)>& visit);

  // Adds a member of no set. Throws usage when it is in one, and for a stored member when the index
  // itself is not stored yet.
  void insert(const ref<set_member>& member);
  // Removes a member; false when it is not in this index.
  bool remove(const ref<set_member>& member);
  // Removes all members at once, without visiting them.
  void remove_all();
  // Puts `next` in the place of `member`: at the very position when the keys are equal. False, and
  // nothing changed, when `member` is not in this index.
  bool replace(const ref<set_member>& member, const ref<set_member>& next);
  // Takes over the object of a member that was given another one; false when it is not in this
  // index.
  bool update(const ref<set_member>& member);

  field_descriptor* describe_components() override;
  void pack_varying(byte_writer& out, object_id self) const override;
  void unpack_varying(byte_reader& in, object_id self) override;
  void copy_varying(const object& from) override;
  void visit_varying(ref_visitor& visitor) override;
  std::size_t varying_bytes() const override { return root_.heap_bytes(); }

 protected:
  // For derived classes. Passing a null owner leaves set_owner's own reference empty.
  B_tree(class_descriptor& cls, const object_ref& owner, unsigned page_number);

 private:
  friend class B_tree_walk;
  friend class B_tree_writer;

  const index_page& root() const;

  std::uint8_t page_number_ = 2;
  // A guest (see guest_scope) is mostly asked for one name: its entries stay packed until more is
  // wanted. Only its reader sees it, so it may change while it is read. A derived class that may be
  // a guest has no varying parts of its own: what is left of the state is taken for entries.
  mutable index_page root_;
  mutable byte_reader packed_;  // nothing left: root_ is complete
};

}  // namespace goods
