#pragma once

#include <tarns/util/PInOut.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tools/Output.h"

namespace tarns {

// The forms in which branches are written and read.
enum class BranchForm { kJson, kText };

// What `--format` says ("json" or "text"), otherwise what the file's name ends with: .txt and
// .tarns are text, everything else is JSON. An ending .zst does not count.
BranchForm FormFor(const std::string& format, const std::string& file);
// Whether the file is compressed.
bool IsCompressed(std::string_view file);

// A file that is written as text, compressed with zstd when its name ends with .zst. Errors: those
// of Output, which says how the file appears. Threads: one.
class TextOutput {
 public:
  explicit TextOutput(const std::string& file);  // "-" is standard output
  ~TextOutput();

  // Where a PInOut writes to; not beyond the life of this object.
  PInOut::Sink sink();
  void finish();

 private:
  class Compressor;

  Output out_;
  std::unique_ptr<Compressor> compressor_;  // null for a plain file
};

// A file that is read as text, decompressed when its name ends with .zst. Errors: std::system_error
// and std::runtime_error, which name the file; Interrupted while it waits. Threads: one.
class TextInput {
 public:
  explicit TextInput(const std::string& file);  // "-" is standard input
  ~TextInput();

  // Where a PInOut reads from; not beyond the life of this object.
  PInOut::Source source();
  std::uint64_t getSize() const { return size_; }          // bytes of the file; 0: not known
  std::uint64_t getPosition() const { return position_; }  // bytes of it that have been read

 private:
  class Decompressor;
  std::size_t read(char* into, std::size_t size);

  std::string path_;
  int file_;
  std::uint64_t size_ = 0, position_ = 0;
  std::unique_ptr<Decompressor> decompressor_;  // null for a plain file
};

}  // namespace tarns
