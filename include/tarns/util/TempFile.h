#pragma once

#include <tarns/tarns_api.h>

#include <string>
#include <string_view>

namespace tarns {

// A new file that nobody else had open, deleted again unless it is kept.
//
// The name is made unguessable, the file is created exclusively (never through a link or over an
// existing file) with permissions 0600. Errors are XException and name the file and what the system
// said. Threads: one at a time.
class TARNS_API TempFile {
 public:
  // In `directory`, or in $TMPDIR or /tmp when that is empty; the name begins with `prefix`.
  explicit TempFile(std::string_view directory = {}, std::string_view prefix = "tarns-");
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile();

  const std::string& getPath() const noexcept { return path_; }
  int getDescriptor() const noexcept { return descriptor_; }  // open for reading and writing

  // Writes all of `bytes` at the current position.
  void write(std::string_view bytes);
  // Returns once what was written survives a loss of power.
  void sync();
  // Leaves the file where it is when this object goes.
  void keep() noexcept { kept_ = true; }

 private:
  std::string path_;
  int descriptor_ = -1;
  bool kept_ = false;
};

}  // namespace tarns
