#include <goods/cache_manager.h>
#include <goods/object_handle.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "containers/block_ranges.h"
#include "core/further_children.h"
#include "core/node_access.h"

namespace tarns {

TARN_REGISTER(TarnBundle, TarnObject);

namespace {

[[maybe_unused]] const bool isDefined =
    DefineIndivisible([](const TarnRef& node) { return node.isA<TarnBundle>(); });

constexpr unsigned short kAllFree = TarnBundleBlock::kCapacity;

goods::ref<goods::set_member> EntryCalled(const TarnRef& node, const char* name) {
  return node.is_null() ? nullptr : node->getIterTo(name).getEntry();
}

// The entry of a node's child: its link to the parent unless it has its parent elsewhere.
goods::ref<goods::set_member> EntryOf(const TarnRef& node, const TarnRef& child) {
  auto found = goods::read_here([&](goods::reader& reader) {
    const TarnObject& body = *reader.get(child);
    const bool isHere = TarnNodeAccess::ParentOf(reader, body) == reader.get(node);
    return goods::ref<goods::set_member>::trusted(
        isHere ? goods::to_reference(TarnNodeAccess::ParentLinkOf(body)) : goods::object_ref());
  });
  if (!found.is_null()) return found;
  ForEachEntry(node->getChildren(), [&](const goods::held_entry& entry, const TarnRef& target) {
    if (target == child) found = entry.member;
    return found.is_null();
  });
  return found;
}

// Whether a block's name says that so many slots are free.
bool SaysNumber(std::string_view name, std::string_view base) {
  return name.starts_with(base) && (name.size() == base.size() || name[base.size()] == '_');
}

// Makes the members of an object those of a new one, without children; its place in the tree stays.
void Renew(TarnObject& object) {
  const bool hasIndex = !TarnNodeAccess::ChildrenOf(object).is_null();
  if (hasIndex && object.getNumAbstractChildren() > 0) object.deleteChildren();
  if (&object.cls() == &TarnObject::self_class) return;
  const TarnRef fresh = object.constructor();
  TarnNodeAccess::CopyState(static_cast<const TarnObject&>(*fresh.handle()->body()), object);
}

// As TarnObjects::insert(), for a child whose body is at hand.
void Enter(const xcptref<TarnObjects>& children, std::string_view name, const TarnRef& child,
           TarnObject& body) {
  const auto index = modify(children);
  const goods::ref_word parent = index->getParentWord();
  const bool mayBeAbove = !TarnNodeAccess::ChildrenOf(body).is_null() || parent == child.word() ||
                          (parent.is_id() && parent.id() == child.id());
  if (mayBeAbove) return index->insert(name, child);
  const auto entry = index->link(name, child);
  if (child.handle()->wanted_storage() == goods::object_handle::no_storage) {
    PlaceBeside(body, parent);
  }
  body.adoptOrphan(entry, !TarnNodeAccess::ParentLinkOf(body).is_null());
}

// The child of that name in an index (null has none), or null.
const TarnObject* LookAt(goods::reader& reader, const TarnObjects* index, std::string_view name) {
  const auto entry = index != nullptr ? index->find(reader, name) : std::nullopt;
  if (!entry) return nullptr;
  return static_cast<const TarnObject*>(reader.look(entry->target, TarnObject::self_class));
}

[[noreturn]] void ThrowNoSpace(const TarnRef& bundle) {
  TarnException error;
  error << "The bundle \"" << bundle->getName()
        << "\" cannot hand out objects: its blocks are not in the index of its own child \""
        << TarnBundle::kBlocks << "\".";
  throw error;
}

// What is known of a block when its objects have identifiers.
std::optional<BlockRanges::Range> RangeOf(const xcptref<TarnBundleBlock>& block) {
  BlockRanges::Range range{block.id(), 0, 0};
  if (!block->getIdentifiers(range.first, range.last)) return std::nullopt;
  return range;
}

// Finds the block that holds a bundled object: by what the session knows, then by looking at each.
class BlockSearch {
 public:
  BlockSearch(TarnRef blocks, TarnRef object)
      : blocks_(std::move(blocks)), object_(std::move(object)) {
    goods::cache_manager* const session = goods::cache_manager::current();
    if (session == nullptr || blocks_.id() == 0 || object_.id() == 0) return;
    session_ = session;
    ranges_ = &BlockRanges::Of(*session);
  }

  // The slot, TarnBundleBlock::kCapacity when there is none.
  struct Place {
    xcptref<TarnBundleBlock> block;
    unsigned short slot = TarnBundleBlock::kCapacity;
  };

  Place find() {
    if (ranges_ != nullptr && (findKnown() || (learn() && findKnown()))) return place_;
    findAmongAll();
    return place_;
  }

