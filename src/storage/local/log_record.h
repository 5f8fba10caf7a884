// What the commit log consists of: docs/store-format.md.
//
//   0  checksum  8 bytes  XXH3-64 of the rest of the header, seeded with the store's identity
//   8  content   8 bytes  XXH3-64 of the content
//  16  length    8 bytes  of the content
//  24  commits   4 bytes  1 upwards
//  28  magic     4 bytes  "clog"
//  32  mark      8 bytes  random, the same in all records since the file was begun anew
//  40  first     8 bytes  version of the first commit
//  48  durable   8 bytes  every commit up to this version was durable before this record was
//  written 56  synced    8 bytes  as many bytes of the file were durable before that 64  content,
//  then zeros up to a multiple of 64
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

inline constexpr std::size_t log_header_size = 64;
// Records begin at multiples of this.
inline constexpr std::size_t log_alignment = 64;

// One group of commits: the versions from `first` to last(), one after the other.
struct log_record {
  std::uint64_t mark = 0;
  commit_version first = 0;
  std::uint32_t commits = 0;
  commit_version durable = 0;  // below `first`
  std::uint64_t synced = 0;
  std::span<const std::byte> content;  // for each commit: number of changes (varint), changes

  commit_version last() const { return first + (commits - 1); }
};

// Bytes that a group takes in the log.
std::size_t log_record_size(std::span<const commit_request* const> group);

// Writes a group into `out`, replacing what it holds; `about.content` and `about.commits` are
// ignored.
void write_log_record(const log_record& about, std::span<const commit_request* const> group,
                      const storage_identity& store, std::vector<std::byte>& out);

// The header of the record that begins with `bytes`, and the length of its content; nothing when
// none of this store does.
struct log_header {
  log_record record;  // without content
  std::uint64_t content_checksum;
  std::uint64_t length;
};
std::optional<log_header> read_log_header(std::span<const std::byte> bytes,
                                          const storage_identity& store);

// The whole record; nothing when it does not fit or its content does not match.
std::optional<log_record> read_log_record(std::span<const std::byte> bytes,
                                          const storage_identity& store);
// Where the next record begins, from the beginning of this one.
std::size_t log_record_size(const log_record& record);

// All changes of a record in order; bodies refer to its content. Throws damaged_bytes.
void read_changes(const log_record& record, std::vector<object_change>& into);

}  // namespace goods
