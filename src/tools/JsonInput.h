#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <vector>

#include "tools/InputFile.h"

namespace tarns {

// The bytes of an InputFile, read as they are asked for, with a count of the lines.
//
// Errors: those of InputFile. Threads: one.
class JsonInput {
 public:
  explicit JsonInput(const std::string& file) : file_(file) { fill(); }  // "-": standard input

  const InputFile& getFile() const { return file_; }
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
  void fill() {
    at_ = 0;
    buffer_.resize(kBufferSize);
    buffer_.resize(file_.read(buffer_.data(), buffer_.size()));
  }

  InputFile file_;
  std::vector<char> buffer_;  // empty at the end of the input
  std::size_t at_ = 0;
  std::size_t line_ = 1;
};

}  // namespace tarns
