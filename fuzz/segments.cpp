// Rows of the store and the segments in them: whatever the bytes, an answer within them or a
// complaint. The checksum, which no accident gets past, is made to fit.
#include <xxhash.h>

#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "fuzz/fuzzer.h"
#include "storage/local/byte_order.h"
#include "storage/local/row_format.h"
#include "storage/local/segment.h"

namespace {

using namespace goods;

constexpr segment_number number = 1024;

// Looks at every slot, then writes the segment anew.
void use(const segment& read, std::size_t size) {
  std::size_t total = 0;
  segment_builder builder(number, &read);
  for (unsigned slot = 0; slot < segment_slots; ++slot) {
    object_state found{};
    const bool is_inside = read.find(read.object(slot), found);
    fuzz::require(is_inside == (read.has(slot) && !read.is_apart(slot)));
    if (is_inside) total += found.body.size();
    for (const std::byte byte : found.body) fuzz::use(byte);
    if (read.has(slot) && read.is_apart(slot)) {
      fuzz::require(read.length(slot) <= max_state_size);
      builder.put_apart(slot, read.layout(slot), read.length(slot));
    }
  }
  fuzz::require(total <= size);
  const auto again = builder.build(2);
  fuzz::require(again->present() == read.present());
  for (unsigned slot = 0; slot < segment_slots; ++slot) {
    if (!read.has(slot)) continue;
    fuzz::require(again->layout(slot) == read.layout(slot));
    fuzz::require(again->length(slot) == read.length(slot));
  }
}

void parse(std::span<const std::byte> content) {
  byte_block block = byte_block::of_size(content.size());
  std::copy(content.begin(), content.end(), block.bytes.get());
  use(*segment::parse(number, 1, std::move(block)), content.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  try {
    parse(bytes);
  } catch (const damaged_bytes&) {
    fuzz::refused();
  }
  if (size < row_header_size) return 0;
  std::vector<std::byte> row(bytes.begin(), bytes.end());
  store_number<std::uint64_t>(row.data() + 16, number);
  store_number<std::uint64_t>(row.data(), ::XXH3_64bits(row.data() + 8, row.size() - 8));
  try {
    const framed_row framed = read_row(row_kind::segment, number, longest_segment, row);
    const byte_block content = framed.unpack();
    fuzz::require(content.size <= longest_segment);
    parse(content.view());
  } catch (const damaged_bytes&) {
    fuzz::refused();
  }
  return 0;
}
