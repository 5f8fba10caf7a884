// Looking up and storing by path without splitting paths into strings and without taking write
// access to nodes that stay as they are. What the functions of TarnObject and of sessions are made
// of.
#pragma once

#include <goods/reader.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

// --- Reading: within goods::cache_manager::read() or goods::read_here(). Nothing is allocated,
// unless an object has to be loaded, and nothing is counted.

// The node at a path below `from`, or null. The empty path is `from` itself.
const TarnObject* FindNode(goods::reader& reader, const TarnObject& from, std::string_view path);

// The value of a node or member at a path below `from`; false, and `out` as before, when there is
// none. An enumeration gives a number when `out` comes as one.
bool ReadValue(goods::reader& reader, const TarnObject& from, std::string_view path, TarnData& out);

// As node.findChild(), with `word` set to where the child is found (null when that cannot be told).
// The index and, as far as `policy` says, the child are looked at in passing.
const TarnObject* PassToChild(goods::reader& reader, const TarnObject& node, std::string_view name,
                              goods::guest_scope::policy policy, goods::ref_word& word);
// As FindNode(), for a node that is only looked at in this round: it need not have a handle.
const TarnObject* PassToNode(goods::reader& reader, const TarnObject& from, std::string_view path);

// The child of that name, found without looking at it: false when only the child itself, or the
// node's class, can tell. `child` is null when there is none.
bool FindInIndex(goods::reader& reader, const TarnObject& node, std::string_view name,
                 goods::ref_word& child);

// The current state of the node behind `body`, which may be one that was current earlier.
const TarnObject& Current(goods::reader& reader, const TarnObject& body);

// Whether a child may have this name.
inline bool IsChildName(std::string_view name) {
  return !name.empty() && name.size() <= TarnObject::kMaxNameLength &&
         name.find(TarnBranches::kSeparator) == std::string_view::npos;
}

// --- Whole operations, each with its own reading and writing.

// The node at a path below `from`, or null.
TarnRef FindNode(const TarnRef& from, std::string_view path);

// As the one above.
bool FindInIndex(const TarnRef& parent, std::string_view name, TarnRef& child);

// The node at a path below `from` or, as far as that is missing, the lowest of those above it that
// exist.
TarnRef NearestNode(TarnRef from, std::string_view path);

// Throws for the empty path, where a branch is to be put somewhere below the root.
void VerifyNotRoot(std::string_view path);

// Writes the value at `path`, as TarnObject::setValue() does: an existing one with a lock on
// nothing but the value, a new one with what is missing on the way attached at once. Atomic.
void StoreValue(const TarnRef& from, std::string_view path, const TarnData& value);

// As TarnObject::set(): no value node is made. Atomic.
void StoreExistingValue(const TarnRef& from, std::string_view path, const TarnData& value);

// Puts `node` at `path`, as TarnObject::setNode() does. Atomic unless `from` is not stored.
void PlaceNode(const TarnRef& from, std::string_view path, const TarnRef& node);

// The node at `path`, made from default children as far as it is missing. Atomic. Throws 9 when one
// cannot be made; `forPath` is the path that the message names.
TarnRef MakeBranch(const TarnRef& from, std::string_view path, std::string_view forPath);

// Adds `node` at `path`, or puts it into the reference member there; missing branches are made as
// by MakeBranch(). False, and nothing changed, when a node is there already. Checks all names
// first.
bool AddMissingNode(const TarnRef& from, std::string_view path, const TarnRef& node);

// Throws when `node` cannot be put below `parent` under that name: a reference member takes nodes
// of its class only.
void VerifyFits(const TarnRef& parent, std::string_view name, const TarnRef& node);

// Whether `upper` is `lower` or one of its ancestors.
bool IsAtOrAbove(const TarnRef& upper, const TarnRef& lower);

