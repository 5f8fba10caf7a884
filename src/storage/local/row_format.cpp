#include "storage/local/row_format.h"

#include <lz4.h>
#include <xxhash.h>

#include <limits>

#include "storage/local/byte_order.h"

namespace goods {
namespace {

enum : std::size_t {
  checksum_at = 0,
  packing_at = 9,
  unused_at = 10,
  length_at = 12,
  key_at = 16,
  version_at = 24
};

// Below this there is nothing to win.
constexpr std::size_t shortest_packed = 64;
// LZ4 cannot expand a byte to more than this many.
constexpr std::size_t largest_expansion = 255;

// The packed size, or 0 when packing does not pay. `out` has room for all but an eighth of
// `content`.
std::size_t pack(std::span<const std::byte> content, std::byte* out) {
  if (content.size() < shortest_packed || content.size() > LZ4_MAX_INPUT_SIZE) return 0;
  const std::size_t room = content.size() - content.size() / 8;
  thread_local std::unique_ptr<char[]> state(new char[static_cast<std::size_t>(LZ4_sizeofState())]);
  const int packed = ::LZ4_compress_fast_extState(
      state.get(), reinterpret_cast<const char*>(content.data()), reinterpret_cast<char*>(out),
      static_cast<int>(content.size()), static_cast<int>(room), 1);
  return static_cast<std::size_t>(packed);
}

}  // namespace

void write_row(row_kind kind, std::uint64_t key, std::uint64_t version,
               std::span<const std::byte> content, std::vector<std::byte>& out) {
  out.resize(row_header_size + content.size());
  std::byte* row = out.data();
  const std::size_t packed = pack(content, row + row_header_size);
  if (packed != 0) {
    out.resize(row_header_size + packed);
  } else if (!content.empty()) {
    std::memcpy(row + row_header_size, content.data(), content.size());
  }
  row[row_kind_at] = static_cast<std::byte>(kind);
  row[packing_at] = static_cast<std::byte>(packed != 0 ? 1 : 0);
  store_number<std::uint16_t>(row + unused_at, 0);
  store_number(row + length_at, static_cast<std::uint32_t>(content.size()));
  store_number(row + key_at, key);
  store_number(row + version_at, version);
  store_number<std::uint64_t>(row + checksum_at,
                              ::XXH3_64bits(row + row_kind_at, out.size() - row_kind_at));
}

framed_row read_row(row_kind kind, std::uint64_t key, std::size_t longest,
                    std::span<const std::byte> row) {
  if (row.size() < row_header_size) throw damaged_bytes("the row is too short");
  const std::byte* bytes = row.data();
  if (load_number<std::uint64_t>(bytes + checksum_at) !=
      ::XXH3_64bits(bytes + row_kind_at, row.size() - row_kind_at))
    throw damaged_bytes("the checksum does not match");
  if (bytes[row_kind_at] != static_cast<std::byte>(kind) ||
      load_number<std::uint64_t>(bytes + key_at) != key)
    throw damaged_bytes("another row is in its place");
  if (bytes[packing_at] > std::byte{1} || load_number<std::uint16_t>(bytes + unused_at) != 0)
    throw damaged_bytes("the packing is unknown");

  framed_row result{load_number<std::uint64_t>(bytes + version_at),
                    load_number<std::uint32_t>(bytes + length_at),
                    bytes[packing_at] == std::byte{1}, row.subspan(row_header_size)};
  if (result.length > longest) throw damaged_bytes("the content is too long");
  if (result.packed ? result.length > result.content.size() * largest_expansion
                    : result.length != result.content.size())
    throw damaged_bytes("the length does not fit the row");
  return result;
}

void framed_row::unpack(std::byte* into) const {
  if (!packed) {
    if (length != 0) std::memcpy(into, content.data(), length);
    return;
  }
  const int unpacked = ::LZ4_decompress_safe(
      reinterpret_cast<const char*>(content.data()), reinterpret_cast<char*>(into),
      static_cast<int>(content.size()), static_cast<int>(length));
  if (unpacked < 0 || static_cast<std::size_t>(unpacked) != length)
    throw damaged_bytes("the content cannot be unpacked");
}

byte_block framed_row::unpack() const {
  byte_block block = byte_block::of_size(length);
  unpack(block.bytes.get());
  return block;
}

}  // namespace goods
