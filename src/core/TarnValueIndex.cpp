#include <goods/cache_manager.h>
#include <goods/metaobject.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValueIndex.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "core/branch_batch.h"
#include "core/further_children.h"
#include "core/node_access.h"
#include "core/value_index.h"
#include "core/value_index_changes.h"
#include "goods/B_tree_walk.h"
#include "goods/prototype.h"

namespace tarns {

namespace {

void VerifyIndexable(const TarnRef& node, const TarnPath& below) {
  if (node.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  TarnException error;
  const std::size_t depth = below.getDepth();
  if (TarnObject::GetObjectID(node) == 0) {
    error << "A value index cannot be declared at a node that is not stored.";
    throw error;
  }
  const TarnBranches branches(below.view());
  const bool isPath = std::ranges::all_of(branches, IsChildName);
  if (depth == 0 || depth > TarnValueIndex::kMostBranches || !isPath) {
    error << "The path \"" << below << "\" cannot have a value index: it must have 1 to "
          << static_cast<unsigned long>(TarnValueIndex::kMostBranches) << " branches.";
    throw error;
  }
}

// Calls `work(children)` for the node's children and those of a further holder.
template <class Work>
bool AtEachHolder(const TarnRef& node, const Work& work) {
  auto& session = goods::cache_manager::require();
  return session.atomically([&] {
    bool isDone = false;
    for (TarnRef holder = node; !holder.is_null(); holder = FurtherHolderOf(holder)) {
      const xcptref<TarnObjects> children = holder->getChildren();
      isDone |= work(holder, children);
    }
    return isDone;
  });
}

using Expected = std::pair<std::string, std::uint64_t>;  // key and child, see WalkKeyOf()

std::string TextOf(const Expected& entry, const std::string& below) {
  const auto parsed = ValueIndexEntry::Parse(entry.first);
  return "\"" + std::string(parsed ? parsed->name : std::string_view()) + "\" in the index of \"" +
         below + "\"";
}

// What stands in the index; nothing when it cannot be read.
std::optional<std::vector<Expected>> EntriesOf(goods::reader& reader, const ValueIndexRef& tree) {
  std::vector<Expected> found;
  const bool isReadable = PastDamage([&] {
    goods::B_tree_walk place(reader, *reader.get(tree.tree));
    for (place.seek_index(0); !place.at_end(); place.next()) {
      found.emplace_back(place.entry().name, WalkKeyOf(place.entry().target));
    }
  });
  if (!isReadable) return std::nullopt;
  return found;
}

void Compare(goods::reader& reader, const TarnObjects& children, const ValueIndexRef& tree,
             std::size_t most, std::vector<std::string>& faults) {
  if (faults.size() >= most) return;
  if (tree.below.empty()) {
    return faults.push_back("has lost value indexes to damage: declare them again");
  }
  if (tree.tree.is_null()) {
    return faults.push_back("has given up the index of \"" + tree.below +
                            "\", which is damaged: rebuild it");
  }
  std::optional<std::vector<Expected>> stored = EntriesOf(reader, tree);
  if (!stored) {
    return faults.push_back("has an index of \"" + tree.below +
                            "\" that cannot be read: rebuild it");
  }
  std::vector<Expected>& found = *stored;
  std::vector<Expected> wanted;
  std::string key;
  goods::B_tree_walk child(reader, children);
  for (child.seek_index(0); !child.at_end(); child.next()) {
    const goods::index_entry entry = child.entry();
    if (ReadIndexKey(reader, entry, tree.below, key)) {
      wanted.emplace_back(key, WalkKeyOf(entry.target));
    }
  }
  std::ranges::sort(wanted);
  std::ranges::sort(found);
  std::vector<Expected> missing, extra;
  std::ranges::set_difference(wanted, found, std::back_inserter(missing));
  std::ranges::set_difference(found, wanted, std::back_inserter(extra));
  for (const Expected& each : missing) {
    if (faults.size() < most) faults.push_back("misses " + TextOf(each, tree.below));
  }
  for (const Expected& each : extra) {
    if (faults.size() < most) faults.push_back("has a wrong entry " + TextOf(each, tree.below));
  }
}

}  // namespace

bool TarnValueIndex::Declare(const TarnRef& node, const TarnPath& below) {
  VerifyIndexable(node, below);
  const std::string path(below.view());
  AnnounceValueIndexes(goods::cache_manager::require());
  return AtEachHolder(node, [&](const TarnRef& holder, xcptref<TarnObjects> children) {
    if (children.is_null()) children = TarnNodeAccess::MakeIndex(*modify(holder));
    return DeclareValueIndex(children, path);
  });
}

bool TarnValueIndex::Drop(const TarnRef& node, const TarnPath& below) {
  VerifyIndexable(node, below);
  const std::string path(below.view());
  return AtEachHolder(node, [&](const TarnRef&, const xcptref<TarnObjects>& children) {
    return !children.is_null() && DropValueIndex(children, path);
  });
}

bool TarnValueIndex::Rebuild(const TarnRef& node, const TarnPath& below) {
  VerifyIndexable(node, below);
  const std::string path(below.view());
  return AtEachHolder(node, [&](const TarnRef&, const xcptref<TarnObjects>& children) {
    return !children.is_null() && RebuildValueIndex(children, path);
  });
}

std::vector<std::string> TarnValueIndex::List(const TarnRef& node) {
  if (node.is_null()) ThrowBadRef("NULL TarnRef read dereference");
  std::vector<std::string> paths;
  goods::read_here([&](goods::reader& reader) {
    paths.clear();
    const TarnObjects* const children = TarnNodeAccess::IndexOf(reader, *reader.get(node));
    if (children == nullptr) return;
    for (ValueIndexRef& each : ValueIndexesOf(reader, *children)) {
      if (!each.below.empty()) paths.push_back(std::move(each.below));
    }
  });
  return paths;
}

std::vector<std::string> TarnValueIndex::Check(const TarnRef& node, std::size_t most) {
  if (node.is_null()) ThrowBadRef("NULL TarnRef read dereference");
  std::vector<std::string> faults;
  goods::read_here([&](goods::reader& reader) {
    faults.clear();
    const TarnObjects* const children = TarnNodeAccess::IndexOf(reader, *reader.get(node));
    if (children == nullptr) return;
    for (const ValueIndexRef& tree : ValueIndexesOf(reader, *children)) {
      Compare(reader, *children, tree, most, faults);
    }
  });
  return faults;
}

}  // namespace tarns
