#include <tarns/containers/TarnBundleIter.h>

#include <string>
#include <string_view>
#include <utility>

#include "core/node_access.h"

namespace tarns {

namespace {

// Of an object that has its parent elsewhere; empty when the node does not list it.
XString NameIn(const TarnRef& node, const TarnRef& object) {
  std::string name;
  ForEachEntry(node->getChildren(), [&](const goods::held_entry& entry, const TarnRef& target) {
    if (target == object) name = entry.name;
    return name.empty();
  });
  return XString(std::string_view(name));
}

}  // namespace

TarnBundleIter::TarnBundleIter(TarnIterator blocks, xcptref<TarnObject> names)
    : names_(std::move(names)) {
  while (!blocks.isNull()) blocks_.emplace_back(blocks.next(nullptr));
  if (blocks_.empty()) return;
  blocks_.front()->preload();
  moveFrom(0);
}

// To the first used slot from this one on, in this block or a later one.
void TarnBundleIter::moveFrom(unsigned short slot) {
  while (true) {
    const xcptref<TarnBundleBlock>& block = blocks_[block_];
    slot_ = block->getNextUsed(slot);
    if (slot_ < TarnBundleBlock::kCapacity) {
      current_ = block->getAt(slot_);
      if (!current_.is_null()) return;
      slot = static_cast<unsigned short>(slot_ + 1);
      continue;
    }
    if (++block_ == blocks_.size()) return nullify();
    blocks_[block_]->preload();
    slot = 0;
  }
}

xcptref<TarnObject> TarnBundleIter::get(XString* name) const {
  if (name != nullptr) copyName(*name);
  return current_;
}

xcptref<TarnObject> TarnBundleIter::next(XString* name) {
  xcptref<TarnObject> object = get(name);
  if (!isNull()) moveFrom(static_cast<unsigned short>(slot_ + 1));
  return object;
}

void TarnBundleIter::copyName(XString& name) const {
  if (isNull()) {
    name.setCapacity(0);
  } else if (names_.is_null() || current_->getParent() == names_) {
    name = current_->getName();
  } else {
    name = blocks_[block_]->isFree(slot_) ? XString("") : NameIn(names_, current_);
  }
}

}  // namespace tarns
