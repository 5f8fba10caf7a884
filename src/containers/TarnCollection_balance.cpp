// TarnCollection: making the index of a node anew.
#include <goods/cache_manager.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/session/TarnManager.h>

#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/further_children.h"
#include "core/node_access.h"
#include "core/value_index.h"

namespace tarns {

namespace {

constexpr std::size_t kNamesAtOnce = 512;

[[noreturn]] void ThrowCannotBalance(const std::string& name, const std::string& why) {
  TarnException error;
  error << "The node \"" << name << "\" cannot be balanced: " << why;
  throw error;
}

// Whether the error is that of one object, which others do not have.
bool IsUnreadable(const TarnException& error) {
  return error.getErrorID() == ErrorID::ObjectGone || error.getErrorID() == ErrorID::CorruptData;
}

// Whether a collection shows the node's value as the node does.
bool SurvivesAsUint32(const TarnRef& node, const TarnData& value) {
  if (!TarnValue::CreateValue(value)->isOfType(node->getType())) return false;
  return TarnData(value.getUint32()).getText() == value.getText();
}

// The entry that the path leads through; null for what a member refers to.
goods::ref<goods::set_member> EntryOf(const TarnRef& parent, const char* name,
                                      const TarnRef& child) {
  for (TarnRef holder = parent; !holder.is_null(); holder = FurtherHolderOf(holder)) {
    const TarnIterator place = holder->getIterTo(name);
    if (!place.isNull() && place.get(nullptr) == child) return place.getEntry();
  }
  return nullptr;
}

// Throws unless a collection in the child's place does all that the child does.
void VerifyReplaceable(const TarnRef& parent, const std::string& name, const TarnRef& child) {
  const bool isBundles = name == TarnBundle::kBundledChildren || name == TarnBundle::kBlocks;
  if (isBundles && parent.isA<TarnBundle>())
    ThrowCannotBalance(name, "a bundle needs it as it is.");
  if (!child->isOfType(TarnObject::GetType()) && !child->isOfType(TarnCollection::GetType())) {
    TarnData value;
    if (!child->get(nullptr, value) || !SurvivesAsUint32(child, value)) {
      ThrowCannotBalance(name, std::string("a collection cannot replace a \"") + child->getType() +
                                   "\" of its kind without loss.");
    }
  }
  if (child->hasParent() &&
      !TarnNodeAccess::IsParentLink(child, EntryOf(parent, name.c_str(), child))) {
    ThrowCannotBalance(name, "it has its parent elsewhere; balance it there.");
  }
}

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
      if (failure_) std::rethrow_exception(failure_);
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
      VerifyReplaceable(parent_, name_, child);
      old_ = child;
      const xcptref<TarnCollection> made(new TarnCollection(child));
      auto collection = modify(made);
      if (TarnData value; child->get(nullptr, value)) collection->setValue(nullptr, value);
      const auto& index = TarnNodeAccess::MakeIndex(*collection);
      if (const auto old = child->getChildren(); !old.is_null()) DeclareValueIndexesOf(old, index);
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

  // Until the old node has no children that can be read, whoever takes them out.
  void moveAll() {
    std::string failed;  // children called so, and before that, stay
    while (true) {
      const std::vector<std::string> names = old_->getChildNames(failed, kNamesAtOnce);
      if (names.empty()) return;
      for (const std::string& name : names) {
        if (name != failed && !step([&] { return move(name); })) failed = name;
      }
    }
  }

  // Whether the child has its parent through the entry; nothing when it cannot be read.
  std::optional<bool> isHome(const TarnRef& child, const goods::ref<goods::set_member>& entry) {
    try {
      return TarnNodeAccess::IsParentLink(child, entry);
    } catch (const TarnException& error) {
      if (!IsUnreadable(error)) throw;
      if (!failure_) failure_ = std::current_exception();
      return std::nullopt;
    }
  }

  xcptref<TarnObjects> index() const {
    xcptref<TarnObjects> index = collection_->getChildren();
    if (index.is_null()) index = TarnNodeAccess::MakeIndex(*modify(collection_));
    return index;
  }

  // The first child of that name, unless somebody has deleted it. False when it cannot be read, and
  // stays. An entry without child, as damage leaves them, goes over as it is.
  bool move(const std::string& name) {
    auto target = modify(index());
    const TarnIterator place = old_->getIterTo(name.c_str());
    if (place.isNull()) return true;
    const TarnRef child = place.get(nullptr);
    const auto isOwn = isHome(child, place.getEntry());
    if (!isOwn) return false;
    modify(old_->getChildren())->removeEntry(place.getEntry());
    if (*isOwn) {
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
  std::exception_ptr failure_;  // the first child's that could not be read
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
