// TarnCollection: making the index of a node anew.
#include <goods/cache_manager.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/session/TarnManager.h>

#include <string>
#include <utility>
#include <vector>

#include "core/node_access.h"

namespace tarns {

namespace {

constexpr std::size_t kNamesAtOnce = 512;

// One call of Balance(). Each step is a transaction that begins with write access to what all
// others that change the collection write first, so that no two steps wait for each other with
// locks in hand: the parent, then the collection's index.
class Balancing {
 public:
  Balancing(TarnRef parent, const char* name, TarnRef progress)
      : session_(goods::cache_manager::require()),
        parent_(std::move(parent)),
        name_(name),
        progress_(std::move(progress)) {}

  void run() {
    if (!begin()) return;
    do {
      moveAll();
    } while (!end());
  }

 private:
  // One transaction, repeated after a deadlock.
  template <class Work>
  auto step(Work&& work) {
    return session_.atomically([&] {
      auto result = work();
      if (!progress_.is_null()) modify(progress_)->touch();
      return result;
    });
  }

  // Finds the collection that an interrupted call has left, or puts one in the child's place. False
  // when there is no child.
  bool begin() {
    const TarnRef found = parent_->getChildWithName(name_.c_str());
    if (found.is_null()) return false;
    if (take(found)) return true;
    return step([&] {
      const auto parent = modify(parent_);
      const TarnRef child = parent->getChildWithName(name_.c_str());
      if (child.is_null()) return false;
      if (take(child)) return true;  // by another thread meanwhile
      old_ = child;
      const xcptref<TarnCollection> made(new TarnCollection(child));
      auto collection = modify(made);
      if (TarnData value; child->get(nullptr, value)) collection->setValue(nullptr, value);
      TarnNodeAccess::MakeIndex(*collection);
      collection->initialize();
      parent->setNode(name_.c_str(), made);
      collection_ = made;
      return true;
    });
  }

  bool take(const TarnRef& node) {
    if (!node->isDerivedFrom(TarnCollection::GetType())) return false;
    const xcptref<TarnCollection> collection(node);
    old_ = collection->getOld();
    if (old_.is_null()) return false;
    collection_ = collection;
    return true;
  }

  // Until the old node has no children, whoever takes them out.
  void moveAll() {
    while (true) {
      const std::vector<std::string> names = old_->getChildNames({}, kNamesAtOnce);
      if (names.empty()) return;
      for (const std::string& name : names) {
        step([&] { return move(name); });
      }
    }
  }

  xcptref<TarnObjects> index() const {
    xcptref<TarnObjects> index = collection_->getChildren();
    if (index.is_null()) index = TarnNodeAccess::MakeIndex(*modify(collection_));
    return index;
  }

  // The first child of that name, unless somebody has deleted it.
  bool move(const std::string& name) {
    auto target = modify(index());
    const TarnIterator place = old_->getIterTo(name.c_str());
    if (place.isNull()) return false;
    const TarnRef child = place.get(nullptr);
    const bool isOwn = TarnNodeAccess::IsParentLink(child, place.getEntry());
    modify(old_->getChildren())->removeEntry(place.getEntry());
    if (isOwn) {
      target->insert(name, child);
    } else {
      target->link(name, child);  // its parent is elsewhere
    }
    return true;
  }

  // False when somebody has added a child to the old node.
  bool end() {
    return step([&] {
      auto collection = modify(collection_);
      if (collection->getOld() != old_) return true;  // another call has ended it
      if (old_->getNumAbstractChildren() > 0) return false;
      collection->discardOld();
      return true;
    });
  }

  goods::cache_manager& session_;
  const TarnRef parent_;
  const std::string name_;
  const TarnRef progress_;
  xcptref<TarnCollection> collection_;
  TarnRef old_;
};

}  // namespace

void TarnCollection::Balance(TarnManager& manager, xcptref<TarnObject> parent, const char* name,
                             xcptref<TarnObject> progress) {
  if (parent.is_null()) ThrowBadRef("NULL TarnRef read dereference");
  if (!IsChildName(ViewOf(name))) return;  // no child bears it
  manager.db().getCacheManager().verifyMayAttach();
  manager.attach();
  Balancing(std::move(parent), name, std::move(progress)).run();
}

}  // namespace tarns
