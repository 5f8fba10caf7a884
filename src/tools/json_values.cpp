#include "tools/json_values.h"

#include <tarns/core/TarnException.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>

#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

constexpr std::string_view kNanPrefix = "nan:";

std::string Typed(TarnData::Type type, const std::string& json) {
  return std::string("{\"~") + TarnData::GetTypeAsString(type) + "\": " + json + "}";
}

template <class Real>
using BitsOf = std::conditional_t<sizeof(Real) == 8, std::uint64_t, std::uint32_t>;

template <class Real>
BitsOf<Real> BitsOfReal(const TarnData& value) {
  if constexpr (sizeof(Real) == 8) {
    return std::bit_cast<std::uint64_t>(value.getDouble());
  } else {
    return std::bit_cast<std::uint32_t>(value.getFloat());
  }
}

template <class Real>
std::string WordOfReal(Real value) {
  if (std::isinf(value)) return value < 0 ? "\"-inf\"" : "\"inf\"";
  const auto bits = std::bit_cast<BitsOf<Real>>(value);
  if (bits == std::bit_cast<BitsOf<Real>>(std::numeric_limits<Real>::quiet_NaN())) return "\"nan\"";
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, bits, 16).ptr;
  const std::string text(digits, end);
  return "\"" + std::string(kNanPrefix) + std::string(2 * sizeof bits - text.size(), '0') + text +
         "\"";
}

template <class Real>
std::optional<TarnData> RealOfWord(std::string_view word) {
  constexpr Real kInfinity = std::numeric_limits<Real>::infinity();
  if (word == "inf") return TarnData(kInfinity);
  if (word == "-inf") return TarnData(-kInfinity);
  if (word == "nan") return TarnData(std::numeric_limits<Real>::quiet_NaN());
  if (!word.starts_with(kNanPrefix)) return std::nullopt;
  word.remove_prefix(kNanPrefix.size());
  BitsOf<Real> bits = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), bits, 16);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  const Real value = std::bit_cast<Real>(bits);
  if (!std::isnan(value)) return std::nullopt;
  const TarnData kept(value);
  // A signalling NaN of 32 bits becomes a quiet one on its way through a Double.
  if (BitsOfReal<Real>(kept) != bits) return std::nullopt;
  return kept;
}

template <class To, class From>
std::optional<TarnData> IntegerAs(From value) {
  if constexpr (std::is_floating_point_v<To>) {
    const To real = static_cast<To>(value);
    // Beyond the largest From the conversion back would not be defined.
    constexpr To kLimit = static_cast<To>(std::numeric_limits<From>::max());
    if (real >= kLimit || static_cast<From>(real) != value) return std::nullopt;
    return TarnData(real);
  } else {
    return std::in_range<To>(value) ? std::optional<TarnData>(static_cast<To>(value))
                                    : std::nullopt;
  }
}

template <class From>
std::optional<TarnData> Integer(From value, TarnData::Type type) {
  switch (type) {
    case TarnData::Double:
      return IntegerAs<double>(value);
    case TarnData::Float:
      return IntegerAs<float>(value);
    case TarnData::Sint8:
      return IntegerAs<std::int8_t>(value);
    case TarnData::Sint16:
      return IntegerAs<std::int16_t>(value);
    case TarnData::Sint32:
      return IntegerAs<std::int32_t>(value);
    case TarnData::Sint64:
      return IntegerAs<std::int64_t>(value);
    case TarnData::Uint8:
      return IntegerAs<std::uint8_t>(value);
    case TarnData::Uint16:
      return IntegerAs<std::uint16_t>(value);
    case TarnData::Uint32:
      return IntegerAs<std::uint32_t>(value);
    case TarnData::Uint64:
      return IntegerAs<std::uint64_t>(value);
    default:
      return std::nullopt;
  }
}

