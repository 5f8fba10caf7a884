#include <tarns/util/Stringer.h>

#include <locale.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <system_error>

namespace tarns {

namespace {

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

void SkipBlanks(std::string_view& text) {
  while (!text.empty() && Stringer::IsBlank(text.front())) text.remove_prefix(1);
}

// The number of digits at the start of the text.
std::size_t DigitsIn(std::string_view text) {
  return std::find_if_not(text.begin(), text.end(), IsDigit) - text.begin();
}

// The length of the longest `digits` or `grouped` at the start of the text.
std::size_t GroupsIn(std::string_view text) {
  std::size_t length = DigitsIn(text);
  if (length == 0 || length > 3) return length;
  while (length < text.size() && text[length] == ',' && DigitsIn(text.substr(length + 1)) == 3) {
    length += 4;
  }
  return length;
}

// An integer at the start of a text.
struct ReadInteger {
  bool found = false;
  bool negative = false;
  bool tooLarge = false;        // the magnitude exceeds 64 bits
  std::uint64_t magnitude = 0;  // all ones when too large
  std::string_view rest;        // what lies behind it
};

void AddDigit(ReadInteger& number, char digit) {
  const std::uint64_t value = static_cast<std::uint64_t>(digit - '0');
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  if (number.tooLarge || number.magnitude > (kMost - value) / 10) {
    number.tooLarge = true;
    number.magnitude = kMost;
  } else {
    number.magnitude = number.magnitude * 10 + value;
  }
}

ReadInteger Read(std::string_view text, std::size_t (*lengthOf)(std::string_view)) {
  ReadInteger number;
  SkipBlanks(text);
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    number.negative = text.front() == '-';
    text.remove_prefix(1);
  }
  const std::size_t length = lengthOf(text);
  number.found = length != 0;
  for (const char character : text.substr(0, length)) {
    if (character != ',') AddDigit(number, character);
  }
  number.rest = text.substr(length);
  return number;
}

constexpr std::uint64_t kMostNegative = std::uint64_t{1} << 63;  // its magnitude

// Whether the number is in the range of std::int64_t.
bool FitsSigned(const ReadInteger& number) {
  return number.magnitude < kMostNegative ||
         (number.negative && number.magnitude == kMostNegative && !number.tooLarge);
}

std::int64_t ToSigned(const ReadInteger& number) {
  if (!FitsSigned(number)) {
    return number.negative ? std::numeric_limits<std::int64_t>::min()
                           : std::numeric_limits<std::int64_t>::max();
  }
  return static_cast<std::int64_t>(number.negative ? ~number.magnitude + 1 : number.magnitude);
}

// Whether a number was found and nothing but blanks follows.
bool IsWholeText(ReadInteger number) {
  SkipBlanks(number.rest);
  return number.found && number.rest.empty();
}

// `text` with every `piece` replaced. Sets `count` to how many there were.
Buffer Replaced(std::string_view text, std::string_view piece, std::string_view replacement,
                std::size_t& count) {
  Buffer result;
  count = 0;
  for (std::size_t at = text.find(piece); at != std::string_view::npos; at = text.find(piece)) {
    result << text.substr(0, at) << replacement;
    text.remove_prefix(at + piece.size());
    ++count;
  }
  result << text;
  return result;
}

// What stands for the character in HTML; empty when it stands for itself.
std::string_view EntityOf(char character) {
  switch (character) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      return {};
  }
}

}  // namespace

bool Stringer::IsInteger(const char* text) {
  std::string_view rest = ViewOf(text);
  if (!rest.empty() && rest.front() == '-') rest.remove_prefix(1);
  return !rest.empty() && GroupsIn(rest) == rest.size();
}

bool Stringer::IsFloat(const char* text) {
  std::string_view rest = ViewOf(text);
  if (!rest.empty() && rest.front() == '-') rest.remove_prefix(1);
  const std::size_t whole = GroupsIn(rest);
  rest.remove_prefix(whole);
  if (rest.empty()) return whole != 0;
  if (rest.front() != '.') return false;
  rest.remove_prefix(1);
  return DigitsIn(rest) == rest.size() && (whole != 0 || !rest.empty());
}

