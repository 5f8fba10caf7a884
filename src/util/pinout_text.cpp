#include "util/pinout_text.h"

#include <tarns/util/Stringer.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

namespace tarns {

namespace {

bool IsControl(unsigned char byte) { return byte < 0x20 || byte == 0x7F; }

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

constexpr std::size_t kWord = sizeof(std::uint64_t);

// Whether the eight bytes from `text` on are printable ASCII and no quotation marks. Finds most
// texts plain without a look at each byte; it may say no where that is not so.
bool AreUsualCharacters(const char* text) {
  constexpr std::uint64_t kOnes = 0x0101010101010101, kHighBits = 0x8080808080808080;
  std::uint64_t word = 0;
  std::memcpy(&word, text, kWord);
  // The high bit of each byte is set where it is one of those; a carry only adds to them.
  const std::uint64_t quotes = word ^ (kOnes * '"');
  const std::uint64_t belowBlank = word - kOnes * 0x20;
  const std::uint64_t isQuote = quotes - kOnes;
  const std::uint64_t isDelete = word + kOnes;  // 0x7F
  return ((word | belowBlank | isQuote | isDelete) & kHighBits) == 0;
}

// The length of the valid UTF-8 sequence of several bytes that the text begins with; 0 for none.
std::size_t SequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!IsContinuation(byte(i))) return 0;
  }
  const bool isOverlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
  const bool isSurrogate = first == 0xED && byte(1) > 0x9F;
  const bool isTooLarge = first == 0xF4 && byte(1) > 0x8F;
  return isOverlong || isSurrogate || isTooLarge ? 0 : length;
}

char HexDigit(unsigned value) { return "0123456789ABCDEF"[value]; }

int HexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

// What stands behind the backslash for the character; NUL for none.
char EscapeOf(char character) {
  switch (character) {
    case '"':
    case '\\':
      return character;
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return '\0';
  }
}

char EscapedBy(char letter) {
  switch (letter) {
    case '"':
    case '\\':
      return letter;
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return '\0';
  }
}

void AppendHex(std::string& out, unsigned char byte) {
  out += "\\x";
  out += HexDigit(byte >> 4);
  out += HexDigit(byte & 15);
}

}  // namespace

bool IsPlainText(std::string_view text) {
  if (text.empty() || text.front() == ' ' || text.back() == ' ') return false;
  for (std::size_t i = 0; i < text.size();) {
    // The last word may begin among characters that have been looked at.
    if (text.size() >= kWord &&
        AreUsualCharacters(text.data() + std::min(i, text.size() - kWord))) {
      i += kWord;
      continue;
    }
    const auto byte = static_cast<unsigned char>(text[i]);
    if (IsControl(byte) || byte == '"') return false;
    const std::size_t length = byte < 0x80 ? 1 : SequenceLength(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  return true;
}

void AppendQuotedText(std::string& out, std::string_view text) {
  out += '"';
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const std::size_t length = byte < 0x80 ? 1 : SequenceLength(text.substr(i));
    if (const char escape = EscapeOf(text[i])) {
      out += '\\';
      out += escape;
    } else if (length == 0 || IsControl(byte)) {
      AppendHex(out, byte);
    } else {
      out += text.substr(i, length);
    }
    i += length == 0 ? 1 : length;
  }
  out += '"';
}

const char* ReadQuotedText(std::string_view text, std::string& plain, std::size_t& end) {
  plain.clear();
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '"') {
      end = i + 1;
      return nullptr;
    }
    if (text[i] != '\\') {
      const std::size_t run = text.find_first_of("\\\"", i);
      if (run == std::string_view::npos) break;
      plain += text.substr(i, run - i);
      i = run - 1;
      continue;
    }
    if (i + 3 < text.size() && text[i + 1] == 'x') {
      const int high = HexValue(text[i + 2]), low = HexValue(text[i + 3]);
      if (high < 0 || low < 0) return "\\x takes two hexadecimal digits";
      plain += static_cast<char>(high * 16 + low);
      i += 3;
      continue;
    }
    const char character = i + 1 < text.size() ? EscapedBy(text[i + 1]) : '\0';
    if (character == '\0') return "there is no such escape as this one behind a backslash";
    plain += character;
    ++i;
  }
  return "the closing quotation mark is missing";
}

bool ParseBoolean(std::string_view text, bool& value) {
  constexpr std::array<std::pair<const char*, bool>, 12> kWords{{{"true", true},
                                                                 {"false", false},
                                                                 {"yes", true},
                                                                 {"no", false},
                                                                 {"t", true},
                                                                 {"f", false},
                                                                 {"y", true},
                                                                 {"n", false},
                                                                 {"1", true},
                                                                 {"0", false},
                                                                 {"null", false},
                                                                 {"nil", false}}};
  for (const auto& [word, meaning] : kWords) {
    if (Stringer::Compare(text, word, false) != 0) continue;
    value = meaning;
    return true;
  }
  return false;
}

}  // namespace tarns
