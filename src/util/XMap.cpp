#include <tarns/util/XMap.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace tarns {

XMapItem::~XMapItem() = default;

unsigned long XMapItem::HashOf(std::string_view text, unsigned long size) {
  return std::hash<std::string_view>()(text) % size;
}

unsigned long XMapItem::HashOf(std::uint64_t number, unsigned long size) {
  // Spread by the golden ratio: keys that share a factor with `size` would otherwise pile up.
  return (number * 0x9E3779B97F4A7C15U >> 16) % size;
}

XMap::XMap(std::unique_ptr<XMapItem> pattern, unsigned long hashSize)
    : pattern_(std::move(pattern)), buckets_(std::max(hashSize, 1UL)) {}

XMap::~XMap() = default;

const XMap::Bucket& XMap::bucketOf(const void* key) const {
  return buckets_[pattern_->getHashIndex(key, buckets_.size())];
}

XMapItem* XMap::lookup(const void* key) const {
  for (const auto& item : bucketOf(key)) {
    if (item->compareKey(key) == 0) return item.get();
  }
  return nullptr;
}

void XMap::setAt(const void* key, const void* value) {
  if (XMapItem* item = lookup(key)) {
    item->setValue(value);
    return;
  }
  buckets_[pattern_->getHashIndex(key, buckets_.size())].push_back(pattern_->create(key, value));
  ++count_;
}

XMapItem* XMap::getAt(const XMapIter& place) const {
  return place.isNull() ? nullptr : buckets_[place.bucket_][place.position_].get();
}

XMapItem* XMap::getNext(XMapIter& place) const {
  if (place.isNull()) {
    place = {};
    place.bucket_ = 0;
  } else {
    ++place.position_;
  }
  while (place.position_ >= buckets_[place.bucket_].size()) {
    place.position_ = 0;
    if (++place.bucket_ == buckets_.size()) {
      place = {};
      return nullptr;
    }
  }
  return getAt(place);
}

XMapItem* XMap::getPrev(XMapIter& place) const {
  if (place.isNull()) {
    place.bucket_ = buckets_.size();
    place.position_ = 0;
  }
  while (place.position_ == 0) {
    if (place.bucket_ == 0) {
      place = {};
      return nullptr;
    }
    place.position_ = buckets_[--place.bucket_].size();
  }
  --place.position_;
  return getAt(place);
}

}  // namespace tarns
