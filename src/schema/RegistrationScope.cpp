#include "schema/RegistrationScope.h"

#include <fmt/format.h>

namespace tarns {

namespace {

thread_local RegistrationScope* current = nullptr;

}  // namespace

RegistrationScope::RegistrationScope() { current = this; }

RegistrationScope::~RegistrationScope() { current = nullptr; }

RegistrationScope* RegistrationScope::Current() { return current; }

void RegistrationScope::note(const char* className, const char* problem) {
  if (!hasFailed()) problem_ = fmt::format("cannot register \"{}\": {}", className, problem);
}

}  // namespace tarns
