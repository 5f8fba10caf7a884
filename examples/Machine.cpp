#include "Machine.h"

#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

TARN_REGISTER(Machine, tarns::TarnObject);

bool Machine::write(const char* name, tarns::GOODSinOut& out) {
  tarns::TarnObject::write(name, out);
  out.write("Speed", speed_);
  out.write("Loads", loads_);
  out.writeEnum("State", state_);
  out.addEnumValue("State", static_cast<unsigned long>(State::kIdle), "Idle");
  out.addEnumValue("State", static_cast<unsigned long>(State::kRunning), "Running");
  out.addEnumValue("State", static_cast<unsigned long>(State::kBroken), "Broken");
  out.writeText("Serial", serial_);
  out.write("On", isOn_);
  out.write("Label", label_);
  return out.write("Feeder", feeder_);
}
