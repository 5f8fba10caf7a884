#include "tools/value_text.h"

#include <tarns/util/Stringer.h>

#include <array>
#include <charconv>
#include <cmath>
#include <system_error>

namespace tarns {

namespace {

template <class T>
std::optional<T> Parsed(std::string_view text) {
  T value{};
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return value;
}

template <class T>
std::optional<TarnData> Number(std::string_view text) {
  const std::optional<T> value = Parsed<T>(text);
  return value ? std::optional<TarnData>(*value) : std::nullopt;
}

std::optional<TarnData> Boolean(std::string_view text) {
  for (const char* word : {"true", "yes", "t", "y", "1"}) {
    if (Stringer::Compare(text, word, false) == 0) return TarnData(true);
  }
  for (const char* word : {"false", "no", "f", "n", "0"}) {
    if (Stringer::Compare(text, word, false) == 0) return TarnData(false);
  }
  return std::nullopt;
}

std::size_t CountDigits(std::string_view text) {
  const std::size_t end = text.find_first_not_of("0123456789");
  return end == std::string_view::npos ? text.size() : end;
}

// Removes a part that begins with one of `marks` and goes on with digits; false when there are
// none.
bool TakePart(std::string_view& text, std::string_view marks, bool allowsSign) {
  if (text.empty() || marks.find(text.front()) == std::string_view::npos) return true;
  text.remove_prefix(1);
  if (allowsSign && !text.empty() && (text.front() == '+' || text.front() == '-')) {
    text.remove_prefix(1);
  }
  const std::size_t digits = CountDigits(text);
  text.remove_prefix(digits);
  return digits != 0;
}

// JSON's grammar: no "+", no leading zeros, digits around the point.
bool IsJsonNumber(std::string_view text) {
  if (!text.empty() && text.front() == '-') text.remove_prefix(1);
  const std::size_t digits = CountDigits(text);
  if (digits == 0 || (digits > 1 && text.front() == '0')) return false;
  text.remove_prefix(digits);
  return TakePart(text, ".", false) && TakePart(text, "eE", true) && text.empty();
}

template <class T>
std::string Shortest(T value) {
  std::array<char, 64> text;
  return {text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr};
}

template <class T>
std::string Real(T value) {
  std::string text = Shortest(value);
  if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

template <class T>
std::string RealOrWord(T value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  return Shortest(value);
}

}  // namespace

std::string RealText(double value) { return Real(value); }
std::string RealText(float value) { return Real(value); }

std::string ValueText(const TarnData& value) {
  switch (value.getType()) {
    case TarnData::None:
      return "";
    case TarnData::Boolean:
      return value.getBoolean() ? "true" : "false";
    case TarnData::Double:
      return RealOrWord(value.getDouble());
    case TarnData::Float:
      return RealOrWord(value.getFloat());
    case TarnData::String:
      return std::string(value.getText());
    default:
      return value.isSignedInteger() ? Shortest(value.getSint64()) : Shortest(value.getUint64());
  }
}

std::optional<TarnData> ValueOfType(std::string_view text, TarnData::Type type) {
  switch (type) {
    case TarnData::None:
      return std::nullopt;
    case TarnData::Boolean:
      return Boolean(text);
    case TarnData::Double:
      return Number<double>(text);
    case TarnData::Float:
      return Number<float>(text);
    case TarnData::Sint8:
      return Number<std::int8_t>(text);
    case TarnData::Sint16:
      return Number<std::int16_t>(text);
    case TarnData::Sint32:
      return Number<std::int32_t>(text);
    case TarnData::Sint64:
      return Number<std::int64_t>(text);
    case TarnData::String:
      return TarnData(text);
    case TarnData::Uint8:
      return Number<std::uint8_t>(text);
    case TarnData::Uint16:
      return Number<std::uint16_t>(text);
    case TarnData::Uint32:
      return Number<std::uint32_t>(text);
    case TarnData::Uint64:
      return Number<std::uint64_t>(text);
  }
  return std::nullopt;
}

TarnData GuessValue(std::string_view text) {
  if (text == "true" || text == "false") return {text == "true"};
  if (IsJsonNumber(text)) {
    for (const TarnData::Type type : {TarnData::Sint64, TarnData::Uint64, TarnData::Double}) {
      const bool isInteger = text.find_first_of(".eE") == std::string_view::npos;
      if (type == TarnData::Double && isInteger) break;  // too large for an integer: stays a text
      if (auto value = ValueOfType(text, type)) return *value;
    }
  }
  return {text};
}

std::optional<TarnData::Type> TypeByName(std::string_view name) {
  for (int type = TarnData::Boolean; type <= TarnData::Uint64; ++type) {
    const auto candidate = static_cast<TarnData::Type>(type);
    if (Stringer::Compare(name, TarnData::GetTypeAsString(candidate), false) == 0) return candidate;
  }
  return std::nullopt;
}

}  // namespace tarns