// Adds the names of up to `limit` abstract children, of those behind all that are called `after`
// unless that is empty. `find(reader)` gives the node, or null; then false.
bool AddChildNames(const std::function<const TarnObject*(goods::reader&)>& find,
                   std::string_view after, std::size_t limit, std::vector<std::string>& names);

// Calls `visit(entry, child)` for the entries of an index (null has none) until it returns false.
// `visit` may do anything, change the index included.
template <class Visit>
void ForEachEntry(const goods::ref<TarnObjects>& index, Visit&& visit);

// As cluster_with(), without making a handle for a node that is stored.
inline void PlaceBeside(TarnObject& node, goods::ref_word other) {
  if (other.is_id()) {
    node.attach_to_storage(nullptr, goods::storage_of(other.id()));
  } else {
    node.cluster_with(goods::to_reference(other));
  }
}

// Gives the entry another name where it stands. False, and nothing changed, when it is to move for
// that, or is not there, or when `isUnique` is asked for and another entry has the name.
bool RenameInPlace(TarnObjects& children, const goods::ref<goods::set_member>& entry,
                   std::string_view name, bool isUnique);

// What only the library's own walks over the tree may see of a node.
class TarnNodeAccess {
 public:
  static const xcptref<TarnObjects>& ChildrenOf(const TarnObject& node) { return node.children_; }
  static goods::ref_word ParentLinkOf(const TarnObject& node) { return node.parentLink_.word(); }
  static const TarnObjects* IndexOf(goods::reader& reader, const TarnObject& node) {
    return reader.get(node.children_);
  }
  static const goods::set_member* LinkOf(goods::reader& reader, const TarnObject& node) {
    return reader.get(node.parentLink_);
  }
  // The index that the current state of the node behind `body` has, which may not be the one of
  // `body`, see Current(); null when it has none.
  static xcptref<TarnObjects> IndexNow(const TarnObject& body);
  // The index of `node`, made when there is none.
  static const xcptref<TarnObjects>& MakeIndex(TarnObject& node);
  static const xcptref<TarnObjects>& MakeIndex(TarnObject& node, unsigned char pageN);
  // Makes `node`, whose children have been deleted, one that never had any.
  static void ForgetIndex(TarnObject& node) { node.children_ = nullptr; }
  // Makes the members of `to`, of the same class, copies of those of `from`; children and parent of
  // `to` stay. Texts are copied, not shared.
  static void CopyState(const TarnObject& from, TarnObject& to);
  // Writes as ExportMinLockingTo() does.
  static void WriteMinLocking(const char* name, const TarnRef& node, PInOut& out) {
    TarnObject::ExportMinLockingTo(name, node, out);
  }
  // Whether `child` has its parent through `entry`.
  static bool IsParentLink(const TarnRef& child, const goods::ref<goods::set_member>& entry);
  // Takes its parent from `child` where it has that through `entry`; null is no child.
  static void Orphan(const TarnRef& child, const goods::ref<goods::set_member>& entry);
  // The node whose child `node` is; null for none.
  static const TarnObject* ParentOf(goods::reader& reader, const TarnObject& node);
};

// Walks from a node to its parent, that one's parent and so on. Ends also where, in a damaged
// database, parents form a circle.
class ParentWalk {
 public:
  ParentWalk(goods::reader& reader, const TarnObject& from) : reader_(reader), node_(&from) {}
  const TarnObject& node() const { return *node_; }
  // The next ancestor, or null.
  const TarnObject* up();

 private:
  goods::reader& reader_;
  const TarnObject* node_;
  const TarnObject* mark_ = nullptr;
  std::uint64_t steps_ = 0, nextMark_ = 1;
};

template <class Visit>
void ForEachEntry(const goods::ref<TarnObjects>& index, Visit&& visit) {
  if (index.is_null()) return;
  goods::B_tree::iterate(index, [&](const goods::held_entry& entry) {
    return visit(entry, TarnRef::Trusted(entry.target));
  });
}

}  // namespace tarns
