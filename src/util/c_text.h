#pragma once

#include <array>
#include <cstring>
#include <string>
#include <string_view>

namespace tarns {

// A text as a C string, for calls that need one. Allocates only for texts of 128 bytes and more.
class CText {
 public:
  explicit CText(std::string_view text) {
    if (text.size() < short_.size()) {
      if (!text.empty()) std::memcpy(short_.data(), text.data(), text.size());
      short_[text.size()] = '\0';
      text_ = short_.data();
    } else {
      text_ = long_.assign(text).c_str();
    }
  }
  CText(const CText&) = delete;
  CText& operator=(const CText&) = delete;

  const char* get() const { return text_; }

 private:
  std::array<char, 128> short_;
  std::string long_;
  const char* text_;
};

}  // namespace tarns
