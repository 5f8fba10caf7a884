#include "tools/json_names.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "tools/shown_text.h"

namespace tarns {

namespace {

// What stands for what within names.
constexpr std::array<std::pair<char, std::string_view>, 3> kEscapes{{
    {'~', "%7E"},
    {'\0', "%00"},
    {'%', "%25"},
}};
constexpr std::string_view kEmptyKey = "%";

const std::pair<char, std::string_view>* EscapeAt(std::string_view text) {
  const auto* found = std::ranges::find_if(
      kEscapes, [&](const auto& escape) { return text.starts_with(escape.second); });
  return found == kEscapes.end() ? nullptr : found;
}

// The key that NameOfKey() turns into a name, provided that there is one.
std::string KeyBehind(std::string_view name) {
  if (name == kEmptyKey) return "";
  std::string key;
  while (!name.empty()) {
    const auto* escape = EscapeAt(name);
    key += escape != nullptr ? escape->first : name.front();
    name.remove_prefix(escape != nullptr ? escape->second.size() : 1);
  }
  return key;
}

std::optional<unsigned char> HexByte(std::string_view digits) {
  unsigned char byte = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
  if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) return std::nullopt;
  return byte;
}

void AppendHex(std::string& out, unsigned number, int digits) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out += kDigits[(number >> shift) & 15];
}

// \uXXXX for each of the character's UTF-16 units.
void AppendUnits(std::string& out, std::uint32_t character) {
  if (character >= 0x10000) {
    character -= 0x10000;
    out += "\\u";
    AppendHex(out, 0xD800 + (character >> 10), 4);
    character = 0xDC00 + (character & 0x3FF);
  }
  out += "\\u";
  AppendHex(out, character, 4);
}

}  // namespace

std::string NameOfKey(std::string_view key) {
  if (key.empty()) return std::string(kEmptyKey);
  if (key == kEmptyKey) return "%25";
  std::string name;
  for (; !key.empty(); key.remove_prefix(1)) {
    const char character = key.front();
    const auto* own =
        std::ranges::find(kEscapes, character, &std::pair<char, std::string_view>::first);
    const bool needsEscape =
        own != kEscapes.end() && (character != '%' || EscapeAt(key) != nullptr);
    if (needsEscape) {
      name += own->second;
    } else {
      name += character;
    }
  }
  return name;
}

std::string KeyOfName(std::string_view name, std::size_t ordinal) {
  if (ordinal == 1 && IsUtf8(name)) {
    std::string key = KeyBehind(name);
    if (!key.starts_with('~') && NameOfKey(key) == name) return key;
  }
  const std::string number = ordinal == 1 ? "" : std::to_string(ordinal);
  return "~" + number + "=" + BytesToText(name);
}

std::string TextOfName(std::string_view name) {
  return IsUtf8(name) ? std::string(name) : "~=" + BytesToText(name);
}

std::optional<ExactKey> ReadExactKey(std::string_view key) {
  const std::size_t equals = key.find('=');
  if (!key.starts_with('~') || equals == std::string_view::npos) return std::nullopt;
  std::size_t ordinal = 1;
  if (equals != 1) {
    const auto [end, error] = std::from_chars(key.data() + 1, key.data() + equals, ordinal);
    if (error != std::errc() || end != key.data() + equals || ordinal < 2) return std::nullopt;
  }
  auto name = TextToBytes(key.substr(equals + 1));
  if (!name) return std::nullopt;
  return ExactKey{std::move(*name), ordinal};
}

std::string BytesToText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const std::size_t taken = FirstCharacter(bytes).length;
    if (taken == 0) {
      text += "\\x";
      AppendHex(text, static_cast<unsigned char>(bytes.front()), 2);
    } else if (bytes.front() == '\\') {
      text += "\\\\";
    } else {
      text += bytes.substr(0, taken);
    }
    bytes.remove_prefix(std::max<std::size_t>(taken, 1));
  }
  return text;
}

std::optional<std::string> TextToBytes(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  while (!text.empty()) {
    if (text.front() != '\\') {
      bytes += text.front();
      text.remove_prefix(1);
    } else if (text.starts_with("\\\\")) {
      bytes += '\\';
      text.remove_prefix(2);
    } else {
      if (!text.starts_with("\\x")) return std::nullopt;
      const auto byte = HexByte(text.substr(2, 2));
      if (!byte) return std::nullopt;
      bytes += static_cast<char>(*byte);
      text.remove_prefix(4);
    }
  }
  return bytes;
}

std::string Quoted(std::string_view text) {
  std::string out = "\"";
  out.reserve(text.size() + 2);
  while (!text.empty()) {
    const auto [code, length] = FirstCharacter(text);
    if (code == '"' || code == '\\') {
      out += '\\';
      out += text.front();
    } else if (code == '\n') {
      out += "\\n";
    } else if (IsHarmless(code)) {
      out += text.substr(0, length);
    } else {
      AppendUnits(out, code);
    }
    text.remove_prefix(length);
  }
  out += '"';
  return out;
}

}  // namespace tarns
