#pragma once

namespace tarns::bench {

// The process that exports or imports a tarns store: what the arguments behind --text say. The text
// goes to standard output or comes from standard input; the import prints the most memory that it
// had when the text was read, and in the end. Throws what goes wrong.
void ServeTextProcess(int count, char** arguments);

}  // namespace tarns::bench
