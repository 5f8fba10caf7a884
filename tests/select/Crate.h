#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>

// A class with members that paths lead to: a number, a text and a node.
class Crate : public tarns::TarnObject {
  TARN_CLASS(Crate, tarns::TarnObject)

 public:
  bool write(const char* name, tarns::GOODSinOut& out) override;

 private:
  std::int32_t count_ = 0;                   // stored as "Count"
  tarns::TarnString label_;                  // stored as "Label"
  tarns::xcptref<tarns::TarnObject> inner_;  // stored as "Inner"
};
