#include "tools/BranchLook.h"

#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <utility>

#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/node_view.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

using Kind = TarnBranchChange::Kind;

std::string TextOfValue(const TarnData& value, bool asJson) {
  if (value.getType() == TarnData::None) return asJson ? "null" : "";
  return asJson ? JsonOfValue(value) : ValueText(value);
}

// What counts as the value of a node that is none, but has members.
std::string TextOfMembers(const TarnRef& node, bool asJson) {
  std::string text;
  try {
    for (const MemberValue& member : MembersOf(node)) {
      if (!text.empty()) text += asJson ? ", " : " ";
      text += asJson ? Quoted(TextOfName(member.name)) + ": " : member.name + "=";
      text += TextOfValue(member.value, asJson);
    }
  } catch (const TarnException&) {  // members that are nodes
    return "";
  }
  return asJson && !text.empty() ? "{" + text + "}" : text;
}

std::string ParentOf(const std::string& path) { return std::string(TarnBranches::ParentOf(path)); }

}  // namespace

BranchLook::BranchLook(const std::string& path, const TarnRef& node, bool asJson) {
  if (node.is_null()) return;
  const NodeView top(node);
  std::string value;
  if (top.value) {
    value = TextOfValue(*top.value, asJson);
  } else if (!top.isPlain) {
    value = TextOfMembers(node, asJson);
  }
  add(path, node, top.className, std::move(value));
  TarnBranchWalk walk(node);
  while (const TarnBranchWalk::Step* step = walk.next()) {
    value.clear();
    if (step->hasValue) {
      value = TextOfValue(step->value, asJson);
    } else if (step->cls != &TarnObject::SelfClass()) {
      value = TextOfMembers(step->node, asJson);
    }
    std::string whole = path;
    if (!whole.empty()) whole += TarnBranches::kSeparator;
    whole += walk.path();
    add(whole, step->node, step->cls->name(), std::move(value));
  }
}

void BranchLook::add(const std::string& path, const TarnRef& node, std::string className,
                     std::string value) {
  const std::uint64_t id = TarnObject::GetObjectID(node);
  nodes_.try_emplace(path, Seen{id, std::move(className), std::move(value)});
  paths_.try_emplace(id, path);
}

const BranchLook::Seen* BranchLook::find(const std::string& path) const {
  const auto found = nodes_.find(path);
  return found == nodes_.end() ? nullptr : &found->second;
}

// Of the same node; null when there is none.
const std::string* BranchLook::pathOf(const Seen& seen) const {
  const auto found = paths_.find(seen.id);
  if (found == paths_.end()) return nullptr;
  const Seen* const here = find(found->second);
  const bool isSame = here != nullptr && here->id == seen.id && here->className == seen.className;
  return isSame ? &found->second : nullptr;
}

std::vector<LookChange> BranchLook::since(const BranchLook& before) const {
  std::vector<LookChange> removed, moved, added, changed;
  for (const auto& [path, seen] : before.nodes_) {
    if (pathOf(seen) != nullptr) continue;
    const Seen* const parent = path.empty() ? nullptr : before.find(ParentOf(path));
    const bool isBelowRemoved = parent != nullptr && pathOf(*parent) == nullptr;
    if (!isBelowRemoved) removed.push_back({Kind::Removed, path, {}, {}, {}});
  }
  for (const auto& [path, seen] : nodes_) {
    const std::string* const former = before.pathOf(seen);
    if (former == nullptr) {
      added.push_back({Kind::Added, path, {}, seen.className, seen.value});
      continue;
    }
    if (before.find(*former)->value != seen.value) {
      changed.push_back({Kind::Changed, path, {}, seen.className, seen.value});
    }
    if (*former == path) continue;
    // With the node above it?
    const Seen* const parent = find(ParentOf(path));
    const std::string* const parentBefore = parent != nullptr ? before.pathOf(*parent) : nullptr;
    const bool isCarried = parentBefore != nullptr && *parentBefore == ParentOf(*former) &&
                           TarnBranches::LastOf(path) == TarnBranches::LastOf(*former);
    if (!isCarried) moved.push_back({Kind::Moved, path, *former, seen.className, seen.value});
  }
  for (auto* const list : {&moved, &added, &changed}) {
    removed.insert(removed.end(), std::make_move_iterator(list->begin()),
                   std::make_move_iterator(list->end()));
  }
  return removed;
}

}  // namespace tarns
