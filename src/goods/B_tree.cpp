#include <goods/B_tree.h>

#include <algorithm>
#include <utility>

#include <goods/byte_reader.h>
#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/metaobject.h>
#include <goods/object_handle.h>

#include "goods/B_tree_walk.h"
#include "goods/B_tree_writer.h"
#include "goods/prototype.h"

namespace goods {
namespace {

constexpr std::size_t iteration_batch = 256;

held_entry hold(const index_entry& entry) {
  return {std::string(entry.name), ref<set_member>::trusted(keep_word(entry.member)),
          keep_word(entry.target)};
}

std::optional<held_entry> hold(const std::optional<index_entry>& entry) {
  if (!entry) return std::nullopt;
  return hold(*entry);
}

std::optional<index_entry> entry_at(const B_tree_walk& walk) {
  if (walk.at_end()) return std::nullopt;
  return walk.entry();
}

// Runs `work(reader, tree)` on the state of `tree` that belongs to the state of its pages.
template <class Work>
auto read_current(const B_tree& tree, const Work& work) {
  return read_here([&](reader& in) {
    const auto* current =
        static_cast<const B_tree*>(in.look(ref_word::of(tree.handle()), B_tree::self_class));
    return work(in, *current);
  });
}

}  // namespace

class_descriptor B_tree::self_class("B_tree", sizeof(B_tree), &pessimistic_scheme,
                                    construct_object<B_tree>, prototype_fields<B_tree>(),
                                    &set_owner::self_class);

B_tree::B_tree(class_descriptor& cls, const object_ref& owner, unsigned page_number)
    : set_owner(cls, owner), page_number_(static_cast<std::uint8_t>(std::min(page_number, 255U))) {}

B_tree::~B_tree() { root_.forget_members(); }

ref<B_tree> B_tree::create(const object_ref& owner, unsigned page_number) {
  return ref<B_tree>(new B_tree(self_class, owner, page_number));
}

void index_position::move_behind(const std::vector<held_entry>& batch) {
  if (batch.empty()) return;
  const held_entry& last = batch.back();
  std::size_t first = batch.size() - 1;  // of the last one's name
  while (first > 0 && batch[first - 1].name == last.name) --first;
  if (first > 0 || last.name != name) {
    before.clear();
  } else if (!member.is_null()) {
    before.push_back(std::move(member));
  }
  behind.clear();
  for (std::size_t i = first; i + 1 < batch.size(); ++i) before.push_back(batch[i].member);
  name = last.name;
  member = last.member;
}

// --- Reading
// ---------------------------------------------------------------------------------------

const index_page& B_tree::root() const {
  if (!packed_.at_end()) {
    byte_reader in = packed_;
    index_page page;
    page.unpack(in);
    if (!in.at_end()) in.fail("has bytes behind its end");
    root_ = std::move(page);
    packed_ = {};
  }
  return root_;
}

std::optional<index_entry> B_tree::find(reader& in, std::string_view name) const {
  if (!packed_.at_end()) return index_page::find_packed(packed_, name);
  B_tree_walk walk(in, *this);
  walk.seek_lower(name);
  if (walk.at_end()) return std::nullopt;
  const index_entry entry = walk.entry();
  if (entry.name != name) return std::nullopt;
  return entry;
}

std::optional<index_entry> B_tree::lower_bound(reader& in, std::string_view name) const {
  B_tree_walk walk(in, *this);
  walk.seek_lower(name);
  return entry_at(walk);
}

std::optional<index_entry> B_tree::at(reader& in, std::uint64_t index) const {
  B_tree_walk walk(in, *this);
  walk.seek_index(index);
  return entry_at(walk);
}

std::optional<index_entry> B_tree::last(reader& in) const {
  B_tree_walk walk(in, *this);
  walk.seek_end();
  if (!walk.previous()) return std::nullopt;
  return walk.entry();
}

std::uint64_t B_tree::rank(reader& in, std::string_view name) const {
  B_tree_walk walk(in, *this);
  walk.seek_lower(name);
  return walk.index();
}

std::vector<held_entry> B_tree::entries_after(reader& in, const index_position* position,
                                              std::size_t limit) const {
  B_tree_walk walk(in, *this);
  if (position == nullptr) {
    walk.seek_index(0);
  } else {
    walk.seek_behind(*position);
  }
  std::vector<held_entry> batch;
  for (; batch.size() < limit && !walk.at_end(); walk.next()) batch.push_back(hold(walk.entry()));
  return batch;
}

std::vector<held_entry> B_tree::entries_before(reader& in, const index_position* position,
                                               std::size_t limit) const {
  B_tree_walk walk(in, *this);
  if (position == nullptr) {
    walk.seek_end();
  } else {
    walk.seek_before(*position);
  }
  std::vector<held_entry> batch;
  while (batch.size() < limit && walk.previous()) batch.push_back(hold(walk.entry()));
  return batch;
}

std::optional<held_entry> B_tree::find(std::string_view name) const {
  return read_current(*this, [&](reader& in, const B_tree& t) { return hold(t.find(in, name)); });
}

std::optional<held_entry> B_tree::lower_bound(std::string_view name) const {
  return read_current(*this,
                      [&](reader& in, const B_tree& t) { return hold(t.lower_bound(in, name)); });
}

std::optional<held_entry> B_tree::at(std::uint64_t index) const {
  return read_current(*this, [&](reader& in, const B_tree& t) { return hold(t.at(in, index)); });
}

std::vector<held_entry> B_tree::entries_after(const index_position* position,
                                              std::size_t limit) const {
  return read_current(
      *this, [&](reader& in, const B_tree& t) { return t.entries_after(in, position, limit); });
}

std::vector<held_entry> B_tree::entries_before(const index_position* position,
                                               std::size_t limit) const {
  return read_current(
      *this, [&](reader& in, const B_tree& t) { return t.entries_before(in, position, limit); });
}

void B_tree::iterate(const ref<B_tree>& index,
                     const std::function<bool(const held_entry&)>& visit) {
  std::optional<index_position> position;
  while (true) {
    const std::vector<held_entry> batch = read_here([&](reader& in) {
      const B_tree* const tree = in.get(index);
      return tree->entries_after(in, position ? &*position : nullptr, iteration_batch);
    });
    for (const held_entry& entry : batch) {
      if (!visit(entry)) return;
    }
    if (batch.size() < iteration_batch) return;
    if (!position) position.emplace(std::string_view());
    position->move_behind(batch);
  }
}

// --- Writing
// ---------------------------------------------------------------------------------------

void B_tree::insert(const ref<set_member>& member) {
  const write_access<set_member> access = modify(member);
  if (!access->owner_word().is_null()) {
    throw_error(error_code::usage, "A member of a set cannot be inserted into another one.");
  }
  if (handle()->is_transient() && !member.handle()->is_transient()) {
    throw_error(error_code::usage, "A stored member cannot enter an index that is not stored.");
  }
  // With the member's handle, which the page counts until it is stored.
  B_tree_writer(*this).insert(access->key(), ref_word::of(member.handle()), access->target_word());
  access->join(ref<set_owner>(this));
}

bool B_tree::remove(const ref<set_member>& member) {
  const write_access<set_member> access = modify(member);
  const bool removed = B_tree_writer(*this).change(
      access->key(), member, [](index_page& leaf, std::size_t at) { leaf.erase(at); });
  if (!removed) return false;
  access->leave();
  note_relinked();
  return true;
}

void B_tree::remove_all() {
  root_.forget_members();
  root_ = index_page();
  set_count(0);
  note_relinked();
}

bool B_tree::replace(const ref<set_member>& member, const ref<set_member>& next) {
  const write_access<set_member> old_access = modify(member);
  const write_access<set_member> access = modify(next);
  if (!access->owner_word().is_null()) {
    throw_error(error_code::usage, "A member of a set cannot be inserted into another one.");
  }
  if (access->key() != old_access->key()) {
    if (!remove(member)) return false;
    insert(next);
    return true;
  }
  const object_ref entered(next.handle());
  const bool replaced =
      B_tree_writer(*this).change(old_access->key(), member, [&](index_page& leaf, std::size_t at) {
        leaf.set_member_at(at, entered.word(), access->target_word());
      });
  if (!replaced) return false;
  old_access->leave();
  access->join(ref<set_owner>(this));
  note_relinked();
  return true;
}

bool B_tree::update(const ref<set_member>& member) {
  const read_access<set_member> access(member);
  const bool updated =
      B_tree_writer(*this).change(access->key(), member, [&](index_page& leaf, std::size_t at) {
        leaf.set_member_at(at, leaf.member(at), access->target_word());
      });
  if (updated) note_relinked();
  return updated;
}

// --- Stored form
// -----------------------------------------------------------------------------------

field_descriptor* B_tree::describe_components() {
  field_descriptor* list = set_owner::describe_components();
  describe_member(list, "page_number", *this, page_number_);
  root_.describe(list, *this);
  return list;
}

void B_tree::pack_varying(byte_writer& out, object_id self) const { root().pack(out, self); }

void B_tree::unpack_varying(byte_reader& in, object_id) {
  if (in.is_lasting() && root_.is_leaf()) {
    packed_ = in;
    if (in.get_count() != count()) in.fail("is an index with a wrong count");
    in.get_bytes(in.left());
    return;
  }
  root_.unpack(in);
  if (root_.total() != count()) in.fail("is an index with a wrong count");
}

void B_tree::copy_varying(const object& from) { root_ = static_cast<const B_tree&>(from).root(); }
void B_tree::visit_varying(ref_visitor& visitor) {
  root();
  root_.visit(visitor);
}

}  // namespace goods
