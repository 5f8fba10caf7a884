// TarnObject: parents, names, and passing children from one node to another.
#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnPath.h>
#include <tarns/util/Stringer.h>

#include <string>
#include <vector>

#include "core/further_children.h"
#include "core/node_access.h"

namespace tarns {

namespace {

std::string PathOf(const TarnRef& node) {
  TarnPath path;
  TarnObject::GetPath(node, path);
  return std::string(path.view());
}

std::string_view NameIn(goods::reader& reader, const TarnObject& node) {
  const goods::set_member* link = TarnNodeAccess::LinkOf(reader, node);
  return link != nullptr ? link->key() : std::string_view();
}

// Throws when `node` would come to lie below itself.
void VerifyNotBelow(const TarnRef& node, const TarnRef& newParent) {
  if (!IsAtOrAbove(node, newParent)) return;
  TarnException error;
  error << "The node \"" << PathOf(node) << "\" cannot be placed below itself, at \""
        << PathOf(newParent) << "\".";
  throw error;
}

// Children with another parent keep it.
void MoveEntries(const xcptref<TarnObjects>& from, const xcptref<TarnObjects>& to) {
  auto index = modify(from);
  auto target = modify(to);
  ForEachEntry(from, [&](const goods::held_entry& entry, const TarnRef& child) {
    const bool isOwn = TarnNodeAccess::IsParentLink(child, entry.member);
    index->removeEntry(entry.member);
    if (isOwn) {
      target->insert(entry.name, child);
    } else {
      target->link(entry.name, child);
    }
    return true;
  });
}

// The first ancestor that `test(reader, ancestor)` accepts, or null. The test keeps nothing between
// calls: the walk may start again.
template <class Test>
TarnRef FindAncestor(const TarnObject& from, Test&& test) {
  return goods::read_here([&](goods::reader& reader) -> TarnRef {
    ParentWalk walk(reader, Current(reader, from));
    while (const TarnObject* ancestor = walk.up()) {
      if (test(reader, *ancestor)) return ancestor->getSelf();
    }
    return nullptr;
  });
}

}  // namespace

bool IsAtOrAbove(const TarnRef& upper, const TarnRef& lower) {
  return goods::read_here([&](goods::reader& reader) {
    const TarnObject* sought = reader.get(upper);
    ParentWalk walk(reader, *reader.get(lower));
    for (const TarnObject* node = &walk.node(); node != nullptr; node = walk.up()) {
      if (node == sought) return true;
    }
    return false;
  });
}

void TarnNodeAccess::Orphan(const TarnRef& child, const goods::ref<goods::set_member>& entry) {
  if (child.is_null()) return;
  auto node = modify(child);
  if (node->parentLink_.get() == entry) node->makeOrphan();
}

bool TarnObject::hasParent() const { return !getParent().is_null(); }

xcptref<TarnObject> TarnObject::getParent(unsigned long level) const {
  return goods::read_here([&](goods::reader& reader) -> TarnRef {
    ParentWalk walk(reader, Current(reader, *this));
    const TarnObject* ancestor = walk.up();
    for (unsigned long at = 1; at < level && ancestor != nullptr; ++at) ancestor = walk.up();
    return ancestor != nullptr ? ancestor->getSelf() : TarnRef();
  });
}

xcptref<TarnObject> TarnObject::getRootParent() const {
  return goods::read_here([&](goods::reader& reader) {
    ParentWalk walk(reader, Current(reader, *this));
    while (walk.up() != nullptr) {
    }
    return walk.node().getSelf();
  });
}

xcptref<TarnObject> TarnObject::getAncestorOfType(const char* type) const {
  return FindAncestor(
      *this, [type](goods::reader&, const TarnObject& node) { return node.isDerivedFrom(type); });
}

xcptref<TarnObject> TarnObject::getAncestorWithName(const char* name) const {
  return FindAncestor(*this, [name](goods::reader& reader, const TarnObject& node) {
    return TarnNodeAccess::LinkOf(reader, node) != nullptr && NameIn(reader, node) == ViewOf(name);
  });
}

XString TarnObject::getParentName() const {
  return goods::read_here([&](goods::reader& reader) {
    const TarnObject* parent = TarnNodeAccess::ParentOf(reader, Current(reader, *this));
    return parent != nullptr ? XString(NameIn(reader, *parent)) : XString();
  });
}

void TarnObject::GetPath(const xcptref<TarnObject>& node, TarnPath& path) {
  if (node.is_null()) ThrowBadRef("NULL TarnRef read dereference");
  const std::string text = goods::read_here([&](goods::reader& reader) {
    std::vector<std::string_view> names;
    std::size_t length = 0;
    ParentWalk walk(reader, *reader.get(node));
    for (const TarnObject* at = &walk.node(); at != nullptr;) {
      names.push_back(NameIn(reader, *at));
      at = walk.up();
      if (at == nullptr)
        names.pop_back();  // what has no parent is where the path starts
      else
        length += names.back().size() + 1;
    }
    std::string joined;
    joined.reserve(length);
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
      if (!joined.empty()) joined += TarnBranches::kSeparator;
      joined += *name;
    }
    return joined;
  });
  path = text;
}

