#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarns {

// Thrown when whoever read our output has closed it, as `head` does: the command then ends quietly.
struct OutputClosed {};

// Where results go: standard output, or a file that appears under its name only when it is
// complete.
//
// Buffered. Errors: std::system_error when writing fails, OutputClosed. Threads: one.
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

  std::string buffer_;
  std::string path_;      // empty for standard output
  std::string partPath_;  // the file until it is complete; empty when there is none
  int file_ = 1;
};

// Whether standard error is looked at by people.
bool TalksToTerminal();

}  // namespace tarns
