#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/compression.h"
#include "tools/signals.h"

namespace tarns {

// Thrown when whoever read our output has closed it, as `head` does: the command then ends quietly.
struct OutputClosed {};

// Where results go: standard output, or a file that appears under its name, or takes the place of
// what it had in it, only when it is complete. A file that exists keeps its mode, a new one is for
// its owner only; what is no regular file (a pipe, a device) is written to as it is. Symbolic links
// are followed.
//
// A file whose name ends with .zst is compressed.
// Buffered. Errors: std::system_error when writing fails, naming the file; OutputClosed. Signals
// are watched for while there is an incomplete file. Threads: one.
class Output {
 public:
  Output() = default;                        // standard output
  explicit Output(const std::string& path);  // "-" is standard output, too
  ~Output();                                 // removes a file that was not finished
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  Output& operator<<(std::string_view text) {
    buffer_ += text;
    if (buffer_.size() >= kBufferSize) flush();
    return *this;
  }
  Output& operator<<(char character) { return *this << std::string_view(&character, 1); }

  void flush();
  // Writes what is left; puts a file on the disk and under its name.
  void finish();

  // Whether people look at it.
  bool isTerminal() const;
  // Columns of the terminal; 80 when it is none.
  std::size_t getColumns() const;

 private:
  static constexpr std::size_t kBufferSize = 64 * 1024;  // bytes

  void openPart(const std::string& target);
  void pass(bool isEnd);
  void writeAll(std::string_view bytes);
  [[noreturn]] void throwCannotWrite() const;

  std::string buffer_;
  std::unique_ptr<Compressor> compressor_;  // null for a plain file
  std::string path_;                        // as it was given; empty for standard output
  std::string targetPath_;  // where the file comes to be; empty when it is written to as it is
  std::string partPath_;    // the file until it is complete; empty when there is none
  std::optional<SignalWatch> watch_;  // to remove that
  int file_ = 1;
};

// Whether standard error is looked at by people.
bool TalksToTerminal();

}  // namespace tarns
