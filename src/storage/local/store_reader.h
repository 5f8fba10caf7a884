// Reads a store's rows through one connection.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <goods/dbs_storage.h>

#include "storage/local/segment.h"
#include "storage/local/sqlite_connection.h"
#include "storage/local/store_schema.h"

namespace goods {

// The pieces that an object apart is stored in.
inline constexpr std::size_t piece_size = std::size_t{8} << 20;  // bytes; the last may be shorter
inline constexpr unsigned piece_bits = 8;

inline std::int64_t piece_key(object_number number, std::size_t piece) {
  return static_cast<std::int64_t>(std::uint64_t{number} << piece_bits | piece);
}
static_assert(max_state_size / piece_size <= std::size_t{1} << piece_bits);

// Throws corrupt_data for what has been found in `object` of the storage `store`.
[[noreturn]] void throw_damaged_object(const std::string& store, object_number object,
                                       std::string_view what);
[[noreturn]] void throw_damaged_segment(const std::string& store, segment_number segment,
                                        std::string_view what);
// In a table, or the row `key` of it.
[[noreturn]] void throw_damaged_row(const std::string& store, std::string_view table,
                                    std::int64_t key, std::string_view what);

// Threads: one at a time, as its connection.
// Errors: corrupt_data naming the store and the objects; what the connection throws.
class store_reader {
 public:
  // Both outlive the reader.
  store_reader(sqlite_connection& connection, const std::string& store);

  storage_identity identity();
  store_state state();

  // Null when there is no such row.
  std::shared_ptr<const segment> read_segment(segment_number number);

  // An object that its segment has apart, with the length that it says, in pieces that are not
  // newer than the segment's version.
  byte_block read_apart(object_number object, std::size_t length, commit_version newest);

  // All segments in order; `visit` returns false to stop. Returns how many there were.
  std::uint64_t for_each_segment(const std::function<bool(std::shared_ptr<const segment>)>& visit);

  // All rows of one of the smaller tables in order, checked: key and content.
  using row_visitor = std::function<void(std::int64_t key, byte_block content)>;
  std::uint64_t for_each_row(const char* table, row_kind kind, const row_visitor& visit);

 private:
  std::shared_ptr<const segment> parse_segment(segment_number number,
                                               std::span<const std::byte> row);

  sqlite_connection& connection_;
  const std::string& store_;
  sqlite_statement about_;
  sqlite_statement segment_;
  sqlite_statement piece_;
};

}  // namespace goods
