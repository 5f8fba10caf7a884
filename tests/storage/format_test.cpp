// The stored form of rows and segments: docs/store-format.md.

#include <rapidcheck.h>
#include <xxhash.h>

#include "storage/local/byte_order.h"
#include "storage/local/segment.h"
#include "storage/storage_fixture.h"

namespace goods {
namespace {

using byte_vector = std::vector<std::byte>;

byte_block block_of(std::span<const std::byte> bytes) {
  byte_block block = byte_block::of_size(bytes.size());
  std::copy(bytes.begin(), bytes.end(), block.bytes.get());
  return block;
}

// What a segment answers for its slots.
struct slot_content {
  bool apart = false;
  class_number layout = 0;
  std::size_t length = 0;
  std::string body;
  friend bool operator==(const slot_content&, const slot_content&) = default;
};

std::map<unsigned, slot_content> contents_of(const segment& from) {
  std::map<unsigned, slot_content> all;
  for (unsigned slot = 0; slot < segment_slots; ++slot) {
    if (!from.has(slot)) continue;
    slot_content content{from.is_apart(slot), from.layout(slot), from.length(slot), {}};
    if (!content.apart) content.body = text_of(from.body(slot));
    all[slot] = content;
  }
  return all;
}

std::map<unsigned, slot_content> any_contents() {
  return *rc::gen::container<std::map<unsigned, slot_content>>(
      rc::gen::inRange(0U, segment_slots), rc::gen::exec([] {
        slot_content content;
        content.layout = *rc::gen::inRange<class_number>(1, 65535);
        content.apart = *rc::gen::inRange(0, 5) == 0;
        content.length =
            *rc::gen::inRange<std::size_t>(0, content.apart ? max_state_size : longest_in_segment);
        if (!content.apart) content.body = std::string(content.length, *rc::gen::arbitrary<char>());
        return content;
      }));
}

std::shared_ptr<const segment> build(const std::map<unsigned, slot_content>& contents,
                                     const segment* old = nullptr) {
  segment_builder builder(77, old);
  for (const auto& [slot, content] : contents) {
    if (content.apart)
      builder.put_apart(slot, content.layout, content.length);
    else
      builder.put(slot, content.layout, bytes_of(content.body));
  }
  return builder.build(5);
}

TEST(FormatTest, SegmentsComeBackFromTheirRows) {
  EXPECT_TRUE(rc::check([] {
    const auto first = any_contents(), second = any_contents();
    const auto old = build(first);
    const auto now = build(second, old.get());
    auto expected = second;
    expected.insert(first.begin(), first.end());
    RC_ASSERT(contents_of(*now) == expected);

    byte_vector row;
    write_row(row_kind::segment, 77, 5, now->content(), row);
    const framed_row framed = read_row(row_kind::segment, 77, longest_segment, row);
    RC_ASSERT(framed.version == 5U);
    RC_ASSERT(contents_of(*segment::parse(77, 5, framed.unpack())) == expected);
  }));
}

// Whatever the bytes: an answer within them, or an exception. The sanitizers look over this.
TEST(FormatTest, HostileContentIsRefusedOrHarmless) {
  EXPECT_TRUE(rc::check([] {
    const auto good = build(any_contents());
    byte_vector content(good->content().begin(), good->content().end());
    for (int changes = *rc::gen::inRange(1, 6); changes > 0; --changes) {
      constexpr std::size_t longest_directory = 16 + 8 * segment_slots;
      const auto at =
          *rc::gen::inRange<std::size_t>(0, std::min(content.size(), longest_directory));
      content[at] = static_cast<std::byte>(*rc::gen::arbitrary<std::uint8_t>());
    }
    content.resize(*rc::gen::inRange<std::size_t>(0, content.size() + 2));
    std::size_t total = 0;
    try {
      const auto hostile = segment::parse(77, 5, block_of(content));
      for (const auto& [slot, answer] : contents_of(*hostile)) {
        total += answer.body.size();
        object_state found{};
        RC_ASSERT(hostile->find(hostile->object(slot), found) != answer.apart);
      }
    } catch (const damaged_bytes&) {
      return;
    }
    RC_ASSERT(total <= content.size());
  }));
}

TEST(FormatTest, RowsThatDoNotFitAreDamage) {
  byte_vector good;
  write_row(row_kind::segment, 7, 3, bytes_of(std::string(200, 'a')), good);
  ASSERT_LT(good.size(), 100U) << "it is packed";
  const struct {
    const char* what;
    row_kind kind;
    std::uint64_t key;
    std::size_t longest;
    byte_vector row;
  } cases[] = {
      {"other kind", row_kind::piece, 7, 1000, good},
      {"other key", row_kind::segment, 8, 1000, good},
      {"longer than allowed", row_kind::segment, 7, 199, good},
      {"cut", row_kind::segment, 7, 1000, byte_vector(good.begin(), good.end() - 1)},
      {"header only", row_kind::segment, 7, 1000, byte_vector(good.begin(), good.begin() + 31)},
      {"nothing", row_kind::segment, 7, 1000, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THROW(read_row(c.kind, c.key, c.longest, c.row).unpack(), damaged_bytes);
  }
  for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
    byte_vector flipped = good;
    flipped[bit / 8] ^= static_cast<std::byte>(1 << bit % 8);
    EXPECT_THROW(read_row(row_kind::segment, 7, 1000, flipped).unpack(), damaged_bytes) << bit;
    // The same with a valid checksum: refused, or other bytes of a length that was allowed.
    store_number<std::uint64_t>(flipped.data(),
                                ::XXH3_64bits(flipped.data() + 8, flipped.size() - 8));
    try {
      EXPECT_LE(read_row(row_kind::segment, 7, 1000, flipped).unpack().size, 1000U);
    } catch (const damaged_bytes&) {
      continue;
    }
  }
}

TEST(FormatTest, VariableLengthNumbers) {
  for (std::uint64_t value :
       {0ULL, 1ULL, 127ULL, 128ULL, 16'383ULL, 16'384ULL, 1ULL << 35, ~0ULL >> 1, ~0ULL}) {
    std::byte encoded[longest_varint];
    const std::size_t size = static_cast<std::size_t>(store_varint(encoded, value) - encoded);
    EXPECT_EQ(size, varint_size(value));
    row_reader reader({encoded, size});
    EXPECT_EQ(reader.varint(), value);
    EXPECT_EQ(reader.left(), 0U);
    row_reader cut({encoded, size - 1});
    EXPECT_THROW(cut.varint(), damaged_bytes);
  }
  byte_vector too_long(10, std::byte{0xff});
  row_reader reader(too_long);
  EXPECT_THROW(reader.varint(), damaged_bytes);
}

// The worked example of docs/store-format.md.
TEST(FormatTest, TheWorkedExample) {
  segment_builder builder(1024, nullptr);
  builder.put(0, 1, bytes_of("hi"));
  builder.put_apart(2, 1, 5000);
  byte_vector row;
  write_row(row_kind::segment, 1024, 9, builder.build(9)->content(), row);
  std::string text;
  for (std::byte b : row) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned>(b));
    text += digits;
  }
  EXPECT_EQ(text,
            "51 9b c3 f7 fd 82 68 38 53 00 00 00 1e 00 00 00 00 04 00 00 00 00 00 00 "
            "09 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 "
            "02 00 00 00 01 01 00 00 88 13 00 00 68 69 ");
}

}  // namespace
}  // namespace goods
