#pragma once

#include <goods/String.h>
#include <goods/reader.h>
#include <goods/ref.h>
#include <tarns/tarns_api.h>

#include <string>
#include <string_view>
#include <utility>

namespace tarns {

class Buffer;
class TarnData;

// A member that is a text of any length: a reference to a persistent String of its own.
//
// Null until a text is set, which is something else than the empty text. Setting a text in a node
// needs write access to the node.
// A text that shrinks or grows is changed in place; what it was may stay in freed memory.
// Text is bytes; as a C string it ends at its first NUL.
// Copying a TarnString copies the reference: both then are the same text. copyFrom() copies the
// text. Threads: as for references.
class TARNS_API TarnString {
 public:
  TarnString() = default;
  // A text of its own; null gives the null string.
  // NOLINTNEXTLINE(google-explicit-constructor): texts become persistent texts
  TarnString(const char* text);
  explicit TarnString(std::string_view text);
  // The very text that `reference` refers to.
  explicit TarnString(goods::ref<goods::String> reference) : text_(std::move(reference)) {}

  // Null clears. Otherwise the text replaces the one that there is, in place: whoever refers to the
  // same String sees it. A String that is too small grows to twice its capacity or to what is
  // needed, whichever is more.
  void set(const char* text);
  void set(std::string_view text);
  // Adds to the end; a null string becomes the text. Null adds nothing.
  void append(const char* text);
  // Makes this the null string.
  void clear() { text_ = nullptr; }
  bool isNull() const { return text_.is_null(); }

  // A null string equals a null or empty text and is less than any other; any other string, even an
  // empty one, is greater than a null or empty text. Otherwise -1, 0 or 1 by bytes as unsigned
  // numbers, or, not case-sensitive, the difference of the first upper-cased bytes that differ, as
  // a signed byte: its sign tells the order of ASCII texts only.
  signed char compare(const char* text, bool caseSensitive) const;
  signed char compare(const TarnString& other, bool caseSensitive) const;

  void copyTo(Buffer& text) const;     // capacity 0 for the null string
  void copyTo(TarnData& value) const;  // the empty text for the null string
  void copyFrom(const TarnString& other);
  std::string str() const;  // "" for the null string

  // The text, within a function that reads several objects; "" for the null string.
  std::string_view look(goods::reader& reader) const;

  const goods::ref<goods::String>& getReference() const { return text_; }

  // Throw TarnException 0 unless Stringer takes the text for a real number (an integer).
  static void VerifyFloat(const char* text);
  static void VerifyInteger(const char* text);

 private:
  goods::ref<goods::String> text_;
};
static_assert(sizeof(TarnString) == sizeof(goods::ref_word), "persistent members are references");

}  // namespace tarns
