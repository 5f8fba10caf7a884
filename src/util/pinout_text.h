// The texts of PInOut's lines: which stand as they are, and how the others are quoted.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarns {

// Whether a value may stand without quotation marks: not empty, valid UTF-8, without control bytes
// and quotation marks, and without blanks at its ends.
bool IsPlainText(std::string_view text);

// Adds the text in quotation marks, with escapes.
void AppendQuotedText(std::string& out, std::string_view text);

// Reads a text that begins with a quotation mark. `end` becomes the number of bytes up to behind
// the closing one. Returns null, or what is wrong.
const char* ReadQuotedText(std::string_view text, std::string& plain, std::size_t& end);

// The words that TarnData takes for Booleans. False, and `value` as it was, for any other.
bool ParseBoolean(std::string_view text, bool& value);

}  // namespace tarns
