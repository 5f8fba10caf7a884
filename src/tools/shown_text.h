// Names and values as they may be shown to people.
#pragma once

#include <goods/object_ref.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarns {

// The text with everything escaped that could act on a terminal or deceive the eye: control and
// format characters, line and paragraph separators, and bytes that are not UTF-8. Escapes are \n,
// \r, \t, \\, \xHH for a byte and \u{HEX} for a character. What is left is UTF-8 on one line.
std::string Shown(std::string_view text);

// The same, but line feeds and tabs stay, and so do backslashes: for a value that is printed alone.
std::string ShownInFull(std::string_view text);

// An object's storage and number, as "0:65600".
std::string ObjectText(goods::object_id id);

// Columns that a text takes on a terminal; for what Shown() returns.
std::size_t WidthOf(std::string_view shown);

// The text cut to at most so many columns, with "…" at the end when it was longer.
std::string CutToWidth(std::string shown, std::size_t columns);

// The UTF-8 character at the start of a text that is not empty; length 0 when there is none.
struct Utf8Character {
  std::uint32_t code;
  std::size_t length;  // bytes
};
Utf8Character FirstCharacter(std::string_view text);
// Whether a character may be shown as it is.
bool IsHarmless(std::uint32_t code);
bool IsUtf8(std::string_view text);

}  // namespace tarns
