// The one way in which the storage and the object-database client report a failure.
//
// goods knows no exception type of its users. A library above installs a thrower, and every failure
// then surfaces as that library's exception; without one a database_error is thrown. Whatever is
// thrown also derives from error_info, so that code in between can catch by that and look at the
// code (a deadlock is repeated, say).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <goods/goods_api.h>

namespace goods {

// Values are part of the interface: applications branch on them.
enum class error_code : std::uint32_t {
  null_reference = 0,
  bad_typecast = 12,
  deadlock = 100,         // the victim's transaction has been rolled back; it may be repeated
  lock_timeout = 101,     // waited for longer than the session's lock time limit
  input_output = 102,     // the operating system refused a read, write or sync
  storage_full = 103,     // no room on the device, or a limit of the format is reached
  corrupt_data = 104,     // stored bytes fail their checks
  database_in_use = 105,  // another process holds the store
  outcome_unknown = 106,  // a commit may or may not have become durable
  read_only = 107,
  object_deleted = 108,  // an identifier names no stored object
  newer_version = 109,   // written by a newer version of the library
  thread_not_attached = 110,
  usage = 111,  // address, configuration file or call that cannot be understood
};

// Whether a transaction that failed with this may succeed when it is run again from its beginning.
constexpr bool is_repeatable(error_code code) { return code == error_code::deadlock; }

// Mixed into whatever is thrown.
class GOODS_API error_info {
 public:
  explicit error_info(error_code code) : code_(code) {}
  virtual ~error_info() = default;
  error_code code() const { return code_; }

 private:
  error_code code_;
};

// The text of what was thrown, empty when it has none.
GOODS_API const char* message_of(const error_info& error);

class GOODS_API database_error : public std::runtime_error, public error_info {
 public:
  database_error(error_code code, const std::string& message)
      : std::runtime_error(message), error_info(code) {}
};

using error_thrower = void (*)(error_code code, const std::string& message);

// Installs the function through which throw_error() throws; it must not return normally. Call it
// before threads start (a static initialiser does).
GOODS_API void set_error_thrower(error_thrower thrower);

[[noreturn]] GOODS_API void throw_error(error_code code, const std::string& message);

}  // namespace goods
