#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>

// A class with a member that begins with a value, a text, and a child that every new one gets.
class Drawer : public tarns::TarnObject {
  TARN_CLASS(Drawer, tarns::TarnObject)

 public:
  static constexpr std::int32_t kNewCount = 7;

  bool write(const char* name, tarns::GOODSinOut& out) override;
  void initialize() override;

 private:
  std::int32_t count_ = kNewCount;  // stored as "Count"
  tarns::TarnString label_;         // stored as "Label"
};
