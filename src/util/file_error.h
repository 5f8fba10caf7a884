#pragma once

#include <string_view>

namespace tarns {

// Throws an XException such as: Cannot open the file "x": No such file or directory.
// The reason is that of errno at the time of the call.
[[noreturn]] void ThrowFileError(std::string_view what, std::string_view path);

// Throws as above unless all of `bytes` was written to the open file.
void WriteAll(int descriptor, std::string_view bytes, std::string_view path);

}  // namespace tarns
