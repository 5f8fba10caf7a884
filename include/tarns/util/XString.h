#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/Buffer.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <string_view>

namespace tarns {

// std::string, std::string_view and their like, but not what also is a C string.
template <typename T>
concept StringViewLike =
    std::convertible_to<const T&, std::string_view> && !std::convertible_to<const T&, const char*>;

// The text of a C string that may be null, which counts as the empty text.
inline std::string_view ViewOf(const char* text) noexcept {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

// An owned C string.
//
// A string of capacity 0 has no text at all: it converts to a null pointer, has length 0 and equals
// the empty text. Whatever is assigned or appended is cut at its first NUL, so the length is always
// that of the C string. Text is bytes; upper and lower case concern ASCII letters only.
// It converts to const char* by itself and to std::string_view through view(): a function offered
// in both forms can then be called with an XString without a cast.
// Errors: std::bad_alloc, which leaves the string as it was.
// Threads: not shared.
class TARNS_API XString {
 public:
  XString() noexcept = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a text becomes a string wherever one is wanted
  XString(const char* text);
  template <StringViewLike T>
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  XString(const T& text) {
    assign(text);
  }
  XString(const XString& other) = default;
  XString(XString&& other) noexcept = default;
  XString& operator=(const XString& other) = default;
  XString& operator=(XString&& other) noexcept = default;
  // Null gives the string without text; "" keeps a text of length 0.
  XString& operator=(const char* text);
  template <StringViewLike T>
  XString& operator=(const T& text) {
    assign(text);
    return *this;
  }
  ~XString() = default;

  // NOLINTNEXTLINE(google-explicit-constructor): strings are passed on as C strings everywhere
  operator const char*() const noexcept { return text_.getText(); }
  const char* getText() const noexcept { return text_.getText(); }
  std::string_view view() const noexcept { return text_.view(); }
  std::size_t getLength() const noexcept { return text_.getLength(); }
  bool isEmpty() const noexcept { return text_.isEmpty(); }

  // Room including the final NUL; see Buffer.
  std::size_t getCapacity() const noexcept { return text_.getCapacity(); }
  void setCapacity(std::size_t capacity) { text_.setCapacity(capacity); }

  // Appends what a Buffer can append.
  template <BufferAppendable T>
  XString& operator<<(const T& piece) {
    const std::size_t before = getLength();
    text_ << piece;
    cutAtNul(before);
    return *this;
  }
  template <BufferAppendable T>
  XString& operator+=(const T& piece) {
    return *this << piece;
  }

  // -1, 0 or 1 by bytes as unsigned numbers, without regard to ASCII case if so asked.
  int compare(const char* text, bool caseSensitive = true) const;
  int compare(std::string_view text, bool caseSensitive = true) const;

  // Removes blanks (space, \t, \n, \v, \f, \r) at both ends.
  void trim();
  // Removes everything up to and including the `count`-th (from 1) `separator`: "0: a:b" becomes
  // " a:b" for (":", 1). False, and no change, when there are fewer or `separator` is empty.
  bool trimTo(const char* separator, unsigned long count);
  // Removes the `count`-th (from 1) `separator` and everything behind it: "Items_3" becomes "Items"
  // for ("_", 1). False, and no change, as above.
  bool trimPast(const char* separator, unsigned long count);

  void exchange(XString& other) noexcept { text_.exchange(other.text_); }
  // Takes over what `buffer` holds and gives it this text. A NUL in the buffer cuts the text.
  void exchange(Buffer& buffer);

  // By bytes as unsigned numbers; no text equals the empty text.
  friend bool operator==(const XString& left, const XString& right) noexcept {
    return left.view() == right.view();
  }
  template <StringViewLike T>
  friend bool operator==(const XString& left, const T& right) noexcept {
    return left.view() == std::string_view(right);
  }
  friend bool operator==(const XString& left, const char* right) noexcept {
    return left.view() == ViewOf(right);
  }
  friend std::strong_ordering operator<=>(const XString& left, const XString& right) noexcept {
    return left.view() <=> right.view();
  }
  template <StringViewLike T>
  friend std::strong_ordering operator<=>(const XString& left, const T& right) noexcept {
    return left.view() <=> std::string_view(right);
  }
  friend std::strong_ordering operator<=>(const XString& left, const char* right) noexcept {
    return left.view() <=> ViewOf(right);
  }

 private:
  void assign(std::string_view text);
  // Ends the text at the first NUL at or behind `from`.
  void cutAtNul(std::size_t from) noexcept;

  Buffer text_;  // without NUL bytes of its own
};

}  // namespace tarns
