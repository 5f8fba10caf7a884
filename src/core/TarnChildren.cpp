#include <goods/cache_manager.h>
#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnObject.h>

#include <utility>

namespace tarns {

TarnChildren::Iterator::Iterator(xcptref<TarnObjects> index) : index_(std::move(index)) {
  if (!index_.is_null()) fetch();
}

TarnChildren::Iterator& TarnChildren::Iterator::operator++() {
  if (++at_ == batch_.size() && !isLastBatch_) fetch();
  return *this;
}

void TarnChildren::Iterator::fetch() {
  auto entries = goods::read_here([&](goods::reader& reader) {
    return reader.get(index_)->entries_after(reader, last_ ? &*last_ : nullptr, kBatchSize);
  });
  if (!last_) last_.emplace(std::string_view());
  last_->move_behind(entries);
  batch_.clear();
  batch_.reserve(entries.size());
  for (goods::held_entry& entry : entries) {
    batch_.push_back(
        {.name = std::move(entry.name), .child = xcptref<TarnObject>::Trusted(entry.target)});
  }
  at_ = 0;
  isLastBatch_ = entries.size() < kBatchSize;
}

}  // namespace tarns