bool IsSameNumber(const TarnData& given, const TarnData& stored) {
  if (given.isRealNumber() && stored.isRealNumber()) {
    const double left = given.getDouble(), right = stored.getDouble();
    return left == right && std::signbit(left) == std::signbit(right);
  }
  if (given.isRealNumber() || stored.isRealNumber()) {
    const TarnData& integer = given.isRealNumber() ? stored : given;
    const TarnData& real = given.isRealNumber() ? given : stored;
    const auto exact = integer.isSignedInteger() ? IntegerAs<double>(integer.getSint64())
                                                 : IntegerAs<double>(integer.getUint64());
    return exact && exact->getDouble() == real.getDouble();
  }
  if (given.isSignedInteger() == stored.isSignedInteger()) {
    return given.getUint64() == stored.getUint64();
  }
  const TarnData& isSigned = given.isSignedInteger() ? given : stored;
  return isSigned.getSint64() >= 0 && given.getUint64() == stored.getUint64();
}

}  // namespace

std::string JsonOfValue(const TarnData& value) {
  switch (value.getType()) {
    case TarnData::Boolean:
    case TarnData::Sint64:
      return ValueText(value);
    case TarnData::Double: {
      const double real = value.getDouble();
      return std::isfinite(real) ? RealText(real) : Typed(TarnData::Double, WordOfReal(real));
    }
    case TarnData::Float: {
      const float real = value.getFloat();
      return Typed(TarnData::Float, std::isfinite(real) ? RealText(real) : WordOfReal(real));
    }
    case TarnData::String: {
      const std::string_view text = value.getText();
      return IsUtf8(text) ? Quoted(text) : Typed(TarnData::String, Quoted(BytesToText(text)));
    }
    case TarnData::Uint64: {
      const bool isBeyondSint64 = !std::in_range<std::int64_t>(value.getUint64());
      return isBeyondSint64 ? ValueText(value) : Typed(TarnData::Uint64, ValueText(value));
    }
    case TarnData::None:
      throw TarnException("The empty value cannot be written as JSON.", ErrorID::Unspecified);
    default:
      return Typed(value.getType(), ValueText(value));
  }
}

std::optional<TarnData::Type> TypeOfKey(std::string_view key) {
  if (!key.starts_with('~')) return std::nullopt;
  const TarnData::Type type = TarnData::GetTypeEnum(std::string(key.substr(1)).c_str());
  return type == TarnData::None ? std::nullopt : std::optional(type);
}

std::optional<TarnData> TypedInteger(std::int64_t value, TarnData::Type type) {
  return Integer(value, type);
}

std::optional<TarnData> TypedInteger(std::uint64_t value, TarnData::Type type) {
  return Integer(value, type);
}

std::optional<TarnData> TypedReal(std::string_view digits, TarnData::Type type) {
  if (type != TarnData::Double && type != TarnData::Float) return std::nullopt;
  return ValueOfType(digits, type);
}

std::optional<TarnData> TypedText(std::string_view text, TarnData::Type type) {
  if (type == TarnData::Double) return RealOfWord<double>(text);
  if (type == TarnData::Float) return RealOfWord<float>(text);
  if (type != TarnData::String) return std::nullopt;
  const auto bytes = TextToBytes(text);
  return bytes ? std::optional<TarnData>(*bytes) : std::nullopt;
}

std::optional<TarnData> TypedBoolean(bool value, TarnData::Type type) {
  return type == TarnData::Boolean ? std::optional<TarnData>(value) : std::nullopt;
}

bool IsSameValue(const TarnData& given, const TarnData& stored) {
  const auto isNumber = [](const TarnData& value) {
    return value.isInteger() || value.isRealNumber();
  };
  if (given.getType() != stored.getType()) {
    const bool isEmptyText = given.isString() && given.getText().empty();
    if (isEmptyText && stored.getType() == TarnData::None) return true;
    return isNumber(given) && isNumber(stored) && IsSameNumber(given, stored);
  }
  switch (given.getType()) {
    case TarnData::Double:
      return BitsOfReal<double>(given) == BitsOfReal<double>(stored);
    case TarnData::Float:
      return BitsOfReal<float>(given) == BitsOfReal<float>(stored);
    case TarnData::String:
      return given.getText() == stored.getText();
    default:
      return given.getUint64() == stored.getUint64();
  }
}

}  // namespace tarns