std::int64_t Stringer::ToSint64(const char* text, int sanityCheck) {
  const ReadInteger number = Read(ViewOf(text), GroupsIn);
  if (sanityCheck > 0 && (!IsWholeText(number) || !FitsSigned(number))) return 0;
  return ToSigned(number);
}

std::uint64_t Stringer::ToUint64(const char* text, int sanityCheck) {
  const ReadInteger number = Read(ViewOf(text), GroupsIn);
  if (sanityCheck > 0 && (!IsWholeText(number) || number.negative || number.tooLarge)) return 0;
  return number.negative ? static_cast<std::uint64_t>(ToSigned(number)) : number.magnitude;
}

std::int64_t Stringer::Atol(const char* text) { return ToSigned(Read(ViewOf(text), DigitsIn)); }

double Stringer::Atof(const char* text) {
  static const locale_t kLocale = newlocale(LC_ALL_MASK, "C", locale_t{});
  return text != nullptr ? strtod_l(text, nullptr, kLocale) : 0.0;
}

std::size_t Stringer::CountChars(const char* text, char character) {
  const std::string_view all = ViewOf(text);
  return static_cast<std::size_t>(std::ranges::count(all, character));
}

std::size_t Stringer::Count(const char* text, const char* piece) {
  const std::string_view wanted = ViewOf(piece);
  if (wanted.empty()) return 0;
  std::string_view rest = ViewOf(text);
  std::size_t count = 0;
  for (std::size_t at = rest.find(wanted); at != std::string_view::npos; at = rest.find(wanted)) {
    rest.remove_prefix(at + wanted.size());
    ++count;
  }
  return count;
}

std::size_t Stringer::Replace(Buffer& text, std::string_view piece, std::string_view replacement) {
  if (piece.empty() || text.view().find(piece) == std::string_view::npos) return 0;
  std::size_t count = 0;
  Buffer result = Replaced(text.view(), piece, replacement, count);
  text.exchange(result);
  return count;
}

std::size_t Stringer::Replace(XString& text, std::string_view piece, std::string_view replacement) {
  if (piece.empty() || text.view().find(piece) == std::string_view::npos) return 0;
  std::size_t count = 0;
  Buffer result = Replaced(text.view(), piece, replacement, count);
  text.exchange(result);
  return count;
}

int Stringer::Compare(std::string_view left, std::string_view right, bool caseSensitive) {
  if (caseSensitive) {
    const int order = left.compare(right);
    return (order > 0) - (order < 0);
  }
  const auto differ = std::ranges::mismatch(left, right, {}, ToUpper, ToUpper);
  if (differ.in1 == left.end() || differ.in2 == right.end()) {
    return (left.size() > right.size()) - (left.size() < right.size());
  }
  const auto first = static_cast<unsigned char>(ToUpper(*differ.in1));
  const auto second = static_cast<unsigned char>(ToUpper(*differ.in2));
  return first < second ? -1 : 1;
}

int Stringer::CompareIgnoringCase(const char* left, const char* right) {
  return Compare(ViewOf(left), ViewOf(right), false);
}

const char* Stringer::ParseAttributeValueToken(const char* text, XString& token) {
  if (text == nullptr) text = "";
  const bool quoted = *text == '"' || *text == '\'';
  const char* begin = quoted ? text + 1 : text;
  const char* end =
      quoted ? std::strchr(begin, *text) : begin + std::strcspn(begin, " \t\n\v\f\r\"'`<>");
  if (end == nullptr) end = begin + std::strlen(begin);
  const char* behind = quoted && *end != '\0' ? end + 1 : end;
  token = std::string_view(begin, end - begin);
  return behind;
}

void Stringer::MakeHTMLsafe(XString& text) {
  Buffer safe;
  for (const char& character : text.view()) {
    const std::string_view entity = EntityOf(character);
    safe << (entity.empty() ? std::string_view(&character, 1) : entity);
  }
  text.exchange(safe);
}

}  // namespace tarns
