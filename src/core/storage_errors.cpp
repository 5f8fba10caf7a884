// Lets every failure of the storage and of the object-database client surface as a TarnException.
#include <goods/errors.h>
#include <tarns/core/TarnException.h>

#include <string>

namespace tarns {

namespace {

// A TarnException that code of goods can still catch as its own.
class StorageException : public TarnException, public goods::error_info {
 public:
  StorageException(goods::error_code code, const std::string& message)
      : TarnException(message.c_str(), static_cast<unsigned long>(code)), goods::error_info(code) {}
};

// Codes become identifiers as they are.
constexpr bool IsSame(goods::error_code code, unsigned long id) {
  return static_cast<unsigned long>(code) == id;
}
static_assert(IsSame(goods::error_code::null_reference, ErrorID::Unspecified) &&
              IsSame(goods::error_code::bad_typecast, ErrorID::BadTypecast) &&
              IsSame(goods::error_code::deadlock, ErrorID::Deadlock) &&
              IsSame(goods::error_code::lock_timeout, ErrorID::LockTimeOut) &&
              IsSame(goods::error_code::input_output, ErrorID::IOFailure) &&
              IsSame(goods::error_code::storage_full, ErrorID::StorageFull) &&
              IsSame(goods::error_code::corrupt_data, ErrorID::CorruptData) &&
              IsSame(goods::error_code::database_in_use, ErrorID::DatabaseInUse) &&
              IsSame(goods::error_code::outcome_unknown, ErrorID::OutcomeUnknown) &&
              IsSame(goods::error_code::read_only, ErrorID::ReadOnly) &&
              IsSame(goods::error_code::object_deleted, ErrorID::ObjectGone) &&
              IsSame(goods::error_code::newer_version, ErrorID::NewerVersion) &&
              IsSame(goods::error_code::thread_not_attached, ErrorID::ThreadNotAttached) &&
              IsSame(goods::error_code::usage, ErrorID::BadUsage));

void ThrowAsTarnException(goods::error_code code, const std::string& message) {
  throw StorageException(code, message);
}

[[maybe_unused]] const bool installed = [] {
  goods::set_error_thrower(ThrowAsTarnException);
  return true;
}();

}  // namespace

}  // namespace tarns
