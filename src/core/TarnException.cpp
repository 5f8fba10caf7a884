#include <tarns/core/TarnException.h>

namespace tarns {

TarnException::TarnException() noexcept = default;
TarnException::TarnException(const char* message, unsigned long id)
    : XException(message), errorID_(id) {}
TarnException::TarnException(const TarnException& other) = default;
TarnException::TarnException(TarnException&& other) noexcept = default;
TarnException& TarnException::operator=(const TarnException& other) = default;
TarnException& TarnException::operator=(TarnException&& other) noexcept = default;
TarnException::~TarnException() = default;

void TarnException::setError(const char* message, unsigned long id) {
  setError(message);
  setErrorID(id);
}

void TarnException::ThrowDBuninitialized() {
  throw TarnException(
      "The operation failed because the client is not connected to the database server.",
      ErrorID::DBuninitialized);
}

void TarnException::ThrowFileNotFound(const char* file) {
  TarnException error;
  error << "The specified file \"" << file << "\" cannot be found.";
  error.setErrorID(ErrorID::FileNotFound);
  throw error;
}

void TarnException::ThrowBadDataType(long type) {
  TarnException error;
  error << "Unrecognized data type \"" << type << "\"";
  error.setErrorID(ErrorID::BadDataType);
  throw error;
}

void TarnException::ThrowMissingDescriptor(const char* className) {
  TarnException error;
  error << "Application or third-party developer error: the class \"" << className
        << "\"does not have a class descriptor.  Please contact the software vendor.";
  error.setErrorID(ErrorID::MissingDescriptor);
  throw error;
}

void TarnException::ThrowNonExistentPath(const char* path) {
  TarnException error;
  error << "The specified path \"" << path << "\" does not exist.";
  error.setErrorID(ErrorID::NonExistentPath);
  throw error;
}

void TarnException::ThrowNonExistentValue(const char* path) {
  TarnException error;
  error << "No value exists at the specified path \"" << path << "\".";
  error.setErrorID(ErrorID::NonExistentPath);
  throw error;
}

void ThrowBadRef(const char* message) { throw TarnException(message, ErrorID::Unspecified); }

}  // namespace tarns
