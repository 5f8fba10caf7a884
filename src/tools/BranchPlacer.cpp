#include "tools/BranchPlacer.h"

#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/session/TarnRoot.h>

#include <utility>

#include "tools/signals.h"

namespace tarns {

namespace {

bool IsPlain(const TarnRef& node) {
  return node->isOfType(TarnObject::GetType()) || node->isOfType(TarnRoot::GetType());
}

// The child of that number among those of its name, or null.
TarnRef ChildOfNumber(const TarnRef& node, const std::string& name, std::size_t number) {
  TarnIterator place = node->getIterTo(name.c_str());
  for (std::size_t at = 1; at < number && !place.isNull(); ++at) place.next(nullptr);
  if (place.isNull() || place.getEntryName() != name) return nullptr;
  return place.get(nullptr);
}

// Lists a node without becoming its parent.
void List(const TarnRef& holder, const std::string& name, const TarnRef& node) {
  if (holder->getChildren().is_null()) {
    auto body = modify(holder);
    body->addChild(name.c_str(), TarnObject::Create());
    body->deleteChildren();
  }
  modify(holder->getChildren())->link(name, node);
}

}  // namespace

void BranchPlacer::noteHomes(const TarnRef& branch) {
  for (const TarnBranchWalk::Step& step : TarnBranchWalk(branch)) {
    if (!step.lister.is_null()) homes_.emplace(step.node.handle(), step.node->getParent());
  }
}

std::vector<BranchPlacer::Child> BranchPlacer::takeChildren(const TarnRef& node) const {
  std::vector<Child> children;
  TarnRef further;  // whose children are listed here, too
  if (node.isA<TarnCollection>()) further = xcptref<TarnCollection>(node)->getOld();
  for (const auto& [name, child] : node->children()) {
    const auto noted = homes_.find(child.handle());
    const TarnRef home = noted != homes_.end() ? noted->second : child->getParent();
    const bool isHome = home == node || (!further.is_null() && home == further);
    children.push_back({std::string(name), child, isHome});
  }
  if (!children.empty()) modify(node)->deleteChildren();
  return children;
}

void BranchPlacer::place(const std::string& path, const TarnRef& branch) {
  path_ = path;
  noteHomes(branch);
  placeTop(path, branch);
  while (!levels_.empty()) {
    ThrowIfInterrupted();
    if (levels_.back().next == levels_.back().children.size()) {
      levels_.pop_back();
    } else {
      placeNext();
    }
  }
}

void BranchPlacer::placeTop(const std::string& path, const TarnRef& branch) {
  const bool isNew = count();
  TarnRef present = manager_.getObject(path);
  if (present.is_null() && !options_.isNodeByNode) {
    manager_.set(path, branch);
    return;
  }
  std::vector<Child> children = takeChildren(branch);
  if (isNew && present.is_null()) {
    manager_.set(path, branch);
  } else if (isNew && !branch->isOfType(TarnRoot::GetType())) {
    manager_.mergeBranch(branch, path, true);
  }
  const TarnRef target = manager_.getObject(path);
  if (target.is_null()) TarnException::ThrowNonExistentPath(path.c_str());
  levels_.push_back({target, "", std::move(children)});
  if (isNew && options_.placed) options_.placed(count_);
}

// Whether the node that comes has not been placed by an earlier run.
bool BranchPlacer::count() { return ++count_ > options_.skip; }

void BranchPlacer::placeNext() {
  Level& level = levels_.back();
  const Child child = std::move(level.children[level.next]);
  ++level.next;
  const bool isNew = count();
  level.number = level.number != 0 && level.lastName == child.name ? level.number + 1 : 1;
  level.lastName = child.name;
  TarnRef target;
  std::vector<Child> children;
  if (!isNew) {
    // What came with the branch then is not told from what was there; its order is the same.
    level.isFirstNew = true;
    target = ChildOfNumber(level.target, child.name, level.number);
    if (target.is_null()) throwGone(child.name);
    if (child.isHome) children = takeChildren(child.node);
  } else {
    TarnRef present;
    if (level.number == 1 || !level.isFirstNew) {
      present = level.target->getChildWithName(std::string_view(child.name));
    }
    if (level.number == 1) level.isFirstNew = present.is_null();
    const bool isWhole = present.is_null() && !options_.isNodeByNode;
    if (child.isHome && !isWhole) children = takeChildren(child.node);
    target = placed(level, child, present);
  }
  if (!children.empty()) {
    levels_.push_back({std::move(target), child.name, std::move(children)});
  }
  if (isNew && options_.placed) options_.placed(count_);
}

// Places the node with the children that it still has; returns the one that is there then.
TarnRef BranchPlacer::placed(Level& level, const Child& child, const TarnRef& present) {
  if (!present.is_null()) {
    if (present != child.node) merge(child.node, present, child.name);
    return level.target->getChildWithName(std::string_view(child.name));
  }
  if (child.isHome) {
    modify(level.target)->addChild(child.name.c_str(), child.node);
  } else {
    List(level.target, child.name, child.node);
  }
  return child.node;
}

void BranchPlacer::merge(const TarnRef& node, const TarnRef& present, const std::string& name) {
  if (&goods::class_of(node) != &goods::class_of(present)) {
    manager_.mergeBranch(node, pathOf(name), true);
  } else if (!IsPlain(node)) {
    modify(present)->copyFrom(node);
  }
}

void BranchPlacer::throwGone(const std::string& name) const {
  TarnException error;
  error << "What an earlier import has placed at \"" << pathOf(name)
        << "\" is there no more; it cannot be passed over.";
  error.setErrorID(ErrorID::NonExistentPath);
  throw error;
}

std::string BranchPlacer::pathOf(const std::string& name) const {
  std::string path = path_;
  const auto add = [&path](const std::string& branch) {
    if (!path.empty() && !branch.empty()) path += '~';
    path += branch;
  };
  for (const Level& level : levels_) add(level.name);
  add(name);
  return path;
}

}  // namespace tarns
