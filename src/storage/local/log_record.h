// What the commit log consists of: docs/store-format.md.
//
//   0  checksum  8 bytes  XXH3-64 of the rest of the header, seeded with the store's identity
//   8  content   8 bytes  XXH3-64 of the content, as it is stored
//  16  length    4 bytes  of the content
//  20  mask      4 bytes  what the words of the content have been changed with; mostly 0
//  24  commits   4 bytes  1 upwards
//  28  magic     4 bytes  "clog"
//  32  mark      8 bytes  random, the same in all records since the file was begun anew
//  40  first     8 bytes  version of the first commit
//  48  durable   8 bytes  every commit up to this version was durable before it was written
//  56  synced    8 bytes  as many bytes of the file were durable before it was written
//  64  content, then zeros up to a multiple of 64
//
// Wherever else in a record a header could begin, at a multiple of 64 bytes, it has no "clog" in
// its place: where the bytes that applications store would put one there, the words in these places
// are xored with a mask that avoids it. So whatever looks like a header in a file of the log is
// one, or what is left of one, even within a record that was cut short.
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
  std::uint32_t mask = 0;
  std::span<std::byte> content;  // for each commit: number of changes (varint), changes

  commit_version last() const { return first + (commits - 1); }
};

// Bytes that a group takes in the log.
std::size_t log_record_size(std::span<const commit_request* const> group);

// Writes a group into `out`, replacing what it holds; of `about`, content, commits and mask are
// ignored. Throws storage_full for more than 4 GiB: the log is shorter.
void write_log_record(const log_record& about, std::span<const commit_request* const> group,
                      const storage_identity& store, std::vector<std::byte>& out);

// The header of the record that begins with `bytes`, and the length of its content; nothing when
// none of this store does.
struct log_header {
  log_record record;  // without content
  std::uint64_t content_checksum;
  std::uint32_t length;
};
std::optional<log_header> read_log_header(std::span<const std::byte> bytes,
                                          const storage_identity& store);

// The whole record, its content as it is stored; nothing when it does not fit or its content does
// not match.
std::optional<log_record> read_log_record(std::span<std::byte> bytes,
                                          const storage_identity& store);
// Where the next record begins, from the beginning of this one.
std::size_t log_record_size(const log_record& record);

// All changes of a record in order; bodies refer to its content, from which the mask has been taken
// off then. Throws damaged_bytes.
void read_changes(log_record& record, std::vector<object_change>& into);

}  // namespace goods
