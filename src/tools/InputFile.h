#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace tarns {

class Decompressor;

// A file, or standard input, that is read from its beginning to its end; decompressed when its name
// ends with .zst.
//
// Errors: std::system_error and std::runtime_error, which name the file; Interrupted while it waits
// for input, see signals.h. Threads: one.
class InputFile {
 public:
  explicit InputFile(const std::string& file);  // "-" is standard input
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  // Fills up to `size` bytes, returns how many; 0 at the end.
  std::size_t read(char* into, std::size_t size);

  std::uint64_t getSize() const { return size_; }          // bytes of the file; 0: not known
  std::uint64_t getPosition() const { return position_; }  // bytes of it that have been read

 private:
  std::size_t readBytes(char* into, std::size_t size);

  std::string path_;
  int file_;
  std::uint64_t size_ = 0, position_ = 0;
  std::unique_ptr<Decompressor> decompressor_;  // null for a plain file
};

}  // namespace tarns
