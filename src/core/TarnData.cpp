#include <tarns/core/TarnData.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/leCompare.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

namespace tarns {

namespace {

constexpr const char* kTypeNames[] = {"None",   "Boolean", "Double", "Float",  "Sint8",
                                      "Sint16", "Sint32",  "Sint64", "String", "Uint8",
                                      "Uint16", "Uint32",  "Uint64"};

constexpr const char* kFalseWords[] = {"NO", "N", "FALSE", "F", "NULL", "NIL", "0", ""};
constexpr const char* kTrueWords[] = {"YES", "Y", "TRUE", "T", "1"};

// Real numbers closer to 0 than this are false.
constexpr double kTruthThreshold = 1e-7;

// The text of the largest double with six decimals and a sign: 309 + 8 characters.
constexpr std::size_t kRealRoom = 320;

bool IsOneOf(const char* text, const auto& words) {
  return std::ranges::any_of(
      words, [text](const char* word) { return Stringer::CompareIgnoringCase(text, word) == 0; });
}

// Without its fraction; the nearest integer when it is too large, 0 when it is not a number.
template <typename T>
T Truncated(double number) {
  constexpr T kHalf = std::numeric_limits<T>::max() / 2 + 1;
  constexpr double kBeyond = static_cast<double>(kHalf) * 2;  // exact, as a power of two
  if (number >= kBeyond) return std::numeric_limits<T>::max();
  if (number > static_cast<double>(std::numeric_limits<T>::min())) return static_cast<T>(number);
  return number < 0 ? std::numeric_limits<T>::min() : T{0};
}

}  // namespace

TarnData::TarnData(Type type) : type_(type) { set("0", type); }

TarnData& TarnData::operator=(TarnData&& other) noexcept {
  if (this == &other) return *this;
  text_.setCapacity(0);
  type_ = other.type_;
  if (type_ == String) {
    text_.exchange(other.text_);
  } else {
    value_ = other.value_;
  }
  return *this;
}

void TarnData::copy(const TarnData& other) {
  if (this == &other) return;
  if (other.type_ == String) {
    text_ = other.text_;
  } else {
    text_.setCapacity(0);
    value_ = other.value_;
  }
  type_ = other.type_;
}

void TarnData::set(std::string_view text) {
  const std::string_view whole = text.substr(0, text.find('\0'));
  if (whole.empty()) {
    text_.setCapacity(0);
  } else {
    text_.set(whole);
  }
  type_ = String;
}

void TarnData::copyString(const char* text, long length) {
  if (text == nullptr) {
    set(std::string_view());
  } else if (length < 0) {
    set(std::string_view(text));
  } else {
    set(std::string_view(text, strnlen(text, static_cast<std::size_t>(length))));
  }
}

void TarnData::take(std::unique_ptr<char[]> text) {
  const std::size_t size = text != nullptr ? std::strlen(text.get()) + 1 : 0;
  text_.take(std::move(text), size);
  type_ = String;
}

void TarnData::set(const char* text, Type type) {
  switch (type) {
    case None:
      return empty();
    case Boolean:
      convertFromStringToBooleanValue(text);
      return;
    case Double:
      return set(Stringer::Atof(text));
    case Float:
      return set(static_cast<float>(Stringer::Atof(text)));
    case Sint8:
      return set(static_cast<std::int8_t>(Stringer::Atol(text)));
    case Sint16:
      return set(static_cast<std::int16_t>(Stringer::Atol(text)));
    case Sint32:
      return set(static_cast<std::int32_t>(Stringer::Atol(text)));
    case Sint64:
      return set(Stringer::ToSint64(text));
    case String:
      return set(text);
    case Uint8:
      if (!convertFromStringToBooleanValue(text)) {
        set(static_cast<std::uint8_t>(Stringer::Atol(text)));
      }
      return;
    case Uint16:
      return parseUnsigned<std::uint16_t>(text, static_cast<std::uint64_t>(Stringer::Atol(text)));
    case Uint32:
      return parseUnsigned<std::uint32_t>(text, static_cast<std::uint64_t>(Stringer::Atol(text)));
    case Uint64:
      return parseUnsigned<std::uint64_t>(text, Stringer::ToUint64(text));
  }
}

template <typename T>
void TarnData::parseUnsigned(const char* text, std::uint64_t number) {
  if (convertFromStringToBooleanValue(text)) {
    type_ = TypeOf<T>();  // the other bytes stay, see the header
  } else {
    set(static_cast<T>(number));
  }
}

bool TarnData::convertFromStringToBooleanValue(const char* text) {
  if (text == nullptr || IsOneOf(text, kFalseWords)) {
    set(false);
    return true;
  }
  if (IsOneOf(text, kTrueWords)) {
    set(true);
    return true;
  }
  return false;
}

void TarnData::empty() noexcept {
  store(true);
  type_ = None;
}

void TarnData::zeroValue() {
  if (type_ == String) {
    set("", String);
  } else {
    set(type_ == Boolean ? "FALSE" : "0.0", type_);
  }
}

bool TarnData::getBoolean() const noexcept {
  if (type_ == String) return !text_.isEmpty();
  if (isSignedInteger()) return signedInteger() != 0;
  if (isUnsignedInteger()) return unsignedInteger() != 0;
  if (!isRealNumber()) return booleanByte();
  const double number = realNumber();
  return number <= -kTruthThreshold || number >= kTruthThreshold;
}

double TarnData::getDouble() const noexcept {
  if (isRealNumber()) return realNumber();
  if (isSignedInteger()) return static_cast<double>(signedInteger());
  if (isUnsignedInteger()) return static_cast<double>(unsignedInteger());
  if (type_ == String) return Stringer::Atof(text_.getText());
  return booleanByte() ? 1.0 : 0.0;
}

float TarnData::getFloat() const noexcept {
  // Straight from the integer: by way of a double it would be rounded twice.
  if (isSignedInteger()) return static_cast<float>(signedInteger());
  if (isUnsignedInteger()) return static_cast<float>(unsignedInteger());
  return static_cast<float>(getDouble());
}

std::int64_t TarnData::getSint64() const noexcept {
  if (isSignedInteger()) return signedInteger();
  if (isUnsignedInteger()) return static_cast<std::int64_t>(unsignedInteger());
  if (isRealNumber()) return Truncated<std::int64_t>(realNumber());
  if (type_ == String) return Stringer::ToSint64(text_.getText());
  return booleanByte() ? 1 : 0;
}

std::uint64_t TarnData::getUint64() const noexcept {
  if (isUnsignedInteger()) return unsignedInteger();
  if (type_ == String) return Stringer::ToUint64(text_.getText());
  if (isRealNumber() && realNumber() > 0) return Truncated<std::uint64_t>(realNumber());
  return static_cast<std::uint64_t>(getSint64());
}

std::int64_t TarnData::signedInteger() const noexcept {
  switch (type_) {
    case Sint8:
      return load<std::int8_t>();
    case Sint16:
      return load<std::int16_t>();
    case Sint32:
      return load<std::int32_t>();
    default:
      return load<std::int64_t>();
  }
}

std::uint64_t TarnData::unsignedInteger() const noexcept {
  switch (type_) {
    case Uint8:
      return load<std::uint8_t>();
    case Uint16:
      return load<std::uint16_t>();
    case Uint32:
      return load<std::uint32_t>();
    default:
      return load<std::uint64_t>();
  }
}

void TarnData::storeInteger(std::uint64_t bits) noexcept {
  switch (type_) {
    case Sint8:
    case Uint8:
      return store(static_cast<std::uint8_t>(bits));
    case Sint16:
    case Uint16:
      return store(static_cast<std::uint16_t>(bits));
    case Sint32:
    case Uint32:
      return store(static_cast<std::uint32_t>(bits));
    default:
      return store(bits);
  }
}

const char* TarnData::getString() const {
  // An emptied value has no text, whatever it held before.
  if (type_ == None) text_.setCapacity(0);
  if (text_.isEmpty()) makeText();
  const char* text = text_.getText();
  return text != nullptr ? text : "";
}

std::string_view TarnData::getText() const {
  getString();
  return text_.view();
}

void TarnData::makeText() const {
  if (type_ == Boolean) {
    text_.set(booleanByte() ? "True" : "False");
  } else if (isRealNumber()) {
    char digits[kRealRoom];
    const auto end =
        std::to_chars(digits, digits + sizeof digits, realNumber(), std::chars_format::fixed, 6);
    text_.set({digits, static_cast<std::size_t>(end.ptr - digits)});
  } else if (isSignedInteger()) {
    text_ << signedInteger();
  } else if (isUnsignedInteger()) {
    text_ << unsignedInteger();
  }
}

const char* TarnData::GetTypeAsString(Type type) noexcept {
  const auto index = static_cast<std::uint32_t>(type);
  return index < std::size(kTypeNames) ? kTypeNames[index] : kTypeNames[None];
}

TarnData::Type TarnData::GetTypeEnum(const char* name) noexcept {
  if (name == nullptr) return None;
  const std::string_view wanted = name;
  const auto* found = std::ranges::find(kTypeNames, wanted);
  return found != std::end(kTypeNames) ? static_cast<Type>(found - std::begin(kTypeNames)) : None;
}

// Neither add nor subtract empties text_: callers count on the text that they were given.

void TarnData::add(const TarnData& other) {
  if (type_ == String) {
    text_ << other.getText();
  } else if (type_ == Boolean) {
    store(booleanByte() || other.getBoolean());
  } else if (type_ == Double) {
    store(realNumber() + other.getDouble());
  } else if (type_ == Float) {
    store(load<float>() + other.getFloat());
  } else if (isSignedInteger()) {
    storeInteger(static_cast<std::uint64_t>(signedInteger()) +
                 static_cast<std::uint64_t>(other.getSint64()));
  } else if (isUnsignedInteger()) {
    storeInteger(unsignedInteger() + other.getUint64());
  }
}

void TarnData::subtract(const TarnData& other) {
  if (type_ == String) {
    Stringer::Replace(text_, other.getText(), "");
  } else if (type_ == Boolean) {
    store(booleanByte() && !other.getBoolean());
  } else if (type_ == Double) {
    store(realNumber() - other.getDouble());
  } else if (type_ == Float) {
    store(load<float>() - other.getFloat());
  } else if (isSignedInteger()) {
    storeInteger(static_cast<std::uint64_t>(signedInteger()) -
                 static_cast<std::uint64_t>(other.getSint64()));
  } else if (isUnsignedInteger()) {
    storeInteger(unsignedInteger() - other.getUint64());
  }
}

int TarnData::compare(const TarnData& other) const {
  if (isUnsignedInteger() && other.isUnsignedInteger()) {
    return leCompare(getUint64(), other.getUint64());
  }
  if (isSignedInteger() && other.isSignedInteger()) {
    return leCompare(getSint64(), other.getSint64());
  }
  if (isSignedInteger() && other.isUnsignedInteger()) {
    return leCompare(getSint64(), other.getUint64());
  }
  if (isUnsignedInteger() && other.isSignedInteger()) {
    return leCompare(getUint64(), other.getSint64());
  }
  if ((isRealNumber() && (other.isRealNumber() || other.isInteger())) ||
      (isInteger() && other.isRealNumber())) {
    return leCompare(getDouble(), other.getDouble());
  }
  if (!isBoolean() && !other.isBoolean()) return Stringer::Compare(getText(), other.getText());
  return static_cast<int>(getBoolean()) - static_cast<int>(other.getBoolean());
}

}  // namespace tarns
