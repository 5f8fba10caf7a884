// Pages of indexes: unpacked, searched, packed again, and searched in their packed form. The first
// byte of the input is the level.
#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/errors.h>
#include <goods/index_page.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>

#include "fuzz/fuzzer.h"

namespace {

using namespace goods;

constexpr object_id self = make_object_id(0, 0x50000);

void search(const index_page& page) {
  for (std::size_t i = 0; i < page.size(); ++i) {
    const std::string_view name = page.name(i);
    // The bound of the first page is never looked at.
    if (page.is_leaf() || i > 0) {
      fuzz::require(page.lower_bound(name) <= i);
      fuzz::require(page.upper_bound(name) > i);
    }
    if (page.is_leaf()) {
      fuzz::use(page.member(i).id());
      fuzz::use(page.target(i));
    }
  }
  fuzz::use(page.total());
}

// What is found without unpacking is what the page has.
void compare(const index_page& page, std::span<const std::byte> packed) {
  for (std::size_t i = 0; i < page.size(); ++i) {
    const auto found = index_page::find_packed(byte_reader(packed, self), page.name(i));
    const std::size_t first = page.lower_bound(page.name(i));
    fuzz::require(found && found->name == page.name(i) && found->member == page.member(first) &&
                  found->target == page.target(first));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned level = data[0] % (index_page::max_level + 1);
  const auto bytes = std::as_bytes(std::span(data + 1, size - 1));
  try {
    const auto found =
        index_page::find_packed(byte_reader(bytes, self), std::string_view("m\0n", 3));
    if (found) fuzz::require(found->name == std::string_view("m\0n", 3));
  } catch (const error_info& error) {
    fuzz::require(error.code() == error_code::corrupt_data);
  }
  try {
    index_page page(level);
    byte_reader in(bytes, self);
    page.unpack(in);
    search(page);
    byte_writer out;
    page.pack(out, self);
    index_page again(level);
    byte_reader in_again(out.bytes(), self);
    again.unpack(in_again);
    fuzz::require(in_again.at_end() && again.size() == page.size() &&
                  again.total() == page.total());
    if (page.is_leaf()) compare(page, out.bytes());
  } catch (const error_info& error) {
    fuzz::require(error.code() == error_code::corrupt_data);
  }
  return 0;
}
