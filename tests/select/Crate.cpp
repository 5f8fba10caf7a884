#include "select/Crate.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

TARN_REGISTER(Crate, tarns::TarnObject);

bool Crate::write(const char* name, tarns::GOODSinOut& out) {
  tarns::TarnObject::write(name, out);
  out.write("Count", count_);
  out.write("Label", label_);
  return out.write("Inner", &inner_, 1);
}
