#pragma once

#include <tarns/tarns_api.h>

namespace tarns {

// A base for classes that are handled through references. It has no state and counts nothing.
class TARNS_API SrefCounter {
 public:
  SrefCounter(const SrefCounter&) = default;
  SrefCounter& operator=(const SrefCounter&) = default;

 protected:
  SrefCounter() = default;
  virtual ~SrefCounter();
};

}  // namespace tarns
