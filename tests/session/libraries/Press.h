#pragma once

#include "examples/Machine.h"

// A class whose base is in another library.
class Press : public Machine {
  TARN_CLASS(Press, Machine)

 public:
  bool write(const char* name, tarns::GOODSinOut& out) override;

 private:
  std::int32_t force_ = 100;  // stored as "Force"
};
