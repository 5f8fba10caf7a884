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

void ThrowAsTarnException(goods::error_code code, const std::string& message) {
  throw StorageException(code, message);
}

[[maybe_unused]] const bool installed = [] {
  goods::set_error_thrower(ThrowAsTarnException);
  return true;
}();

}  // namespace

}  // namespace tarns
