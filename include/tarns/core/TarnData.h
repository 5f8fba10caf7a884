#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/Buffer.h>
#include <tarns/util/XString.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace tarns {

class TarnString;

// What a TarnData can be made from by its width and sign: every integral type of up to 64 bits
// (long, long long and the character types included), bool, float and double.
template <typename T>
concept TarnScalar =
    (std::integral<T> && sizeof(T) <= 8) || std::same_as<T, float> || std::same_as<T, double>;

// One value of one of thirteen types, which converts itself to any of the others on demand.
//
// Text is a C string: what is given as a std::string_view ends at its first NUL. A value that is
// not a String allocates nothing until getString() is called. An empty value (type None) reads as
// true, 1 and "".
// Numbers are written and read in the same way in every locale; see Stringer for what is read.
// Ownership: a plain value; what getString() returns belongs to it. Threads: not shared, not even
// for reading, because getString() keeps the text that it makes.
// Errors: none but std::bad_alloc. What cannot be parsed reads as 0, what is too large for a
// narrower integer loses its upper bits, a real number beyond 64 bits becomes the nearest 64-bit
// integer first (and one that is not a number 0).
//
// Oddities that callers rely on:
// - Integers narrower than the eight bytes of the value are stored over the first of them and leave
//   the others as they were.
// - Parsing one of the boolean words ("yes", "T", "1", "0", "", ...) as Uint8 gives a Boolean. As
//   Uint16, Uint32 or Uint64 it changes the first byte only, so set("0", Uint32) on 0x1234 gives
//   0x1200. Signed types know no boolean words.
// - add() and subtract() do not renew a text that getString() made before.
// - Every non-empty String is true, "FALSE" and "0" included.
class TARNS_API TarnData {
 public:
  // In the order of the names; the numbers are stored by callers.
  enum Type : std::int32_t {
    None,
    Boolean,
    Double,
    Float,
    Sint8,
    Sint16,
    Sint32,
    Sint64,
    String,
    Uint8,
    Uint16,
    Uint32,
    Uint64
  };

  TarnData() noexcept = default;
  // "0" parsed as the type: an empty value, false, 0, or the text "0".
  // NOLINTNEXTLINE(google-explicit-constructor): values are made from what they hold
  TarnData(Type type);
  template <TarnScalar T>
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnData(T value) noexcept : type_(TypeOf<T>()) {
    store(value);
  }
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnData(const char* text) { set(text); }
  template <StringViewLike T>
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnData(const T& text) {
    set(std::string_view(text));
  }
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnData(const XString& text) { set(text.getText()); }
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnData(TarnString text);  // defined beside TarnString
  TarnData(const TarnData& other) { copy(other); }
  TarnData(TarnData&& other) noexcept { *this = std::move(other); }
  TarnData& operator=(const TarnData& other) {
    copy(other);
    return *this;
  }
  TarnData& operator=(TarnData&& other) noexcept;
  virtual ~TarnData() = default;

  // Takes over type and value; a text made by getString() is not copied.
  void copy(const TarnData& other);

  template <TarnScalar T>
  void set(T value) noexcept {
    text_.setCapacity(0);
    type_ = TypeOf<T>();
    store(value);
  }
  // Makes this a String; null is the empty text.
  void set(const char* text) { copyString(text, -1); }
  void set(std::string_view text);
  void set(const TarnString& text);  // defined beside TarnString
  // The first `length` bytes of the text (all of it for -1), or fewer when it ends before.
  void copyString(const char* text, long length);
  // Takes over a text made with new char[], which the caller must not delete.
  void take(char* text) { take(std::unique_ptr<char[]>(text)); }
  void take(std::unique_ptr<char[]> text);

  // Parses the text as a value of the type. An unknown boolean word leaves a value for Boolean as
  // it was; see also the oddities above.
  void set(const char* text, Type type);
  void set(const char* text, const char* typeName) { set(text, GetTypeEnum(typeName)); }
  // A number is no type, not even 0, which would be the null name.
  template <std::integral T>
  void set(const char* text, T type) = delete;
  // Null, "no", "n", "false", "f", "null", "nil", "0" and "" give false; "yes", "y", "true", "t"
  // and "1" give true, in any case. Anything else changes nothing and returns false.
  bool convertFromStringToBooleanValue(const char* text);

  // Makes this an empty value.
  void empty() noexcept;
  // "", false or 0 of the same type.
  void zeroValue();
  // Whether getString() writes integers in groups of three digits. Not copied along.
  void setFancyIntegers(bool fancy) noexcept { text_.setFancy(fancy); }

