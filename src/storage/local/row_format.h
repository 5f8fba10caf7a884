// How every row of a store is framed: docs/store-format.md.
//
//   0  checksum  8 bytes  XXH3-64 of all that follows
//   8  kind      1 byte   row_kind
//   9  packing   1 byte   0: as it is, 1: one LZ4 block
//  10  -         2 bytes  0
//  12  length    4 bytes  of the content, unpacked
//  16  key       8 bytes  the number that the row is found by
//  24  version   8 bytes  the commit that wrote it
//  32  content
//
// Numbers are little-endian. Thus a row that turns up under another key, or in another table, is
// noticed as surely as a flipped bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <vector>

namespace goods {

constexpr std::size_t row_kind_at = 8;  // in a row

enum class row_kind : std::uint8_t {
  segment = 'S',
  piece = 'P',     // of an object too large for its segment
  presence = 'M',  // which segments there are
  layout = 'L',
  identity = 'I',
  state = 'V',
  prepared = 'T',
  decision = 'D',
};

// Stored bytes fail a check. Whoever knows what was being read turns it into corrupt_data.
class damaged_bytes : public std::exception {
 public:
  explicit damaged_bytes(const char* what) : what_(what) {}
  const char* what() const noexcept override { return what_; }

 private:
  const char* what_;  // a literal
};

// Bytes on the heap that are not cleared first.
struct byte_block {
  std::unique_ptr<std::byte[]> bytes;
  std::size_t size = 0;

  static byte_block of_size(std::size_t size) {
    return {std::unique_ptr<std::byte[]>(new std::byte[size]), size};
  }
  std::span<const std::byte> view() const { return {bytes.get(), size}; }
};

// A row whose frame has been checked. `content` refers to the row's bytes.
struct framed_row {
  std::uint64_t version;
  std::size_t length;  // of the content, unpacked
  bool packed;
  std::span<const std::byte> content;

  // Writes exactly `length` bytes. Throws damaged_bytes.
  void unpack(std::byte* into) const;
  byte_block unpack() const;
};

inline constexpr std::size_t row_header_size = 32;

// Writes a row into `out`, replacing what it holds. Contents are packed when that saves an eighth.
void write_row(row_kind kind, std::uint64_t key, std::uint64_t version,
               std::span<const std::byte> content, std::vector<std::byte>& out);

// Checks a row. Contents above `longest` are damage: this bounds what a hostile row makes us
// reserve.
framed_row read_row(row_kind kind, std::uint64_t key, std::size_t longest,
                    std::span<const std::byte> row);

}  // namespace goods
