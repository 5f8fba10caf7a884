#include <tarns/containers/TarnBundleIter.h>

namespace tarns {

TarnBundleIter::TarnBundleIter(TarnIterator blocks) {
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
  } else {
    name = current_->getName();
  }
}

}  // namespace tarns
