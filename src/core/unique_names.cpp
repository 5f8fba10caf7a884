#include "core/unique_names.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Stringer.h>

#include <cstdint>
#include <string>

#include "core/node_access.h"

namespace tarns {

namespace {

// Names of fewer characters than this are probed for, longer ones scanned; the two give different
// names where indexes have gaps, and callers rely on either.
constexpr std::size_t kScannedLength = 7;
constexpr std::size_t kScanBatch = 256;

class NameProbe {
 public:
  NameProbe(goods::reader& reader, const TarnObject& node, std::string_view base)
      : reader_(reader), node_(node), base_(base) {}

  std::string element(unsigned long index) const {
    return TarnMember::GetElementName(base_, index);
  }
  bool isTaken(unsigned long index) const { return HasChild(reader_, node_, element(index)); }

  // An index near the first free one: doubling, then halving, in as many steps as its digits in
  // binary; gaps may be met or passed over.
  unsigned long probe() const {
    std::int64_t low = 0, high = 1;
    if (isTaken(1)) {
      std::int64_t k = 1;
      while (isTaken(2 * static_cast<unsigned long>(k))) k *= 2;
      low = k, high = 2 * k;
    }
    while (low <= high) {
      const std::int64_t middle = (low + high) / 2;
      if (isTaken(static_cast<unsigned long>(middle))) {
        low = middle + 1;
      } else {
        high = middle - 1;
      }
    }
    return firstFreeFrom(static_cast<unsigned long>(low));
  }

  // One more than the largest index behind the last '_' of the names that go on from the base name
  // and a '_'; those where no index stands there do not count.
  unsigned long scan() const {
    const std::string prefix = std::string(base_) + "_";
    std::int64_t largest = -1;
    const TarnObjects* index = TarnNodeAccess::IndexOf(reader_, node_);
    goods::index_position position(prefix);
    while (index != nullptr) {
      const auto entries = index->entries_after(reader_, &position, kScanBatch);
      for (const goods::held_entry& entry : entries) {
        if (!entry.name.starts_with(prefix)) return firstFreeFrom(Next(largest));
        const char* number = entry.name.c_str() + entry.name.rfind('_') + 1;
        largest = std::max(largest, TarnMember::ParseIndex(number).value_or(-1));
      }
      if (entries.size() < kScanBatch) break;
      position = goods::index_position(entries.back());
    }
    return firstFreeFrom(Next(largest));
  }

 private:
  static unsigned long Next(std::int64_t index) { return static_cast<unsigned long>(index) + 1; }
  unsigned long firstFreeFrom(unsigned long index) const {
    while (isTaken(index)) ++index;
    return index;
  }

  goods::reader& reader_;
  const TarnObject& node_;
  std::string_view base_;
};

}  // namespace

bool HasChild(goods::reader& reader, const TarnObject& node, std::string_view name) {
  const TarnClassDescriptor& cls = node.getClass();
  if (cls.hasDataMembers() && cls.findMember(name) != nullptr) return true;
  return node.findChild(reader, name) != nullptr;
}

XString UniqueNameIn(goods::reader& reader, const TarnObject& node, std::string_view name) {
  if (!HasChild(reader, node, name)) return XString(name);
  const NameProbe names(reader, node, name);
  const bool isShort = name.size() < kScannedLength;
  return XString(std::string_view(names.element(isShort ? names.probe() : names.scan())));
}

XString NextNameFreeInBoth(const TarnObject& one, const TarnObject& other, std::string_view base,
                           std::string_view after) {
  unsigned long index = 0;
  if (after.size() > base.size() + 1) {
    index = static_cast<unsigned long>(
                Stringer::Atol(std::string(after.substr(base.size() + 1)).c_str())) +
            1;
  }
  return goods::read_here([&](goods::reader& reader) {
    const NameProbe first(reader, Current(reader, one), base);
    const NameProbe second(reader, Current(reader, other), base);
    unsigned long free = index;
    while (first.isTaken(free) || second.isTaken(free)) ++free;
    return XString(std::string_view(first.element(free)));
  });
}

}  // namespace tarns