 private:
  bool isIn(const xcptref<TarnBundleBlock>& block) {
    const unsigned short slot = block->getIndexOf(object_);
    if (slot == TarnBundleBlock::kCapacity) return false;
    place_ = {block, slot};
    return true;
  }

  bool findKnown() {
    for (const goods::object_id id : ranges_->candidates(blocks_.id(), object_.id())) {
      try {
        if (isOneOfBlocks(id)) {
          if (isIn(xcptref<TarnBundleBlock>::Trusted(session_->find(id)))) return true;
          continue;
        }
      } catch (const TarnException& error) {
        if (error.getErrorID() != ErrorID::ObjectGone) throw;
      }
      ranges_->forget(blocks_.id(), id);
    }
    return false;
  }

  // The number may be another object's by now.
  bool isOneOfBlocks(goods::object_id id) const {
    return goods::read_here([&](goods::reader& reader) {
      const goods::object* object = reader.look(goods::ref_word::of(id), goods::object::self_class);
      if (!TarnBundleBlock::self_class.is_superclass_for(object->cls())) return false;
      const auto& block = static_cast<const TarnBundleBlock&>(*object);
      return TarnNodeAccess::ParentOf(reader, block) == reader.get(blocks_);
    });
  }

  // Looks at all blocks that nothing is known of: one walk teaches what later searches need.
  // Whether there were any.
  bool learn() const {
    bool isNew = false;
    ForEachEntry(blocks_->getChildren(), [&](const goods::held_entry&, const TarnRef& child) {
      if (child.id() == 0 || ranges_->knows(blocks_.id(), child.id())) return true;
      const auto range = RangeOf(xcptref<TarnBundleBlock>(child));
      if (!range) return true;
      ranges_->add(blocks_.id(), *range);
      isNew = true;
      return true;
    });
    return isNew;
  }

  // In the order of the blocks' names. What was known of the block is not true any more.
  void findAmongAll() {
    ForEachEntry(blocks_->getChildren(), [&](const goods::held_entry&, const TarnRef& child) {
      const xcptref<TarnBundleBlock> block(child);
      if (!isIn(block)) return true;
      const auto range = ranges_ != nullptr && block.id() != 0 ? RangeOf(block) : std::nullopt;
      if (range) ranges_->add(blocks_.id(), *range);
      return false;
    });
  }

  const TarnRef blocks_, object_;
  Place place_;
  goods::cache_manager* session_ = nullptr;
  BlockRanges* ranges_ = nullptr;  // null where nothing can be known
};

}  // namespace

TarnBundle::TarnBundle(const char* className) : TarnBundle(className, SelfClass()) {}

TarnBundle::TarnBundle(const char* className, goods::class_descriptor& cls) : TarnBundle(cls) {
  initClassName(className);
}

TarnBundle::~TarnBundle() = default;

bool TarnBundle::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  return out.write("ClassName", className_);
}

void TarnBundle::initClassName(const char* className) {
  if (className_.str().empty()) className_.set(className);
}

XString TarnBundle::getClassName() const { return XString(className_.str()); }

void TarnBundle::addChild(const char* name, xcptref<TarnObject> child) {
  TarnObject::addChild(name, std::move(child));
}

XString TarnBundle::addUniqueChild(const char* name, xcptref<TarnObject> child) {
  return TarnObject::addUniqueChild(name, std::move(child));
}

bool TarnBundle::deleteChild(const char* name) { return TarnObject::deleteChild(name); }

xcptref<TarnObject> TarnBundle::bundledChildren() const {
  return getChildWithName(kBundledChildren);
}

xcptref<TarnObject> TarnBundle::blocks() const { return getChildWithName(kBlocks); }

// --- Creating -----------------------------------------------------------------------------------

xcptref<TarnObject> TarnBundle::newChild(const char* name) {
  const std::string_view text = ViewOf(name);
  if (!IsChildName(text)) VerifyChildName(getSelf(), text);  // throws
  Space own;
  Space& space = putOff_ != nullptr ? *putOff_ : own;
  bool isFresh = false;
  TarnRef child = takeObject(space, isFresh);
  // initialize() may use the bundle, too.
  const xcptref<TarnObjects> children = space.children;
  {
    const auto body = modify(child);
    if (!isFresh) Renew(*body);
    body->initialize();
    Enter(children, text, child, *body);
  }
  if (putOff_ == nullptr) rename(own);  // by what is free now
  return child;
}

