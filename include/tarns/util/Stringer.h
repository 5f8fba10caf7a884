#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarns {

// Operations on texts. Nothing here depends on the locale. Wherever a const char* is taken, null
// counts as the empty text unless said otherwise.
//
// Grammar of numbers ("blank" is a space, \t, \n, \v, \f or \r):
//   digits   = digit { digit }
//   grouped  = digit [ digit [ digit ] ] "," 3digit { "," 3digit }     not followed by a digit
//   integer  = [ "-" ] ( digits | grouped )
//   real     = [ "-" ] ( ( digits | grouped ) [ "." [ digits ] ] | "." digits )
// A comma is only ever a separator of thousands: 1,234 is an integer, 12,34 is none.
class TARNS_API Stringer {
 public:
  // Whether the whole text is an integer (a real number) by the grammar above, whatever its size:
  // no blanks, no "+", no exponent, no words such as "nan".
  static bool IsInteger(const char* text);
  static bool IsFloat(const char* text);

  // The integer at the start of the text: leading blanks are skipped, then the longest integer of
  // the grammar is read (a "+" may stand for the "-"); 0 when there is none. What is too large
  // becomes the nearest number of the type.
  // A negative text as an unsigned number is ToSint64's result modulo 2^64, so that "-1" narrows to
  // all ones in every width.
  // With a `sanityCheck` above 0 the rest of the text must be blank and the number must fit in the
  // type (for ToUint64: not be negative), else the result is 0.
  static std::int64_t ToSint64(const char* text, int sanityCheck = 0);
  static std::uint64_t ToUint64(const char* text, int sanityCheck = 0);

  // What C's atol and atof read in the "C" locale, whatever the process's locale is: leading
  // blanks, a sign, then the longest valid number; 0 when there is none. Atol takes plain digits
  // and becomes the nearest 64-bit number when they are too many. Atof also takes exponents,
  // hexadecimal reals, "inf" and "nan", and becomes an infinity (or 0) when the number is too large
  // (or too small) for a double.
  static std::int64_t Atol(const char* text);
  static double Atof(const char* text);

  // How often `character` occurs; `piece` occurs, not counting overlaps. An empty piece: 0 times.
  static std::size_t CountChars(const char* text, char character);
  static std::size_t Count(const char* text, const char* piece);

  // Replaces every occurrence of `piece`, from the start and without looking at what was put in;
  // returns how many there were.
  static std::size_t Replace(Buffer& text, std::string_view piece, std::string_view replacement);
  static std::size_t Replace(XString& text, std::string_view piece, std::string_view replacement);

  // -1, 0 or 1 by bytes as unsigned numbers, if so asked without regard to the case of ASCII
  // letters (which then compare as upper case).
  static int Compare(std::string_view left, std::string_view right, bool caseSensitive = true);
  static int CompareIgnoringCase(const char* left, const char* right);

  // The upper case of an ASCII letter; any other byte as it is.
  static char ToUpper(char character) noexcept {
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A')
                                                : character;
  }
  static bool IsBlank(char character) noexcept {
    return character == ' ' || (character >= '\t' && character <= '\r');
  }

  // Reads the value of an attribute as HTML writes it: in double or single quotation marks, or bare
  // up to the next blank, quotation mark, "`", "<" or ">". Sets `token` to it, without the marks,
  // and returns what lies behind it. A mark that is never closed takes everything.
  static const char* ParseAttributeValueToken(const char* text, XString& token);

  // Writes & < > " ' as entities, so that the text stands for itself in HTML text and attributes.
  static void MakeHTMLsafe(XString& text);
};

}  // namespace tarns
