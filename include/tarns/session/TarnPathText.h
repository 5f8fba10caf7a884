#pragma once

#include <tarns/util/XString.h>

#include <string>
#include <string_view>

namespace tarns {

// A path as a caller has it: a C string (null counts as the empty path), a std::string or
// std::string_view, a TarnPath. It refers to the caller's text and copies nothing, so it is a
// parameter's type and nothing to keep.
class TarnPathText {
 public:
  // NOLINTBEGIN(google-explicit-constructor): a text is taken for a path wherever one is wanted
  TarnPathText(const char* text) noexcept
      : text_(text != nullptr ? std::string_view(text) : std::string_view()) {}
  TarnPathText(const XString& text) noexcept : text_(text.view()) {}
  template <StringViewLike T>
  TarnPathText(const T& text) noexcept : text_(text) {}
  // NOLINTEND(google-explicit-constructor)

  std::string_view view() const noexcept { return text_; }
  std::string str() const { return std::string(text_); }
  bool isEmpty() const noexcept { return text_.empty(); }

 private:
  std::string_view text_;
};

}  // namespace tarns
