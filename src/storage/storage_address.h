// The address of a storage, taken apart: "file:./data?durability=relaxed&mmap=off&cache=64M".
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace goods {

// How the embedded backend treats a directory.
struct local_options {
  // durability=full (default): a commit that has returned survives a loss of power.
  // durability=relaxed: such a loss may take the last moments' commits, in order and whole.
  bool relaxed = false;
  // mmap=on (default): pages are read through a mapping of the file. Faster, but whoever cuts the
  // file from outside while it is open ends the process.
  bool mapped = true;
  // cache=BYTES, also with K, M or G (default: what the sessions suggest): memory for segments that
  // were read or written.
  std::optional<std::size_t> cache_bytes;
  // log=BYTES (64K to 1G, default 32M): the most that is committed and not yet merged into the
  // database; commits wait beyond it.
  std::size_t log_bytes = std::size_t{32} << 20;

  friend bool operator==(const local_options&, const local_options&) = default;
};

struct storage_address {
  std::string directory;  // absolute
  local_options options;
};

// Throws usage for an address that no backend knows and for an option or value it does not have.
storage_address parse_storage_address(std::string_view address, std::string_view base_directory);

}  // namespace goods
