// How names of children are written as keys of JSON objects and back; see docs/json-form.md.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tarns {

// The name that a key of JSON from anywhere stands for. What a name cannot hold is escaped: "~" is
// %7E, NUL is %00, and the empty key is "%"; to keep that unambiguous, the "%" of what looks like
// one of these escapes (or like %25) and the key "%" become %25.
std::string NameOfKey(std::string_view key);

// A name as a key: the plain key that stands for it or, where there is none, "~=" and the name in
// which backslashes are doubled and bytes that are not UTF-8 are \xHH. With an `ordinal` above 1,
// for a further child of one name, "~2=", "~3=" and so on.
std::string KeyOfName(std::string_view name, std::size_t ordinal = 1);

// A name or a path as a result that is read by programs: as it is where it is UTF-8, otherwise "~="
// and BytesToText().
std::string TextOfName(std::string_view name);

// What a key "~=..." or "~2=..." says; nothing for other keys, or for malformed escapes.
struct ExactKey {
  std::string name;
  std::size_t ordinal;
};
std::optional<ExactKey> ReadExactKey(std::string_view key);

// Bytes in UTF-8 text: \\ for a backslash, \xHH for a byte that is not UTF-8; and back, nothing for
// malformed escapes.
std::string BytesToText(std::string_view bytes);
std::optional<std::string> TextToBytes(std::string_view text);

// A text as a JSON string with its quotation marks. The text must be UTF-8. Whatever Shown() would
// escape is escaped, too.
std::string Quoted(std::string_view text);

}  // namespace tarns
