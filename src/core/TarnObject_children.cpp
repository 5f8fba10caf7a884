// TarnObject: adding, finding and going through children.
#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <limits>
#include <string>
#include <vector>

#include "core/node_access.h"
#include "core/unique_names.h"
#include "util/c_text.h"

namespace tarns {

namespace {

// The entry that `position` comes directly before, or nothing.
std::optional<goods::held_entry> EntryAfter(const xcptref<TarnObjects>& index,
                                            const goods::index_position* position) {
  if (index.is_null()) return std::nullopt;
  auto entries = goods::read_here(
      [&](goods::reader& reader) { return reader.get(index)->entries_after(reader, position, 1); });
  if (entries.empty()) return std::nullopt;
  return std::move(entries.front());
}

std::optional<goods::held_entry> LastEntry(const xcptref<TarnObjects>& index) {
  if (index.is_null()) return std::nullopt;
  auto entries = goods::read_here(
      [&](goods::reader& reader) { return reader.get(index)->entries_before(reader, nullptr, 1); });
  if (entries.empty()) return std::nullopt;
  return std::move(entries.front());
}

TarnIterator IteratorAt(const xcptref<TarnObjects>& index,
                        const std::optional<goods::held_entry>& entry) {
  return entry ? TarnIterator(index, *entry) : TarnIterator();
}

// Collects the names that a class's members have in a list of children.
bool AddMemberNames(const TarnFieldDescriptor& field, const void* arg) {
  auto& names = *static_cast<XStringList*>(const_cast<void*>(arg));
  for (unsigned long item = 0; item < field.getNumNames(); ++item) {
    names.addLast(field.getNameOfItem(item));
  }
  return true;
}

// The name of the n-th element of a class's members.
struct MemberSearch {
  unsigned long left;
  XString name;
};

bool FindMemberName(const TarnFieldDescriptor& field, const void* arg) {
  auto& search = *static_cast<MemberSearch*>(const_cast<void*>(arg));
  if (search.left >= field.getNumItems()) {
    search.left -= field.getNumItems();
    return true;
  }
  search.name = field.getNameOfItem(field.getNumNames() > 1 ? search.left : 0);
  return false;
}

}  // namespace

void TarnObject::addChild(const char* name, xcptref<TarnObject> child) {
  const std::string_view text = ViewOf(name);
  if (!IsChildName(text)) VerifyChildName(getSelf(), text);  // throws
  if (child.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  modify(TarnNodeAccess::MakeIndex(*this))->insert(text, child);
}

XString TarnObject::addUniqueChild(const char* name, xcptref<TarnObject> child) {
  XString unique = getUniqueChildName(name);
  addChild(unique, std::move(child));
  return unique;
}

XString TarnObject::addUniqueToParents(const char* name, xcptref<TarnObject> child,
                                       xcptref<TarnObject> otherParent) {
  auto other = modify(otherParent);
  if (otherParent == getSelf()) return addUniqueChild(name, std::move(child));
  XString unique = getUniqueChildName(name);
  while (other->hasChild(unique)) {
    unique = other->getUniqueChildName(name);
    if (!hasChild(unique)) break;
    // Taken here: go on from the next index that this node would give.
    unique = NextNameFreeInBoth(*this, *other, ViewOf(name), unique.view());
  }
  other->addChild(unique, child);
  addChild(unique, std::move(child));
  return unique;
}

XString TarnObject::getUniqueChildName(const char* name) const {
  return goods::read_here([&](goods::reader& reader) {
    return UniqueNameIn(reader, Current(reader, *this), ViewOf(name));
  });
}

void TarnObject::addChildrenTo(xcptref<TarnObject> other) const {
  auto target = modify(other);
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  if (index.is_null()) return;
  auto entries = modify(TarnNodeAccess::MakeIndex(*target));
  ForEachEntry(index, [&](const goods::held_entry& entry, const TarnRef& child) {
    entries->link(entry.name, child);
    return true;
  });
}

bool TarnObject::hasChild(const char* name) const {
  return goods::read_here([&](goods::reader& reader) {
    return HasChild(reader, Current(reader, *this), ViewOf(name));
  });
}

const TarnObject* TarnObject::findChild(goods::reader& reader, std::string_view name) const {
  if (getClass().hasDataMembers()) {
    const CText text(name);
    const TarnFieldDescriptor* field = getClass().findMember(text.get());
    const TarnObject* node = field != nullptr ? field->look(reader, *this, text.get()) : nullptr;
    if (node != nullptr) return node;
  }
  const TarnObjects* index = reader.get(children_);
  if (index == nullptr) return nullptr;
  const auto entry = index->find(reader, name);
  if (!entry) return nullptr;
  return static_cast<const TarnObject*>(reader.look(entry->target, self_class));
}

xcptref<TarnObject> TarnObject::getChildWithName(const char* name) const {
  return getChildWithName(ViewOf(name));
}

xcptref<TarnObject> TarnObject::getChildWithName(std::string_view path) const {
  return goods::read_here([&](goods::reader& reader) -> TarnRef {
    const TarnObject* node = FindNode(reader, Current(reader, *this), path);
    return node != nullptr ? node->getSelf() : TarnRef();
  });
}

xcptref<TarnObject> TarnObject::getChildWithNameNoFail(const char* name, const char* type) {
  while (true) {
    if (TarnRef found = getChildWithName(name); !found.is_null()) return found;
    TarnRef made = CreateOfType(type);
    if (made.is_null()) return made;
    if (!AddMissingNode(getSelf(), ViewOf(name), made)) continue;
    modify(made)->initialize();
    return made;
  }
}

xcptref<TarnObject> TarnObject::getChildOfType(const char* type) const {
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  return index.is_null() ? TarnRef() : index->getOfType(type);
}

unsigned long TarnObject::getChildrenOfType(const char* type, xcptref<TarnObjects> list) const {
  unsigned long found = 0;
  auto entries = modify(list);
  ForEachEntry(TarnNodeAccess::IndexNow(*this),
               [&](const goods::held_entry& entry, const TarnRef& child) {
                 if (child->isOfType(type)) {
                   entries->link(entry.name, child);
                   ++found;
                 }
                 return true;
               });
  return found;
}

XString TarnObject::getChildName(unsigned long index) const {
  const unsigned long members = getClass().getNumDataMembers();
  if (index < members) {
    MemberSearch search{.left = index, .name = {}};
    getClass().iterateFields(FindMemberName, &search, true);
    return search.name;
  }
  return goods::read_here([&](goods::reader& reader) {
    const TarnObjects* children = reader.get(Current(reader, *this).children_);
    if (children == nullptr) return XString();
    const auto entry = children->at(reader, index - members);
    return entry ? XString(entry->name) : XString();
  });
}

void TarnObject::getChildNames(XStringList& names) const {
  getClass().iterateFields(AddMemberNames, &names, true);
  for (const std::string& name : getChildNames({}, std::numeric_limits<std::size_t>::max())) {
    names.addLast(XString(std::string_view(name)));
  }
}

std::vector<std::string> TarnObject::getChildNames(std::string_view after,
                                                   std::size_t limit) const {
  std::vector<std::string> names;
  AddChildNames([&](goods::reader& reader) { return &Current(reader, *this); }, after, limit,
                names);
  return names;
}

unsigned long TarnObject::getNumChildren() const {
  return getClass().getNumDataMembers() + getNumAbstractChildren();
}

unsigned long TarnObject::getNumAbstractChildren() const {
  return goods::read_here([&](goods::reader& reader) -> unsigned long {
    const TarnObjects* children = reader.get(Current(reader, *this).children_);
    return children != nullptr ? children->count() : 0;
  });
}

unsigned long TarnObject::getNumChildrenOfType(const char* type) const {
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  return index.is_null() ? 0 : index->getNumOfType(type);
}

TarnChildren TarnObject::children() const { return TarnChildren(TarnNodeAccess::IndexNow(*this)); }

void TarnObject::iterateChildren(ChildFunction function, const void* arg) const {
  ForEachEntry(TarnNodeAccess::IndexNow(*this),
               [&](const goods::held_entry& entry, const TarnRef& child) {
                 function(entry.name.c_str(), child, arg);
                 return true;
               });
}

void TarnObject::iterateChildren(TarnObject* target, ChildMember function, const void* arg) const {
  ForEachEntry(TarnNodeAccess::IndexNow(*this),
               [&](const goods::held_entry& entry, const TarnRef& child) {
                 (target->*function)(entry.name.c_str(), child, arg);
                 return true;
               });
}

void TarnObject::iterateChildren(
    const std::function<void(const char* name, xcptref<TarnObject> child)>& function) const {
  ForEachEntry(TarnNodeAccess::IndexNow(*this),
               [&](const goods::held_entry& entry, const TarnRef& child) {
                 function(entry.name.c_str(), child);
                 return true;
               });
}

TarnIterator TarnObject::getIterTo(const char* name) const {
  const goods::index_position position(ViewOf(name));
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  const auto entry = EntryAfter(index, &position);
  return entry && entry->name == position.name ? TarnIterator(index, *entry) : TarnIterator();
}

TarnIterator TarnObject::getIterToOrAfter(const char* name) const {
  const goods::index_position position(ViewOf(name));
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  return IteratorAt(index, EntryAfter(index, &position));
}

TarnIterator TarnObject::getIterToFirstAbstractChild() const {
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  return IteratorAt(index, EntryAfter(index, nullptr));
}

TarnIterator TarnObject::getIterToLastAbstractChild() const {
  const xcptref<TarnObjects> index = TarnNodeAccess::IndexNow(*this);
  return IteratorAt(index, LastEntry(index));
}

xcptref<TarnObject> TarnObject::getFirstAbstractChild(XString* name) const {
  return getIterToFirstAbstractChild().get(name);
}

xcptref<TarnObject> TarnObject::getLastAbstractChild(XString* name) const {
  return getIterToLastAbstractChild().get(name);
}

}  // namespace tarns