void TarnObject::adoptOrphan(const goods::ref<goods::set_member>& entry, bool hadParent) {
  parentLink_.set(entry);
  if (hadParent) note_relinked();
}

void TarnObject::makeOrphan() { parentLink_.clear(); }

bool TarnObject::becomeParentOf(const char* name) {
  const TarnIterator place = getIterTo(name);
  const TarnRef child = place.get(nullptr);
  if (child.is_null() || IsAtOrAbove(child, getSelf())) return false;
  auto node = modify(child);
  node->adoptOrphan(place.getEntry(), !node->parentLink_.is_null());
  return true;
}

void TarnObject::bequeathChildren(xcptref<TarnObject>& heir) {
  if (heir.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  if (heir == getSelf()) return;
  VerifyNotBelow(getSelf(), heir);
  const TarnRef further = FurtherHolderOf(getSelf());
  if (!further.is_null() && further != heir) VerifyNotBelow(further, heir);
  auto node = modify(heir);
  if (!children_.is_null()) {
    note_relinked();
    if (node->children_.is_null()) {
      modify(children_)->setParent(heir);
      node->children_ = children_;
      children_ = nullptr;
    } else {
      MoveEntries(children_, node->children_);
    }
  }
  if (!further.is_null()) modify(further)->bequeathChildren(heir);
}

void TarnObject::moveChild(const char* name, xcptref<TarnObject> child) {
  if (child.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  VerifyChildName(getSelf(), ViewOf(name));
  VerifyNotBelow(child, getSelf());
  const auto link = goods::read_here([&](goods::reader& reader) {
    return goods::ref<goods::set_member>::trusted(
        goods::to_reference(TarnNodeAccess::ParentLinkOf(*reader.get(child))));
  });
  const auto index = link.is_null() ? nullptr : checked_cast<TarnObjects>(link->owner());
  if (!index.is_null() && index->getParent() == getSelf() && link->key() == ViewOf(name)) return;
  setNode(name, child);  // first, since it may refuse
  if (!index.is_null()) goods::modify(index)->removeEntry(link);
  // An entry of that name that held the child already was not made anew.
  if (!child->hasParent() && getIterTo(name).get(nullptr) == child) becomeParentOf(name);
}

XString TarnObject::getName() const {
  return goods::read_here(
      [&](goods::reader& reader) { return XString(NameIn(reader, Current(reader, *this))); });
}

void TarnObject::getName(Buffer& name) const { name.set(getName().view()); }

void TarnObject::addNameTo(XStringList& names) const { names.addLast(getName()); }

void TarnObject::setName(const char* name) {
  VerifyChildName(getSelf(), ViewOf(name));
  const auto link = parentLink_.get();
  const auto index = link.is_null() ? nullptr : checked_cast<TarnObjects>(link->owner());
  if (index.is_null()) {
    TarnException error;
    error << "The name \"" << name << "\" cannot be given to a node that has no parent.";
    throw error;
  }
  if (link->key() != ViewOf(name)) goods::modify(index)->rename(link, ViewOf(name));
}

signed char TarnObject::compareName(const char* name, bool caseSensitive) const {
  return static_cast<signed char>(Stringer::Compare(getName().view(), ViewOf(name), caseSensitive));
}

void TarnObject::VerifyChildName(const xcptref<TarnObject>& of, std::string_view name) {
  if (IsChildName(name)) return;
  TarnException error;
  if (name.empty()) {
    error << "Cannot add a TarnObject to \"" << PathOf(of)
          << "\" because no child name was specified.";
  } else if (name.find(TarnBranches::kSeparator) != std::string_view::npos) {
    error << "The name \"" << name << "\" cannot contain the character" << TarnBranches::kSeparator;
  } else {
    error << "The name \"" << name.substr(0, 40) << "...\" cannot be given to a child of \""
          << PathOf(of) << "\": it has " << name.size() << " bytes, and names have at most "
          << kMaxNameLength << ".";
  }
  throw error;
}

}  // namespace tarns
