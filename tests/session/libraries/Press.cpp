#include "Press.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/session/TarnLibrary.h>

TARN_LIBRARY();
TARN_REGISTER(Press, Machine);

bool Press::write(const char* name, tarns::GOODSinOut& out) {
  Machine::write(name, out);
  return out.write("Force", force_);
}
