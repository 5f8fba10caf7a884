#pragma once

#include <tarns/tarns_api.h>

namespace tarns {

// The base of objects whose member functions are called back, see CallBack.
class TARNS_API XObject {
 public:
  XObject() = default;
  virtual ~XObject();
};

}  // namespace tarns
