// What a shared library says of itself, read from its file without running any of it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarns {

// Why a file cannot be loaded, as the end of a sentence about it: "is no shared library".
struct LibraryProblem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct LibraryFile {
  std::string abi;                  // what TARN_LIBRARY() put there
  std::string soname;               // empty when it has none
  std::vector<std::string> needed;  // names of the libraries that it is linked with
};

// Reads an ELF file through a descriptor. Believes nothing that is in it: any bytes give a result
// or a LibraryProblem.
LibraryFile ReadLibraryFile(int file);

// What tells different contents from each other: a hash of 128 bits. Throws as above.
using LibraryContents = std::pair<std::uint64_t, std::uint64_t>;
LibraryContents ReadLibraryContents(int file);

}  // namespace tarns
