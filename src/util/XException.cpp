#include <tarns/util/XException.h>

namespace tarns {

XException::XException() noexcept = default;
XException::XException(const char* message) { setError(message); }
XException::XException(const XException& other) = default;
XException::XException(XException&& other) noexcept = default;
XException& XException::operator=(const XException& other) = default;
XException& XException::operator=(XException&& other) noexcept = default;
XException::~XException() = default;

void XException::setError(const char* message) {
  if (message == nullptr) {
    message_.setCapacity(0);
  } else {
    message_.set(message);
  }
}

const char* XException::what() const noexcept {
  const char* message = message_.getText();
  return message != nullptr ? message : "";
}

}  // namespace tarns
