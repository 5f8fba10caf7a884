// The tables of a store and its two rows about itself. docs/store-format.md describes them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/row_format.h"
#include "storage/local/sqlite_connection.h"

namespace goods {

// Written as SQLite's user_version. Stores of any other format are refused; those of 1 and 2 are of
// the time before the first release.
inline constexpr std::uint32_t store_format = 3;
// SQLite's application_id of a store: "TARN".
inline constexpr std::uint32_t store_application = 0x5441524e;

inline constexpr std::size_t database_header_size = 100;
inline constexpr std::size_t store_tables = 7;

// Longest content of a row of any table but segments.
inline constexpr std::size_t longest_row = std::size_t{16} << 20;

// What every commit rewrites: the newest version, and how much there must be of everything, so that
// rows that have gone astray are missed.
struct store_state {
  commit_version version = 0;
  std::uint64_t next_object = first_object_number + 1;  // above all numbers that were ever used
  std::uint64_t segments = 0;
  std::uint64_t layouts = 0;
  std::uint64_t prepared_rows = 0;
  std::uint64_t decisions = 0;
  std::uint64_t settlements = 0;  // times that a failed commit was overwritten

  void write(std::vector<std::byte>& row) const;
  // Throws damaged_bytes.
  static store_state read(std::span<const std::byte> row);
};

void write_identity(const storage_identity& identity, std::vector<std::byte>& row);
storage_identity read_identity(std::span<const std::byte> row);  // throws damaged_bytes

// Keys of the two rows in table `about`.
inline constexpr std::int64_t identity_key = 1;
inline constexpr std::int64_t state_key = 2;

// Makes tables and rows of an empty store in `file` and closes it.
void make_store(const std::string& file);

// Makes the copy of a store that `file` holds a store of its own: with a new identity, which it
// returns, and without what the other one has to do with commits over several storages. `state`:
// the store's.
storage_identity renew_store(const std::string& file, store_state state);

// Checks the first bytes of a store's file. `file_size` 0: not known.
// Throws corrupt_data and newer_version.
void check_database_header(const std::string& file, std::span<const unsigned char> header,
                           std::uint64_t file_size);

// Checks that the open file holds the tables of a store and nothing else. Throws corrupt_data.
void check_schema(sqlite_connection& connection);

}  // namespace goods
