#include <goods/cache_manager.h>
#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnObject.h>

#include <utility>

#include "core/further_children.h"

namespace tarns {

TarnChildren::Iterator::Iterator(xcptref<TarnObjects> index) : index_(std::move(index)) {
  if (!index_.is_null()) fetch();
}

TarnChildren::Iterator& TarnChildren::Iterator::operator++() {
  if (++at_ == batch_.size() && !isLastBatch_) fetch();
  return *this;
}

void TarnChildren::Iterator::fetch() {
  bool isOfBoth = false;
  auto entries = goods::read_here([&](goods::reader& reader) {
    const goods::index_position* const after = last_ ? &*last_ : nullptr;
    const TarnObjects& own = *reader.get(index_);
    const TarnObjects* const further = FurtherListOf(reader, own);
    isOfBoth = further != nullptr;
    if (isOfBoth) return EntriesOfBoth(reader, own, *further, after, kBatchSize);
    return own.entries_after(reader, after, kBatchSize);
  });
  if (!last_) last_.emplace(std::string_view());
  if (!isOfBoth) {
    last_->move_behind(entries);
  } else if (!entries.empty()) {
    last_ = BehindAllCalled(entries.back().name);
  }
  batch_.clear();
  batch_.reserve(entries.size());
  for (goods::held_entry& entry : entries) {
    batch_.push_back(
        {.name = std::move(entry.name), .child = xcptref<TarnObject>::Trusted(entry.target)});
  }
  at_ = 0;
  isLastBatch_ = isOfBoth ? entries.empty() : entries.size() < kBatchSize;
}

}  // namespace tarns