// Of the block to fill next, which goes into `space`. What was put off is settled when it is
// another one than before. `isFresh`: the object is still as it was made.
xcptref<TarnObject> TarnBundle::takeObject(Space& space, bool& isFresh) {
  for (bool isKnown = space.isNext;; isKnown = false) {
    if (!isKnown) {
      settle();
      findOrMakeSpace(space);
    }
    const auto block = modify(space.block);
    unsigned short slot = 0;
    isFresh = block->allocate(slot);
    if (slot >= TarnBundleBlock::kCapacity && isKnown) continue;
    TarnRef child = block->getAt(slot);
    if (!child.is_null()) return child;
    isFresh = true;
    return refill(space.block, slot);
  }
}

void TarnBundle::findOrMakeSpace(Space& space) {
  if (!findSpace(space)) {
    makeSpace();
    if (!findSpace(space)) ThrowNoSpace(getSelf());
  }
  space.isNext = true;
}

void TarnBundle::together(const std::function<void()>& work) {
  if (putOff_ != nullptr) return work();
  Space putOff;
  putOff_ = &putOff;
  try {
    work();
    settle();
  } catch (...) {
    // Of a stored bundle the transaction is lost; one that is not keeps what was done.
    try {
      settle();
    } catch (const std::exception& error) {
      Log log(Log::Level::Debug);
      log << "A block of a bundle keeps its name: " << error.what();
    }
    putOff_ = nullptr;
    throw;
  }
  putOff_ = nullptr;
}

// Does what was put off.
void TarnBundle::settle() {
  if (putOff_ == nullptr || putOff_->block.is_null()) return;
  const Space space = std::exchange(*putOff_, {});
  rename(space);
}

// The index of the objects' names, and the block to fill next. False when something is missing.
bool TarnBundle::findSpace(Space& space) const {
  static const XString kFirst = TarnBundleBlock::GetBaseNameFor(1);
  return goods::read_here([&](goods::reader& reader) {
    const TarnObjects* own = TarnNodeAccess::IndexOf(reader, Current(reader, *this));
    const TarnObject* children = LookAt(reader, own, kBundledChildren);
    const TarnObject* blocks = LookAt(reader, own, kBlocks);
    if (children == nullptr || blocks == nullptr) return false;
    const TarnObjects* index = TarnNodeAccess::IndexOf(reader, *blocks);
    const auto entry = index != nullptr ? index->lower_bound(reader, kFirst.view()) : std::nullopt;
    if (!entry || TarnNodeAccess::ChildrenOf(*children).is_null()) return false;
    space.children = TarnNodeAccess::ChildrenOf(*children);
    space.blocks = blocks->getSelf();
    space.list = TarnNodeAccess::ChildrenOf(*blocks);
    space.entry = goods::ref<goods::set_member>::trusted(goods::to_reference(entry->member));
    space.block = xcptref<TarnBundleBlock>(goods::to_reference(entry->target));
    return true;
  });
}

void TarnBundle::makeSpace() {
  const TarnRef children = getChildWithNameNoFail(kBundledChildren, TarnObject::GetType());
  TarnNodeAccess::MakeIndex(*modify(children));
  getFullestBlockWithSpace(nullptr);
}

// As updateBlockName(), for a block whose number of free slots has changed.
void TarnBundle::rename(const Space& space) {
  if (space.entry.is_null()) return;
  XString base;
  bool isRight = false, isPlain = false;
  goods::read_here([&](goods::reader& reader) {
    base = reader.get(space.block)->getBaseName();
    isRight = SaysNumber(reader.get(space.entry)->key(), base.view());
    isPlain = &reader.get(space.blocks)->cls() == &TarnObject::self_class;
  });
  if (isRight) return;
  const auto list = modify(space.list);
  if (isPlain && RenameInPlace(*list, space.entry, base.view(), true)) return;
  const XString unique = space.blocks->getUniqueChildName(base);
  list->rename(space.entry, unique.view());
}

xcptref<TarnObject> TarnBundle::getFullestBlockWithSpace(XString* blockName) {
  const TarnRef blocks = getChildWithNameNoFail(kBlocks, TarnObject::GetType());
  const TarnIterator place = blocks->getIterToOrAfter(TarnBundleBlock::GetBaseNameFor(1));
  XString name(place.getEntryName());
  TarnRef block = place.isNull() ? TarnRef(addBlock(blocks, name)) : place.get(nullptr);
  if (blockName != nullptr) *blockName = name;
  return block;
}

xcptref<TarnBundleBlock> TarnBundle::addBlock(const xcptref<TarnObject>& blocks, XString& name) {
  auto block = TarnBundleBlock::Create();
  modify(block)->initialize(getClassName());
  name = modify(blocks)->addUniqueChild(TarnBundleBlock::GetBaseNameFor(kAllFree), block);
  return block;
}

