#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnValueComparator.h>

#include <exception>

namespace tarns {

TarnValueComparator::~TarnValueComparator() = default;

int TarnValueComparator::compareValue(const xcptref<TarnObject>& node, const void* key) {
  const TarnData* against = key != nullptr ? static_cast<const TarnData*>(key) : target_;
  // An enumeration is compared with a number as one.
  TarnData value(against != nullptr ? against->getType() : TarnData::None);
  bool exists = false;
  try {
    exists = node->get(path_, value);
  } catch (const std::exception&) {
    exists = false;  // a node that cannot be read counts as one without a value
  }
  if (!exists) return -1;
  const int order = against != nullptr ? value.compare(*against) : 1;
  if (target_ != nullptr) *target_ = value;
  return order;
}

}  // namespace tarns
