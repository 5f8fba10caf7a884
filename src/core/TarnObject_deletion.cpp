// TarnObject: deleting children and branches.
#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "core/further_children.h"
#include "core/node_access.h"

namespace tarns {

namespace {

[[noreturn]] void ThrowNotOneBranch(const char* function, const char* path) {
  TarnException error;
  error << "An internal program occurred: " << function << "(\"" << (path != nullptr ? path : "")
        << "\") called.  Record this error and report this to your program vendor.";
  error.setErrorID(ErrorID::CannotDelete);
  throw error;
}

bool HasSeparator(const char* path) {
  return std::string_view(path).find(TarnBranches::kSeparator) != std::string_view::npos;
}

// The first entry of the name, or null.
goods::ref<goods::set_member> EntryNamed(const xcptref<TarnObjects>& index, std::string_view name) {
  if (index.is_null()) return nullptr;
  return goods::read_here([&](goods::reader& reader) -> goods::ref<goods::set_member> {
    const auto entry = reader.get(index)->find(reader, name);
    if (!entry) return nullptr;
    return goods::ref<goods::set_member>::trusted(goods::to_reference(entry->member));
  });
}

}  // namespace

bool TarnObject::deleteChild(const char* name) {
  if (name == nullptr) return false;
  if (HasSeparator(name)) ThrowNotOneBranch("deleteChild", name);
  const auto entry = EntryNamed(children_, name);
  return !entry.is_null() && modify(children_)->removeEntry(entry);
}

bool TarnObject::deleteChild(const xcptref<TarnObject>& child) {
  if (child.is_null()) return false;
  const auto entry = goods::read_here([&](goods::reader& reader) {
    const auto word = TarnNodeAccess::ParentLinkOf(*reader.get(child));
    return goods::ref<goods::set_member>::trusted(goods::to_reference(word));
  });
  if (entry.is_null()) return false;
  if (!children_.is_null() && modify(children_)->removeEntry(entry)) return true;
  const TarnRef further = FurtherHolderOf(getSelf());
  return !further.is_null() && modify(further)->deleteChild(child);
}

bool TarnObject::findAndDeleteChild(const xcptref<TarnObject>& child) {
  if (deleteChild(child)) return true;
  goods::ref<goods::set_member> entry;
  ForEachEntry(children_, [&](const goods::held_entry& held, const TarnRef& target) {
    if (target == child) entry = held.member;
    return entry.is_null();
  });
  if (!entry.is_null()) return modify(children_)->removeEntry(entry);
  const TarnRef further = FurtherHolderOf(getSelf());
  return !further.is_null() && modify(further)->findAndDeleteChild(child);
}

void TarnObject::deleteChildren() {
  if (!children_.is_null()) modify(children_)->deleteChildren();
  if (const TarnRef further = FurtherHolderOf(getSelf()); !further.is_null()) {
    modify(further)->deleteChildren();
  }
}

unsigned long TarnObject::deleteChildrenIf(ChildTest function, const void* arg) {
  return deleteChildrenIf(
      [=](const char* name, TarnRef child) { return function(name, std::move(child), arg); });
}

unsigned long TarnObject::deleteChildrenIf(TarnObject* target, ChildTestMember function,
                                           const void* arg) {
  return deleteChildrenIf([=](const char* name, TarnRef child) {
    return (target->*function)(name, std::move(child), arg);
  });
}

unsigned long TarnObject::deleteChildrenIf(
    const std::function<bool(const char* name, xcptref<TarnObject> child)>& test) {
  unsigned long deleted = 0;
  ForEachEntry(children_, [&](const goods::held_entry& entry, const TarnRef& child) {
    if (test(entry.name.c_str(), child) && modify(children_)->removeEntry(entry.member)) ++deleted;
    return true;
  });
  if (const TarnRef further = FurtherHolderOf(getSelf()); !further.is_null()) {
    deleted += modify(further)->deleteChildrenIf(test);
  }
  return deleted;
}

unsigned long TarnObject::deleteChildrenOfType(const char* type) {
  return deleteChildrenIf([=](const char*, TarnRef child) { return child->isOfType(type); });
}

unsigned long TarnObject::deleteChildrenWithNames(const XStringList& names) {
  unsigned long deleted = 0;
  for (const XString& name : names) {
    if (deleteChild(name.getText())) ++deleted;
  }
  return deleted;
}

unsigned long TarnObject::deleteChildrenWithValue(const char* name, const char* text) {
  const TarnData value(text);
  return deleteChildrenWithValue(name, &value);
}

unsigned long TarnObject::deleteChildrenWithValue(const char* name, const TarnData* value) {
  if (value == nullptr) return 0;
  return deleteChildrenIf([=](const char*, TarnRef child) {
    TarnData found(value->getType());  // an enumeration is compared with a number as one
    return child->get(name, found) && found.compare(*value) == 0;
  });
}

void TarnObject::deleteLinkToChild(TarnIterator& place) {
  if (place.isNull() || children_.is_null()) return;
  const goods::ref<goods::set_member> entry = place.getEntry();
  place.next(nullptr);
  modify(children_)->removeEntry(entry);
}

bool TarnObject::deleteBranch(const char* path) const {
  if (path == nullptr || !HasSeparator(path)) ThrowNotOneBranch("deleteBranch", path);
  const TarnRef parent = FindNode(getSelf(), TarnBranches::ParentOf(path));
  if (parent.is_null()) return false;
  return modify(parent)->deleteChild(std::string(TarnBranches::LastOf(path)).c_str());
}

void TarnObject::shatter() {
  std::vector<TarnRef> open{getSelf()};
  std::unordered_set<TarnRef> seen{getSelf()};
  while (!open.empty()) {
    const TarnRef next = std::move(open.back());
    open.pop_back();
    if (goods::number_of(next.id()) == goods::root_object_number) continue;
    auto node = modify(next);
    std::vector<TarnRef> targets;
    const TarnFieldDescriptor::ShatterStep step{.node = &*node, .targets = &targets};
    node->getClass().iterateFields(TarnFieldDescriptor::ShatterMember, &step, true);
    ForEachEntry(node->children_, [&](const goods::held_entry&, const TarnRef& child) {
      targets.push_back(child);
      return true;
    });
    // Not those in a further node: it is one of the targets.
    if (!node->children_.is_null()) modify(node->children_)->deleteChildren();
    for (TarnRef& target : targets) {
      if (seen.insert(target).second) open.push_back(std::move(target));
    }
  }
}

}  // namespace tarns
