#include "tools/shown_text.h"

#include <utf8proc.h>

#include <algorithm>
#include <charconv>

namespace tarns {

namespace {

constexpr std::uint32_t kZeroWidthNonJoiner = 0x200C;
constexpr std::uint32_t kZeroWidthJoiner = 0x200D;
constexpr std::string_view kEllipsis = "…";

void AppendHex(std::string& out, std::uint32_t number, std::size_t digits) {
  char text[8];
  const auto end = std::to_chars(text, text + sizeof text, number, 16).ptr;
  const auto length = static_cast<std::size_t>(end - text);
  out.append(digits > length ? digits - length : 0, '0').append(text, length);
}

void AppendEscape(std::string& out, std::uint32_t character) {
  switch (character) {
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      out += "\\u{";
      AppendHex(out, character, 1);
      out += '}';
  }
}

void AppendByte(std::string& out, char byte) {
  out += "\\x";
  AppendHex(out, static_cast<unsigned char>(byte), 2);
}

std::string Escaped(std::string_view text, bool inFull) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const auto [character, taken] = FirstCharacter(text);
    if (taken == 0) {
      AppendByte(out, text.front());
    } else if (inFull && (character == '\n' || character == '\t')) {
      out += text.front();
    } else if (!inFull && character == '\\') {
      out += "\\\\";
    } else if (IsHarmless(character)) {
      out += text.substr(0, taken);
    } else {
      AppendEscape(out, character);
    }
    text.remove_prefix(std::max<std::size_t>(taken, 1));
  }
  return out;
}

// A byte that is no character takes one column.
std::size_t WidthOfCharacter(const Utf8Character& character) {
  if (character.length == 0) return 1;
  const int width = utf8proc_charwidth(static_cast<utf8proc_int32_t>(character.code));
  return static_cast<std::size_t>(std::max(width, 0));
}

}  // namespace

std::string Shown(std::string_view text) { return Escaped(text, false); }

std::string ShownInFull(std::string_view text) { return Escaped(text, true); }

std::string ObjectText(goods::object_id id) {
  return std::to_string(goods::storage_of(id)) + ":" + std::to_string(goods::number_of(id));
}

std::size_t WidthOf(std::string_view shown) {
  std::size_t width = 0;
  while (!shown.empty()) {
    const Utf8Character character = FirstCharacter(shown);
    width += WidthOfCharacter(character);
    shown.remove_prefix(std::max<std::size_t>(character.length, 1));
  }
  return width;
}

std::string CutToWidth(std::string shown, std::size_t columns) {
  std::size_t width = 0, end = 0, fits = 0;
  while (end < shown.size()) {
    const Utf8Character character = FirstCharacter(std::string_view(shown).substr(end));
    width += WidthOfCharacter(character);
    if (width > columns) break;
    end += std::max<std::size_t>(character.length, 1);
    if (width + 1 <= columns) fits = end;
  }
  if (end == shown.size()) return shown;
  shown.resize(fits);
  return shown.append(columns == 0 ? std::string_view() : kEllipsis);
}

Utf8Character FirstCharacter(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return {first, 1};
  const auto length = static_cast<utf8proc_ssize_t>(std::min<std::size_t>(text.size(), 4));
  utf8proc_int32_t code = 0;
  const utf8proc_ssize_t taken =
      utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), length, &code);
  if (taken <= 0) return {0, 0};
  return {static_cast<std::uint32_t>(code), static_cast<std::size_t>(taken)};
}

bool IsHarmless(std::uint32_t code) {
  if (code < 0x7F) return code >= 0x20;
  switch (utf8proc_category(static_cast<utf8proc_int32_t>(code))) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return false;
    case UTF8PROC_CATEGORY_CF:  // these two join letters and emoji, the others redirect text
      return code == kZeroWidthNonJoiner || code == kZeroWidthJoiner;
    default:
      return true;
  }
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t taken = FirstCharacter(text).length;
    if (taken == 0) return false;
    text.remove_prefix(taken);
  }
  return true;
}

}  // namespace tarns
