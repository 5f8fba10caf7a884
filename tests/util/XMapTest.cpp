#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <tarns/util/XMap.h>

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace tarns {
namespace {

class NumberItem : public XMapItem {
 public:
  NumberItem(std::uint32_t key, int value) : key_(key), value_(value) {}
  int compare(const XMapItem& other) const override { return compareKey(other.getKey()); }
  int compareKey(const void* key) const override {
    return key_ == *static_cast<const std::uint32_t*>(key) ? 0 : 1;
  }
  std::unique_ptr<XMapItem> create(const void* key, const void* value) const override {
    return std::make_unique<NumberItem>(*static_cast<const std::uint32_t*>(key),
                                        *static_cast<const int*>(value));
  }
  unsigned long getHashIndex(const void* key, unsigned long size) const override {
    return HashOf(std::uint64_t{*static_cast<const std::uint32_t*>(key)}, size);
  }
  const void* getKey() const override { return &key_; }
  void setValue(const void* value) override { value_ = *static_cast<const int*>(value); }
  std::pair<std::uint32_t, int> pair() const { return {key_, value_}; }

 private:
  std::uint32_t key_;
  int value_;
};

class NumberMap : public XMap {
 public:
  explicit NumberMap(unsigned long size) : XMap(std::make_unique<NumberItem>(0, 0), size) {}
  void set(std::uint32_t key, int value) { setAt(&key, &value); }
  const int* find(std::uint32_t key) const {
    found_ = lookup(&key) != nullptr ? static_cast<NumberItem*>(lookup(&key))->pair().second : 0;
    return lookup(&key) != nullptr ? &found_ : nullptr;
  }
  std::vector<std::pair<std::uint32_t, int>> all(XMapItem* (XMap::*step)(XMapIter&) const) const {
    std::vector<std::pair<std::uint32_t, int>> items;
    XMapIter place;
    while (XMapItem* item = (this->*step)(place)) {
      EXPECT_EQ(getAt(place), item);
      items.push_back(static_cast<NumberItem*>(item)->pair());
    }
    EXPECT_TRUE(place.isNull());
    return items;
  }
  auto forward() const { return all(&NumberMap::getNext); }
  auto backward() const { return all(&NumberMap::getPrev); }

 private:
  mutable int found_ = 0;
};

TEST(XMapTest, AgreesWithAStandardMapForEveryTableSize) {
  EXPECT_TRUE(rc::check([](const std::vector<std::pair<std::uint8_t, int>>& pairs) {
    for (const unsigned long size : {0UL, 1UL, 7UL, 127UL}) {
      NumberMap map(size);
      std::map<std::uint32_t, int> model;
      for (const auto& [key, value] : pairs) {
        map.set(key, value);
        model[key] = value;
      }
      RC_ASSERT(map.getCount() == model.size());
      for (const auto& [key, value] : model) RC_ASSERT(*map.find(key) == value);
      RC_ASSERT(map.find(256) == nullptr);
      auto forward = map.forward();
      const auto backward = map.backward();
      RC_ASSERT(std::vector(backward.rbegin(), backward.rend()) == forward);
      std::sort(forward.begin(), forward.end());
      RC_ASSERT(std::equal(
          forward.begin(), forward.end(), model.begin(), model.end(),
          [](const auto& l, const auto& r) { return l.first == r.first && l.second == r.second; }));
    }
  }));
}

}  // namespace
}  // namespace tarns
