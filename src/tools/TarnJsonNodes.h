#pragma once

#include <tarns/core/TarnObject.h>

namespace tarns {

// A node that came from a JSON array: its children Items_0, Items_1, ... are the elements. The
// class tells an array from an object with such names, and an empty array from an empty object. To
// programs that do not know it, it is a plain node.
class TarnJsonArray : public TarnObject {
  TARN_CLASS(TarnJsonArray, TarnObject)

 public:
  static constexpr const char* kElements = "Items";  // the base of the elements' names
  ~TarnJsonArray() override;
};

// A node that came from a JSON null. To programs that do not know it, it is a plain node.
class TarnJsonNull : public TarnObject {
  TARN_CLASS(TarnJsonNull, TarnObject)

 public:
  ~TarnJsonNull() override;
};

}  // namespace tarns