  bool getBoolean() const noexcept;  // of a real number: whether it is 1e-7 or more away from 0
  double getDouble() const noexcept;
  float getFloat() const noexcept;
  std::int8_t getSint8() const noexcept { return static_cast<std::int8_t>(getSint64()); }
  std::int16_t getSint16() const noexcept { return static_cast<std::int16_t>(getSint64()); }
  std::int32_t getSint32() const noexcept { return static_cast<std::int32_t>(getSint64()); }
  std::int64_t getSint64() const noexcept;
  std::uint8_t getUint8() const noexcept { return static_cast<std::uint8_t>(getUint64()); }
  std::uint16_t getUint16() const noexcept { return static_cast<std::uint16_t>(getUint64()); }
  std::uint32_t getUint32() const noexcept { return static_cast<std::uint32_t>(getUint64()); }
  std::uint64_t getUint64() const noexcept;
  // Never null; valid until the next change. "True" or "False", real numbers with six decimals.
  const char* getString() const;
  // The same with its length.
  std::string_view getText() const;

  // NOLINTBEGIN(google-explicit-constructor): a value is read as what the reader wants
  operator const char*() const { return getString(); }
  operator double() const noexcept { return getDouble(); }
  operator float() const noexcept { return getFloat(); }
  operator std::uint32_t() const noexcept { return getUint32(); }
  operator unsigned long() const noexcept { return getUint64(); }
  operator unsigned long long() const noexcept { return getUint64(); }
  // NOLINTEND(google-explicit-constructor)

  Type getType() const noexcept { return type_; }
  const char* getTypeAsString() const noexcept { return GetTypeAsString(type_); }
  bool isBoolean() const noexcept { return type_ == Boolean; }
  bool isString() const noexcept { return type_ == String; }
  bool isRealNumber() const noexcept { return type_ == Double || type_ == Float; }
  bool isSignedInteger() const noexcept { return type_ >= Sint8 && type_ <= Sint64; }
  bool isUnsignedInteger() const noexcept { return type_ >= Uint8 && type_ <= Uint64; }
  bool isInteger() const noexcept { return isSignedInteger() || isUnsignedInteger(); }

  // The name of the enumerator; "None" for any other number, and None for any other name.
  static const char* GetTypeAsString(Type type) noexcept;
  static Type GetTypeEnum(const char* name) noexcept;

  // Keep the type of this value: integers wrap around, a Boolean becomes "or" ("and not"), a String
  // is appended to (loses every occurrence), an empty value stays empty.
  void add(const TarnData& other);
  void subtract(const TarnData& other);

  // Negative, 0 or positive. Numbers compare by value, a Boolean with anything as false before
  // true, everything else by the bytes of the texts.
  int compare(const TarnData& other) const;
  bool operator==(const char* text) const { return compare(TarnData(text)) == 0; }
  template <std::derived_from<XString> T>
  bool operator==(const T& text) const {
    return compare(TarnData(text)) == 0;
  }
  bool operator==(const TarnData& other) const { return compare(other) == 0; }

 private:
  template <TarnScalar T>
  static constexpr Type TypeOf() noexcept {
    if constexpr (std::same_as<T, bool>) return Boolean;
    if constexpr (std::same_as<T, double>) return Double;
    if constexpr (std::same_as<T, float>) return Float;
    constexpr int kWidth = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
    return static_cast<Type>((std::signed_integral<T> ? Sint8 : Uint8) + kWidth);
  }
  template <typename T>
  void store(T value) noexcept {
    static_assert(sizeof value <= sizeof value_);
    std::memcpy(value_.data(), &value, sizeof value);
  }
  template <typename T>
  T load() const noexcept {
    T value;
    std::memcpy(&value, value_.data(), sizeof value);
    return value;
  }
  bool booleanByte() const noexcept { return value_[0] != std::byte{0}; }
  double realNumber() const noexcept { return type_ == Double ? load<double>() : load<float>(); }
  std::int64_t signedInteger() const noexcept;
  std::uint64_t unsignedInteger() const noexcept;
  // Stores the low bits that fit into the integer type of this value.
  void storeInteger(std::uint64_t bits) noexcept;
  // An unsigned type other than Uint8: a boolean word, or else the number.
  template <typename T>
  void parseUnsigned(const char* text, std::uint64_t number);
  void makeText() const;

  std::array<std::byte, 8> value_{std::byte{1}};
  mutable Buffer text_;  // of a String the value, otherwise what getString() made
  Type type_ = None;
};

}  // namespace tarns
