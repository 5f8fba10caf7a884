#pragma once

#include <tarns/tarns_api.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tarns {

// Growable bytes, followed by a NUL so that text can be handed out as a C string.
//
// Units: bytes. `capacity` counts the room including the final NUL; a buffer of capacity 0 owns no
// memory and its text is null. `length` counts the content without that NUL. Content may hold NUL
// bytes of its own; who reads it as a C string sees it up to the first one.
// Memory: a heap array from new[]. A default buffer allocates nothing; setting or appending a text
// allocates at most once. Everything that takes a text accepts a piece of the buffer itself.
// Errors: std::bad_alloc, which leaves the buffer as it was.
// Threads: not shared.
class TARNS_API Buffer {
 public:
  Buffer() noexcept = default;
  explicit Buffer(std::string_view content) { set(content); }
  Buffer(const Buffer& other);
  Buffer(Buffer&& other) noexcept;
  Buffer& operator=(const Buffer& other);
  Buffer& operator=(Buffer&& other) noexcept;
  ~Buffer() = default;

  // Null when the capacity is 0. Valid until the next change.
  const char* getText() const noexcept { return bytes_.get(); }
  std::string_view view() const noexcept { return {bytes_.get(), length_}; }
  std::size_t getLength() const noexcept { return length_; }
  bool isEmpty() const noexcept { return length_ == 0; }

  // Room including the final NUL.
  std::size_t getCapacity() const noexcept { return capacity_; }

  // Sets the room to exactly `capacity` bytes, cutting content that does not fit; 0 frees it.
  void setCapacity(std::size_t capacity);

  // Replaces the content. Keeps the memory when it fits without great waste.
  void set(std::string_view content);
  void append(std::string_view piece);

  // Cuts the content to at most `length` bytes; the room stays.
  void truncate(std::size_t length) noexcept;

  // Takes over a text made with new char[size] whose NUL lies within; it is deleted with the
  // buffer. A null text empties the buffer.
  void take(char* text, std::size_t size) { take(std::unique_ptr<char[]>(text), size); }
  void take(std::unique_ptr<char[]> text, std::size_t size);

  // Exchanges content and memory; each keeps its own way of writing integers.
  void exchange(Buffer& other) noexcept;

  // Whether integers are appended in groups of three digits, as in -1,234,567. Not copied along.
  void setFancy(bool fancy) noexcept { fancy_ = fancy; }
  bool isFancy() const noexcept { return fancy_; }

  // Sets `out` to the content in base 64 (RFC 4648, padded, without line breaks).
  void copyToBase64(Buffer& out) const;

  // Append. A null text adds nothing; integers are decimal; bool is "True" or "False"; reals have
  // the fewest digits that read back exactly. No locale changes any of this.
  Buffer& operator<<(const char* text);
  Buffer& operator<<(std::string_view text) {
    append(text);
    return *this;
  }
  Buffer& operator<<(char character) { return *this << std::string_view(&character, 1); }
  template <std::integral T>
  requires(sizeof(T) <= 8) Buffer& operator<<(T number) {
    if constexpr (std::same_as<T, bool>) {
      return *this << (number ? "True" : "False");
    } else if constexpr (std::signed_integral<T>) {
      return appendSigned(number);
    } else {
      return appendUnsigned(number);
    }
  }
  Buffer& operator<<(float number);
  Buffer& operator<<(double number);

 private:
  Buffer& appendSigned(std::int64_t number);
  Buffer& appendUnsigned(std::uint64_t number);
  // Makes `capacity` bytes of room with the first `kept` bytes of the content and a NUL.
  void reallocate(std::size_t capacity, std::size_t kept);

  std::unique_ptr<char[]> bytes_;
  std::size_t capacity_ = 0;
  std::size_t length_ = 0;
  bool fancy_ = false;
};

// What can be appended to a Buffer, and so to an XString, an XException and a Log.
template <typename T>
concept BufferAppendable = requires(Buffer& buffer, const T& value) {
  buffer << value;
};

}  // namespace tarns
