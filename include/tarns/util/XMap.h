#pragma once

#include <tarns/tarns_api.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace tarns {

// One pair of key and value in an XMap. What keys and values are is up to the derived class, which
// also is the factory of further items: a map is given one item as a pattern.
class TARNS_API XMapItem {
 public:
  XMapItem() = default;
  XMapItem(const XMapItem&) = delete;
  XMapItem& operator=(const XMapItem&) = delete;
  virtual ~XMapItem();

  // 0 when the keys are equal; the sign otherwise is the derived class's affair.
  virtual int compare(const XMapItem& other) const = 0;
  virtual int compareKey(const void* key) const = 0;
  // A new item with copies of both.
  virtual std::unique_ptr<XMapItem> create(const void* key, const void* value) const = 0;
  // Equal keys give equal results below `size`, which is at least 1.
  virtual unsigned long getHashIndex(const void* key, unsigned long size) const = 0;
  virtual const void* getKey() const = 0;
  virtual void setValue(const void* value) = 0;

  // Hashes to build getHashIndex from.
  static unsigned long HashOf(std::string_view text, unsigned long size);
  static unsigned long HashOf(std::uint64_t number, unsigned long size);
};

// A place in an XMap: at an item, or at none, which is both before the first and behind the last.
// Items are never removed, so a place stays valid while the map lives; one that was taken before
// items were added meets some of them and not others.
class XMapIter {
 public:
  bool isNull() const noexcept { return bucket_ == kNone; }

 private:
  friend class XMap;
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t bucket_ = kNone;
  std::size_t position_ = 0;
};

// A hash table of a fixed number of buckets. Items come in no particular order.
// Ownership: the map owns its items. Threads: any number of readers or one writer.
class TARNS_API XMap {
 public:
  // `pattern` makes the items; a `hashSize` of 0 counts as 1.
  XMap(std::unique_ptr<XMapItem> pattern, unsigned long hashSize);
  XMap(const XMap&) = delete;
  XMap& operator=(const XMap&) = delete;
  virtual ~XMap();

  std::size_t getCount() const noexcept { return count_; }

 protected:
  // The item of a key, or null.
  XMapItem* lookup(const void* key) const;
  // Gives the key's item the value, or adds an item.
  void setAt(const void* key, const void* value);

  // The item at the place, or null when it is at none.
  XMapItem* getAt(const XMapIter& place) const;
  // Moves on (back) and returns the item there: from none to the first (last), from the last
  // (first) to none and null.
  XMapItem* getNext(XMapIter& place) const;
  XMapItem* getPrev(XMapIter& place) const;

 private:
  using Bucket = std::vector<std::unique_ptr<XMapItem>>;
  const Bucket& bucketOf(const void* key) const;

  std::unique_ptr<XMapItem> pattern_;
  std::vector<Bucket> buckets_;
  std::size_t count_ = 0;
};

}  // namespace tarns
