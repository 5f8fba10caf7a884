#include <goods/errors.h>

#include <atomic>

namespace goods {
namespace {

std::atomic<error_thrower> installed_thrower{nullptr};

}  // namespace

void set_error_thrower(error_thrower thrower) { installed_thrower.store(thrower); }

void throw_error(error_code code, const std::string& message) {
  if (error_thrower thrower = installed_thrower.load()) thrower(code, message);
  throw database_error(code, message);
}

const char* message_of(const error_info& error) {
  const auto* const described = dynamic_cast<const std::exception*>(&error);
  return described != nullptr ? described->what() : "";
}

}  // namespace goods
