#include "goods/B_tree_writer.h"

#include <algorithm>

#include <goods/errors.h>
#include <goods/object_handle.h>

#include "goods/B_tree_walk.h"

namespace goods {
namespace {

constexpr std::size_t most_name_bytes = 64 * 1024;  // in a page with more than a few entries
constexpr std::size_t few_entries = 4;
constexpr std::size_t small_index = 64;   // entries that are not worth pages of their own
constexpr std::size_t entry_weight = 16;  // what an entry takes beside its name
constexpr std::uint64_t entries_per_capacity = 16;

// The shortest text that is greater than `before` (or equal to `after`) and not greater than
// `after`.
std::string shortest_bound(std::string_view before, std::string_view after) {
  const std::size_t limit = std::min(before.size(), after.size());
  std::size_t common = 0;
  while (common < limit && before[common] == after[common]) ++common;
  return std::string(after.substr(0, common + 1));
}

// The page behind an access to the one that stands at `at` in `above`.
index_page& page_of(const write_access<B_page>& access, const index_page& above, std::size_t at) {
  index_page& page = access->page();
  if (page.level() + 1 != above.level() || page.empty() || page.total() != above.count(at)) {
    throw_contradiction();
  }
  return page;
}

bool is_same(ref_word word, const object_ref& reference) {
  if (word == reference.word()) return true;
  const object_id id = reference.id();
  return id != 0 && word.is_id() && word.id() == id;
}

}  // namespace

B_tree_writer::B_tree_writer(B_tree& tree) : tree_(tree) {
  const std::size_t least =
      std::clamp<std::size_t>(2 * tree.page_number(), small_index, B_tree::max_page_entries);
  const std::uint64_t wide = tree.count() / entries_per_capacity;
  capacity_ = std::clamp<std::uint64_t>(wide, least, B_tree::max_page_entries);
}

// Whether it is a page shows when it is opened.
object_ref B_tree_writer::page_below(const index_page& above, std::size_t at) {
  return to_reference(above.page(at));
}

// --- Inserting
// -------------------------------------------------------------------------------------

void B_tree_writer::insert(std::string_view name, ref_word member, ref_word target) {
  index_page& root = tree_.root_;
  const std::size_t at = root.upper_bound(name);
  if (root.is_leaf()) {
    root.insert_member(at, name, member, target);
  } else if (auto below = insert_below(root, name, member, target)) {
    root.insert_page(at, below->bound, below->page.word(), below->count);
  }
  if (is_too_large(root)) split_root(at);
  tree_.set_count(tree_.count() + 1);
}

// Nobody else knows the member yet, so it takes no access to write it.
ref<set_member> B_tree_writer::add(std::string_view name, object_ref target) {
  const ref_word word = target.word();
  ref<set_member> member = set_member::create(std::move(target), name);
  insert(name, member.word(), word);
  static_cast<set_member*>(member.handle()->body())->join(ref<set_owner>(&tree_));
  return member;
}

// Returns the page that the one below had to split off, for the caller to enter.
std::optional<B_tree_writer::new_page> B_tree_writer::insert_below(index_page& page,
                                                                   std::string_view name,
                                                                   ref_word member,
                                                                   ref_word target) {
  const std::size_t into = page.upper_bound(name) - 1;
  const write_access<B_page> access(page_below(page, into));
  index_page& below = page_of(access, page, into);
  const std::size_t changed_at = below.upper_bound(name);
  if (below.is_leaf()) {
    below.insert_member(changed_at, name, member, target);
  } else if (auto split_below = insert_below(below, name, member, target)) {
    below.insert_page(changed_at, split_below->bound, split_below->page.word(), split_below->count);
  }
  std::optional<new_page> result;
  if (is_too_large(below)) result = split(below, changed_at);
  page.set_count(into, page.count(into) + 1 - (result ? result->count : 0));
  return result;
}

bool B_tree_writer::is_too_large(const index_page& page) const {
  return page.size() > capacity_ ||
         (page.name_bytes() > most_name_bytes && page.size() > few_entries);
}

// A page that grew at its end is likely to be followed by more of the same: it stays full. Any
// other is halved by what it takes.
std::size_t B_tree_writer::split_position(const index_page& page, std::size_t changed_at) {
  if (changed_at + 1 >= page.size()) return page.size() - 1;
  const std::size_t weight = page.name_bytes() + page.size() * entry_weight;
  std::size_t at = 0, sum = 0;
  while (sum < weight / 2) sum += page.name(at++).size() + entry_weight;
  return std::clamp<std::size_t>(at, 1, page.size() - 1);
}

B_tree_writer::new_page B_tree_writer::split(index_page& page, std::size_t changed_at) {
  const std::size_t at = split_position(page, changed_at);
  std::string bound = page.is_leaf() ? shortest_bound(page.name(at - 1), page.name(at))
                                     : std::string(page.name(at));
  index_page rest = page.split_off(at);
  const std::uint64_t count = rest.total();
  B_page* const body = B_page::create_body(std::move(rest));
  ref<B_page> created(body);
  body->cluster_with(object_ref(tree_.handle()));
  return {std::move(bound), std::move(created), count};
}

void B_tree_writer::split_root(std::size_t changed_at) {
  index_page& root = tree_.root_;
  if (root.level() == index_page::max_level) {
    throw_error(error_code::storage_full, "An index has grown too deep.");
  }
  const new_page right = split(root, changed_at);
  index_page above(root.level() + 1);
  const std::uint64_t left_count = root.total();
  B_page* const body = B_page::create_body(std::move(root));
  const ref<B_page> left(body);
  body->cluster_with(object_ref(tree_.handle()));
  above.insert_page(0, {}, left.word(), left_count);
  above.insert_page(1, right.bound, right.page.word(), right.count);
  root = std::move(above);
}

// --- Removing
// --------------------------------------------------------------------------------------

bool B_tree_writer::change(std::string_view name, const object_ref& member,
                           const entry_change& change) {
  index_page& root = tree_.root_;
  const std::uint64_t before = root.total();
  if (!change_below(root, name, member, change)) return false;
  const std::uint64_t removed = before - root.total();
  tree_.set_count(tree_.count() - std::min(removed, tree_.count()));
  if (removed != 0) collapse_root();
  return true;
}

// Where names are equal to a bound, the entry may be in any of several pages.
bool B_tree_writer::change_below(index_page& page, std::string_view name, const object_ref& member,
                                 const entry_change& change) {
  if (page.is_leaf()) {
    const std::size_t end = page.upper_bound(name);
    for (std::size_t at = page.lower_bound(name); at < end; ++at) {
      if (!is_same(page.member(at), member)) continue;
      change(page, at);
      return true;
    }
    return false;
  }
  const std::size_t end = page.upper_bound(name);
  const bounds around = bounds_;
  for (std::size_t at = page.lower_bound(name) - 1; at < end; ++at) {
    bounds_ = around;
    if (at > 0) bounds_.lower = page.name(at);
    if (at + 1 < page.size()) bounds_.upper = page.name(at + 1);
    std::size_t size = 0;
    std::uint64_t removed = 0;
    {
      const write_access<B_page> access(page_below(page, at));
      index_page& below = page_of(access, page, at);
      const std::uint64_t before = below.total();
      if (!change_below(below, name, member, change)) continue;
      size = below.size();
      removed = before - below.total();
      page.set_count(at, below.total());
    }
    if (removed != 0) merge_around(page, at, size);
    return true;
  }
  return false;
}

// Whether the entry at `at` would stand there as well if that were its name: behind its equals, in
// a page that is not to be split.
bool B_tree_writer::is_place_of(std::string_view name, const index_page& leaf, std::size_t at,
                                bool is_unique) const {
  if (leaf.name_bytes() + name.size() > most_name_bytes) return false;
  const auto before = at > 0 ? leaf.name(at - 1) : bounds_.lower;
  const auto behind = at + 1 < leaf.size() ? leaf.name(at + 1) : bounds_.upper;
  if (before && (is_unique ? name <= *before : name < *before)) return false;
  return !behind || name < *behind;
}

bool B_tree_writer::rename(std::string_view name, const object_ref& member, std::string_view next,
                           bool is_unique) {
  bool is_done = false;
  change(name, member, [&](index_page& leaf, std::size_t at) {
    if (!is_place_of(next, leaf, at, is_unique)) return;
    leaf.insert_member(at, next, leaf.member(at), leaf.target(at));
    leaf.erase(at + 1);
    is_done = true;
  });
  return is_done;
}

// `size`: entries of the page at `at`, which just lost one.
void B_tree_writer::merge_around(index_page& above, std::size_t at, std::size_t size) {
  if (size == 0) return above.erase(at);
  if (size >= capacity_ / 4) return;
  if (at + 1 < above.size() && merge(above, at)) return;
  if (at > 0) merge(above, at - 1);
}

// Merges two neighbours if the result is far from being split again.
bool B_tree_writer::merge(index_page& above, std::size_t left) {
  const bool are_leaves = above.level() == 1;
  if (are_leaves && above.count(left) + above.count(left + 1) > capacity_ / 2) return false;
  const write_access<B_page> into(page_below(above, left));
  const write_access<B_page> from(page_below(above, left + 1));
  index_page& page = page_of(into, above, left);
  index_page& next = page_of(from, above, left + 1);
  if (&page == &next) throw_contradiction();
  if (page.size() + next.size() > capacity_ / 2 ||
      page.name_bytes() + next.name_bytes() > most_name_bytes / 2) {
    return false;
  }
  page.append(std::move(next), above.name(left + 1));
  above.set_count(left, page.total());
  above.erase(left + 1);
  return true;
}

void B_tree_writer::collapse_root() {
  index_page& root = tree_.root_;
  while (!root.is_leaf() && root.size() == 1) {
    index_page only;
    {
      const write_access<B_page> access(page_below(root, 0));
      only = std::move(page_of(access, root, 0));
    }
    root = std::move(only);
  }
  if (root.empty()) root = index_page();
}

}  // namespace goods
