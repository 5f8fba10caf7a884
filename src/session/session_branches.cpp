// Nodes and branches by path: the part of TarnManager that changes the shape of the tree.
#include <goods/errors.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnCloner.h>
#include <tarns/session/TarnManager.h>

#include <string>
#include <vector>

#include "core/node_access.h"
#include "goods/new_objects.h"
#include "schema/BranchCopy.h"
#include "schema/BranchMerge.h"

namespace tarns {

namespace {

constexpr std::uint32_t kFirstObjectNumber = 65536;  // numbers below are those of class layouts
constexpr std::size_t kNodesUndisturbed = 4096;      // copied between two looks at the versions

// Throws unless `node` may come to stand below the node `at`.
void VerifyOutside(const TarnRef& node, const TarnRef& at, std::string_view from,
                   std::string_view to) {
  if (!IsAtOrAbove(node, at)) return;
  TarnException error;
  error << "Cannot put the branch \"" << from << "\" at \"" << to
        << "\", which lies within the branch itself.";
  throw error;
}

// Ends the node's place under that name, be it a member or a child; other places stay.
void TakeOut(const TarnRef& parent, const XString& name) {
  TarnRef nothing;
  if (!modify(parent)->setChildNode(name, nothing)) modify(parent)->deleteChild(name);
}

XString NameOf(std::string_view path) { return XString(TarnBranches::LastOf(path)); }

}  // namespace

xcptref<TarnObject> TarnManager::getObject(TarnPathText path) const {
  return FindNode(getRoot(), path.view());
}

xcptref<TarnObject> TarnManager::getObject(std::uint64_t id) const {
  verifyIsInitialized();
  const auto storage = goods::storage_of(id);
  const auto number = goods::number_of(id);
  TarnException error;
  error << "Object ID " << storage << ":" << number;
  if (storage >= getNumStorages()) {
    error << " specifies a non-existent storage.";
    error.setErrorID(ErrorID::NonExistentPath);
    throw error;
  }
  if (number < kFirstObjectNumber) {
    error << " is trying to retrieve an object from the class definition domain [0 .. "
          << kFirstObjectNumber << ").";
    error.setErrorID(ErrorID::ClassDefinitionDomain);
    throw error;
  }
  getCacheManager().verifyAttached();
  goods::object_ref object;
  db().get_object(object, number, storage);
  goods::class_of(object);  // loads it
  return xcptref<TarnObject>::Trusted(std::move(object));
}

std::uint64_t TarnManager::getObjectID(TarnPathText path) const {
  const TarnRef node = getObject(path);
  return node.is_null() ? 0 : TarnObject::GetObjectID(node);
}

std::uint64_t TarnManager::getVersion(std::uint64_t id) const {
  return getCacheManager().version(goods::storage_of(id));
}

xcptref<TarnObject> TarnManager::existing(TarnPathText path) const {
  TarnRef node = getObject(path);
  if (node.is_null()) TarnException::ThrowNonExistentPath(path.str().c_str());
  return node;
}

XString TarnManager::getChildName(TarnPathText path, unsigned long index) const {
  return existing(path)->getChildName(index);
}

void TarnManager::getChildNames(TarnPathText path, XStringList& names) const {
  existing(path)->getChildNames(names);
}

std::vector<std::string> TarnManager::getChildNames(TarnPathText path, std::string_view after,
                                                    std::size_t limit) const {
  const TarnRef root = getRoot();
  std::vector<std::string> names;
  const bool exists = AddChildNames(
      [&](goods::reader& reader) { return PassToNode(reader, *reader.get(root), path.view()); },
      after, limit, names);
  if (!exists) TarnException::ThrowNonExistentPath(path.str().c_str());
  return names;
}

unsigned long TarnManager::getNumChildren(TarnPathText path) const {
  return existing(path)->getNumChildren();
}

TarnChildren TarnManager::children(TarnPathText path) const { return existing(path)->children(); }

// The node at `path`, with plain nodes for what is missing.
xcptref<TarnObject> TarnManager::branchFor(std::string_view path) {
  TarnRef node = getObject(path);
  if (node.is_null()) {
    set(path);
    node = getObject(path);
  }
  return node;
}

xcptref<TarnObject> TarnManager::createParents(TarnPath& path) {
  TarnRef parent = branchFor(TarnBranches::ParentOf(path.view()));
  path = NameOf(path.view());
  return parent;
}

xcptref<TarnObject> TarnManager::getNoFail(TarnPathText path, const char* typeName) {
  return getCacheManager().atomically([&] {
    TarnRef node = getObject(path);
    if (!node.is_null()) return node;
    node = TarnObject::CreateOfType(typeName);
    if (node.is_null()) TarnException::ThrowMissingDescriptor(typeName);
    TarnPath rest(path.view());
    const TarnRef parent = createParents(rest);
    modify(parent)->addChild(rest, node);
    return node;
  });
}

XString TarnManager::addUnique(TarnPathText path, xcptref<TarnObject> node) {
  return getCacheManager().atomically([&] {
    TarnPath rest(path.view());
    const TarnRef parent = createParents(rest);
    return modify(parent)->addUniqueChild(rest, node);
  });
}

bool TarnManager::deleteBranch(TarnPathText path) {
  return getCacheManager().atomically([&] {
    const TarnRef parent = getObject(TarnBranches::ParentOf(path.view()));
    const XString name = NameOf(path.view());
    if (parent.is_null() || !parent->hasChild(name)) return false;
    return modify(parent)->deleteChild(name);
  });
}

void TarnManager::copyBranch(TarnPathText from, TarnPathText to) {
  goods::cache_manager& session = getCacheManager();
  if (!session.in_transaction() && copyUndisturbed(from.view(), to.view())) return;
  session.atomically([&] {
    const TarnRef node = existing(from);
    VerifyNotRoot(to.view());
    set(to, node->deepClone());
  });
}

// Makes the copy outside of transactions, where nothing has to be locked and kept in memory, and
// stores it when nobody has committed anything since it was begun: then it is of one state, and
// that is the current one while the place is locked. Otherwise, or when it is more than a
// transaction may make, returns false as soon as that is known, and nothing has changed.
bool TarnManager::copyUndisturbed(std::string_view from, std::string_view to) {
  struct Disturbed {};
  const std::vector<std::uint64_t> before = currentVersions();
  const TarnRef node = existing(from);
  VerifyNotRoot(to);
  TarnRef copy;
  {
    const std::int64_t madeBefore = goods::new_object_bytes::count();
    const auto limit = static_cast<std::int64_t>(getCacheManager().transaction_limit());
    BranchCopy nodes;  // gone before the commit, which keeps in memory what others refer to
    copy = nodes.begin(node, BranchCopy::Below::kCopied);
    while (nodes.copyMore(kNodesUndisturbed) > 0) {
      if (currentVersions() != before) return false;
      if (goods::new_object_bytes::count() - madeBefore > limit) return false;
    }
    nodes.setReferences();
  }
  try {
    getCacheManager().atomically([&] {
      set(to, copy);
      if (currentVersions() != before) throw Disturbed();
    });
  } catch (const Disturbed&) {
    return false;
  }
  return true;
}

// Of all storages, with all commits that have returned.
std::vector<std::uint64_t> TarnManager::currentVersions() const {
  std::vector<std::uint64_t> versions;
  for (unsigned long storage = 0; storage < getNumStorages(); ++storage) {
    versions.push_back(getCacheManager().version(static_cast<goods::storage_number>(storage)));
  }
  return versions;
}

void TarnManager::moveBranch(TarnPathText from, TarnPathText to) {
  getCacheManager().atomically([&] {
    const TarnRef node = existing(from);
    VerifyNotRoot(to.view());
    if (getObject(to) == node) return;
    VerifyOutside(node, NearestNode(getRoot(), to.view()), from.view(), to.view());
    const TarnRef parent = getObject(TarnBranches::ParentOf(from.view()));
    if (node->getParent() == parent && node->getName() == NameOf(from.view())) {
      moveNode(node, to.view());
    } else {
      TakeOut(parent, NameOf(from.view()));
      set(to, node);
    }
  });
}

void TarnManager::moveNode(const TarnRef& node, std::string_view to) {
  TarnPath rest(to);
  const TarnRef parent = createParents(rest);
  modify(parent)->moveChild(rest, node);
}

void TarnManager::copyBranch(TarnPathText from, TarnPathText to, const TarnCloneOptions& options) {
  const TarnRef node = existing(from);
  VerifyNotRoot(to.view());
  TarnCloner(options).copyInBatches(node, getRoot(), to.view());
}

void TarnManager::mergeBranch(TarnPathText from, TarnPathText to, bool overwrite) {
  mergeBranch(from, to, {.rule = overwrite ? TarnMergeRule::kReplace : TarnMergeRule::kKeep});
}

void TarnManager::mergeBranch(TarnPathText from, TarnPathText to, const TarnCloneOptions& options) {
  const auto work = [&](const TarnCloneOptions& rules) {
    const TarnRef node = existing(from);
    VerifyOutside(node, NearestNode(getRoot(), to.view()), from.view(), to.view());
    BranchMerge merge(rules);
    if (!rules.keepsSource) {
      // First, so that a branch can be merged into one that it is in, whatever the names in it.
      const TarnRef parent = getObject(TarnBranches::ParentOf(from.view()));
      const XString name = NameOf(from.view());
      rules.changesNothing ? merge.hide(parent, name.view()) : TakeOut(parent, name);
    }
    mergeInto(merge, {node, nullptr}, to.view(), rules.changesNothing);
  };
  if (options.changesNothing) return work(options);
  // Told when it is committed: what is repeated after a deadlock may come to something else.
  std::vector<TarnMergeChange> changes;
  TarnCloneOptions rules = options;
  if (options.report) {
    rules.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  }
  getCacheManager().atomically([&] {
    changes.clear();
    work(rules);
  });
  for (const TarnMergeChange& change : changes) options.report(change);
}

void TarnManager::mergeBranch(xcptref<TarnObject> node, TarnPathText to, bool overwrite) {
  getCacheManager().atomically([&] {
    VerifyOutside(node, NearestNode(getRoot(), to.view()), node->getName().view(), to.view());
    const TarnCloneOptions options{.rule =
                                       overwrite ? TarnMergeRule::kReplace : TarnMergeRule::kKeep};
    BranchMerge merge(options);
    mergeInto(merge, {node, node->getParent()}, to.view(), false);
  });
}

void TarnManager::mergeInto(BranchMerge& merge, const BranchNode& source, std::string_view to,
                            bool changesNothing) {
  if (to.empty()) {
    merge.merge(source, {getRoot(), nullptr}, {});
    return;
  }
  TarnRef parent = getObject(TarnBranches::ParentOf(to));
  if (parent.is_null() && !changesNothing) parent = branchFor(TarnBranches::ParentOf(to));
  merge.merge(source, {nullptr, parent}, TarnBranches::LastOf(to));
}

}  // namespace tarns
