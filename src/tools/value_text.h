// Values as people write and read them.
#pragma once

#include <tarns/core/TarnData.h>

#include <optional>
#include <string>
#include <string_view>

namespace tarns {

// The text of a value, from which a value of the same type can be read exactly: integers in
// decimal, real numbers with the fewest digits ("inf", "-inf" and "nan" where they are none),
// "true" and "false", texts as they are.
std::string ValueText(const TarnData& value);

// The value of the given type that a text stands for; nothing when it stands for none, or for one
// that the type cannot hold. Booleans: true, false, yes, no, t, f, y, n, 1 and 0 in any case.
std::optional<TarnData> ValueOfType(std::string_view text, TarnData::Type type);

// The value that a text most likely stands for: true and false are Booleans, what JSON takes for a
// number is a Sint64, a Uint64 where that is too small, or a Double; everything else is a String.
TarnData GuessValue(std::string_view text);

// A type by its name in any case; nothing for an unknown one.
std::optional<TarnData::Type> TypeByName(std::string_view name);

// A real number as JSON writes it, which must be finite; it always reads as a real number.
std::string RealText(double value);
std::string RealText(float value);

}  // namespace tarns
