#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/Buffer.h>

#include <exception>

namespace tarns {

// An error with a message that is streamed together before it is thrown:
//
//   XException error;
//   error << "Invalid storage entry \"" << line << "\".";
//   throw error;  // by name, so that a derived class is not cut down to its base
//
// Threads: not shared while it changes.
class TARNS_API XException : public std::exception {
 public:
  XException() noexcept;
  explicit XException(const char* message);
  XException(const XException& other);
  XException(XException&& other) noexcept;
  XException& operator=(const XException& other);
  XException& operator=(XException&& other) noexcept;
  ~XException() override;

  // Replaces the message; null empties it.
  void setError(const char* message);

  // The message, "" when there is none; valid until it changes.
  const char* getError() const noexcept { return what(); }
  const char* what() const noexcept override;

  // Appends to the message what a Buffer can append: texts, characters, integers of every type.
  template <BufferAppendable T>
  XException& operator<<(const T& piece) {
    message_ << piece;
    return *this;
  }

 private:
  Buffer message_;
};

}  // namespace tarns
