#pragma once

#include <string>

namespace tarns {

// While one lives, the calling thread loads a library of classes: what their registration throws is
// noted here, since an exception that leaves a static initialiser ends the process.
// Threads: made, used and destroyed by one. They do not nest.
class RegistrationScope {
 public:
  RegistrationScope();
  ~RegistrationScope();
  RegistrationScope(const RegistrationScope&) = delete;
  RegistrationScope& operator=(const RegistrationScope&) = delete;

  // The calling thread's; null when it has none.
  static RegistrationScope* Current();

  // Where a class could not be registered, the rest of the library is not either.
  void note(const char* className, const char* problem);
  bool hasFailed() const { return !problem_.empty(); }
  const std::string& problem() const { return problem_; }  // the first one

 private:
  std::string problem_;
};

}  // namespace tarns
