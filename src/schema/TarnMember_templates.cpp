// TarnMember: putting values into texts.
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Buffer.h>
#include <tarns/util/Stringer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

namespace tarns {

namespace {

void ReplaceToken(XString& text, const char* name, std::string_view value) {
  std::string token = "#";
  token += ViewOf(name);
  token += '#';
  Stringer::Replace(text, token, value);
}

// Puts a comma in front of every third digit, counted from the point.
void GroupDigits(std::string& number) {
  const std::size_t begin = number.starts_with('-') ? 1 : 0;
  for (std::size_t at = std::min(number.find('.'), number.size()); at > begin + 3;) {
    at -= 3;
    number.insert(at, 1, ',');
  }
}

std::string TextOf(double value, unsigned short decimals, bool isGrouped) {
  constexpr std::size_t kMostBeforePoint = std::numeric_limits<double>::max_exponent10 + 4;
  std::string text(kMostBeforePoint + decimals, '\0');
  const auto written = std::to_chars(text.data(), text.data() + text.size(), value,
                                     std::chars_format::fixed, decimals);
  text.resize(static_cast<std::size_t>(written.ptr - text.data()));
  if (isGrouped && std::isfinite(value)) GroupDigits(text);
  return text;
}

}  // namespace

void TarnMember::Replace(XString& text, const char* name, bool value, const char* trueText,
                         const char* falseText) {
  ReplaceToken(text, name, ViewOf(value ? trueText : falseText));
}

void TarnMember::Replace(XString& text, const char* name, unsigned char value) {
  ReplaceUint(text, name, value, false);
}

void TarnMember::ReplaceUint(XString& text, const char* name, std::uint64_t value, bool isGrouped) {
  Buffer digits;
  digits.setFancy(isGrouped);
  digits << value;
  ReplaceToken(text, name, digits.view());
}

void TarnMember::Replace(XString& text, const char* name, double value, unsigned short decimals,
                         bool isGrouped) {
  ReplaceToken(text, name, TextOf(value, decimals, isGrouped));
}

void TarnMember::Replace(XString& text, const char* name, const TarnString& value) {
  ReplaceToken(text, name, value.str());
}

void TarnMember::ReplaceArray(XString& text, const char* name, const double* values,
                              unsigned long count, unsigned short decimals, bool isGrouped) {
  for (unsigned long i = 0; i < count; ++i) {
    Replace(text, GetElementName(name, i), values[i], decimals, isGrouped);
  }
}

}  // namespace tarns
