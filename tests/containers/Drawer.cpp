#include "containers/Drawer.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

TARN_REGISTER(Drawer, tarns::TarnObject);

bool Drawer::write(const char* name, tarns::GOODSinOut& out) {
  tarns::TarnObject::write(name, out);
  out.write("Count", count_);
  return out.write("Label", label_);
}

void Drawer::initialize() { setValue("key~number", tarns::TarnData(std::int32_t{1})); }
