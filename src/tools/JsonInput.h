#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

namespace tarns {

// The bytes of a file or of standard input, read as they are asked for, with a count of the lines.
//
// Errors: std::system_error, which names the file; Interrupted while it waits for input, see
// signals.h. Threads: one.
class JsonInput {
 public:
  explicit JsonInput(const std::string& path);  // "-" is standard input
  ~JsonInput();
  JsonInput(const JsonInput&) = delete;
  JsonInput& operator=(const JsonInput&) = delete;

  std::uint64_t getSize() const { return size_; }  // bytes; 0 when it is not known
  std::uint64_t getPosition() const { return before_ + at_; }
  std::size_t getLine() const { return line_; }  // from 1, of the byte read last

  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = char;

    Iterator() = default;
    explicit Iterator(JsonInput& input) : input_(&input) {}
    char operator*() const { return input_->buffer_[input_->at_]; }
    Iterator& operator++() {
      input_->advance();
      return *this;
    }
    Iterator operator++(int) { return ++*this; }
    bool operator==(const Iterator&) const { return input_->isAtEnd(); }  // with end()
    bool operator!=(const Iterator&) const { return !input_->isAtEnd(); }

   private:
    JsonInput* input_ = nullptr;
  };

  Iterator begin() { return Iterator(*this); }
  Iterator end() { return Iterator(*this); }

 private:
  static constexpr std::size_t kBufferSize = 64 * 1024;  // bytes

  bool isAtEnd() const { return at_ == buffer_.size(); }
  void advance() {
    if (buffer_[at_] == '\n') ++line_;
    if (++at_ == buffer_.size()) fill();
  }
  void fill();

  std::string path_;
  int file_;
  std::uint64_t size_ = 0;
  std::uint64_t before_ = 0;  // bytes before the buffer
  std::vector<char> buffer_;  // empty at the end of the input
  std::size_t at_ = 0;
  std::size_t line_ = 1;
};

}  // namespace tarns
