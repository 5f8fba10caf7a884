// How values are written in JSON; see docs/json-form.md.
#pragma once

#include <tarns/core/TarnData.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarns {

// A value as JSON: plain where plain JSON is read back as the same value of the same type (texts in
// UTF-8, Booleans, Sint64, Uint64 beyond that, finite Doubles), otherwise an object with one key,
// "~" and the name of the type. Real numbers that are not finite are "inf", "-inf" and "nan" there,
// other bit patterns that are not numbers "nan:" and 16 (8) hexadecimal digits. Texts that are not
// UTF-8 are written as BytesToText() does. Throws 0 for the empty value, which is none.
std::string JsonOfValue(const TarnData& value);

// The type that a key "~Sint32" names; nothing for other keys.
std::optional<TarnData::Type> TypeOfKey(std::string_view key);

// What may stand behind such a key; each gives nothing when the type does not go with it or cannot
// hold it exactly. Of a real number also its digits, so that nothing is rounded twice.
std::optional<TarnData> TypedInteger(std::int64_t value, TarnData::Type type);
std::optional<TarnData> TypedInteger(std::uint64_t value, TarnData::Type type);
std::optional<TarnData> TypedReal(std::string_view digits, TarnData::Type type);
std::optional<TarnData> TypedText(std::string_view text, TarnData::Type type);
std::optional<TarnData> TypedBoolean(bool value, TarnData::Type type);

// Whether what was stored is what was given: bit for bit when both are of one type; of two types of
// numbers, exactly the same number. An empty text may have become no text at all.
bool IsSameValue(const TarnData& given, const TarnData& stored);

}  // namespace tarns