// A slot whose object was lost with a damaged database gets another one.
xcptref<TarnObject> TarnBundle::refill(const xcptref<TarnBundleBlock>& block,
                                       unsigned short slot) const {
  TarnRef child = CreateOfType(getClassName());
  if (child.is_null()) TarnException::ThrowMissingDescriptor(getClassName());
  modify(block)->setAt(slot, child);
  return child;
}

void TarnBundle::updateBlockName(xcptref<TarnObject> block, const char* oldName) {
  const XString base = xcptref<TarnBundleBlock>(block)->getBaseName();
  const TarnRef blocks = this->blocks();
  if (blocks.is_null()) return;
  const goods::ref<goods::set_member> entry = EntryOf(blocks, block);
  // An entry that gets another name is the same one: nothing is left behind.
  if (!SaysNumber(ViewOf(oldName), base.view()) && !entry.is_null() &&
      entry->key() == ViewOf(oldName)) {
    const XString unique = blocks->getUniqueChildName(base);
    modify(blocks->getChildren())->rename(entry, unique.view());
    return;
  }
  auto list = modify(blocks);
  list->deleteChild(oldName);
  list->addUniqueChild(base, block);
}

// --- Deleting and renaming ----------------------------------------------------------------------

bool TarnBundle::deleteBundledChild(const char* name) {
  xcptref<TarnObjects> children;
  goods::ref<goods::set_member> entry;
  TarnRef child, blocks;
  goods::read_here([&](goods::reader& reader) {
    entry = nullptr;
    blocks = nullptr;
    const TarnObjects* own = TarnNodeAccess::IndexOf(reader, Current(reader, *this));
    const TarnObject* list = LookAt(reader, own, kBundledChildren);
    const TarnObjects* index = list != nullptr ? TarnNodeAccess::IndexOf(reader, *list) : nullptr;
    const auto found = index != nullptr ? index->find(reader, ViewOf(name)) : std::nullopt;
    if (!found) return;
    children = TarnNodeAccess::ChildrenOf(*list);
    entry = goods::ref<goods::set_member>::trusted(goods::to_reference(found->member));
    child = TarnRef::Trusted(goods::to_reference(found->target));
    if (const TarnObject* all = LookAt(reader, own, kBlocks)) blocks = all->getSelf();
  });
  if (entry.is_null()) return false;
  modify(children)->removeEntry(entry);
  if (!blocks.is_null()) markAsFree(child, blocks);
  return true;
}

// Nothing for an object that others have put there.
void TarnBundle::markAsFree(const xcptref<TarnObject>& child, const xcptref<TarnObject>& blocks) {
  const auto [block, slot] = BlockSearch(blocks, child).find();
  if (block.is_null()) return;
  modify(block)->release(slot);
  if (putOff_ != nullptr && putOff_->block == block) {
    putOff_->isNext = false;
    return;
  }
  settle();
  Space space;
  space.block = block;
  space.blocks = blocks;
  space.list = space.blocks->getChildren();
  space.entry = EntryOf(space.blocks, block);
  if (putOff_ != nullptr) {
    *putOff_ = space;
  } else {
    rename(space);
  }
}

bool TarnBundle::renameBundledChild(const char* oldName, const char* newName) {
  const TarnRef children = bundledChildren();
  const auto entry = EntryCalled(children, oldName);
  if (entry.is_null()) return false;
  VerifyChildName(children, ViewOf(newName));
  if (ViewOf(oldName) != ViewOf(newName)) {
    modify(children->getChildren())->rename(entry, ViewOf(newName));
  }
  return true;
}

// --- Finding ------------------------------------------------------------------------------------

xcptref<TarnObject> TarnBundle::getBundledChildWithName(const char* name) const {
  const TarnRef children = bundledChildren();
  return children.is_null() ? nullptr : children->getChildWithName(name);
}

xcptref<TarnObject> TarnBundle::getBundledChildWithNameNoFail(const char* name) const {
  return getBundledChildWithName(name);
}

void TarnBundle::getBundledChildNames(XStringList& names) const {
  if (const TarnRef children = bundledChildren(); !children.is_null()) {
    children->getChildNames(names);
  }
}

unsigned long TarnBundle::getNumBundledChildren() const {
  const TarnRef children = bundledChildren();
  return children.is_null() ? 0 : children->getNumChildren();
}

unsigned long TarnBundle::getNumBlocks() const {
  const TarnRef blocks = this->blocks();
  return blocks.is_null() ? 0 : blocks->getNumChildren();
}

TarnBundleIter TarnBundle::first() const {
  const TarnRef blocks = this->blocks();
  return blocks.is_null()
             ? TarnBundleIter()
             : TarnBundleIter(blocks->getIterToFirstAbstractChild(), bundledChildren());
}

}  // namespace tarns
