#pragma once

#include <cstdint>

namespace tarns {

// Told by long operations how far they are.
//
// Ownership: the caller of the operation keeps the reporter alive until the operation returns.
// Threads: called on the thread that runs the operation, with no lock held. An exception thrown
// here ends the operation as any other error in it would.
class XProgressReporter {
 public:
  virtual ~XProgressReporter() = default;

  // `done` of `total` units of the operation's choice (bytes of a file, for one); `done` never goes
  // back. A `total` of 0 means that it is not known.
  virtual void reportProgress(std::uint64_t done, std::uint64_t total) = 0;
};

}  // namespace tarns
