#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>

#include "errors_matcher.h"

namespace goods {
namespace {

constexpr object_id stream_id = make_object_id(3, 0x12345);

TEST(ByteStreamTest, GivesNumbersBackInTheFewestBytes) {
  struct test_case {
    std::int64_t value;
    std::size_t as_signed, as_unsigned;
  };
  const test_case cases[] = {
      {0, 1, 1},
      {1, 1, 1},
      {-1, 1, 10},
      {63, 1, 1},
      {64, 2, 1},
      {127, 2, 1},
      {128, 2, 2},
      {-64, 1, 10},
      {-65, 2, 10},
      {16383, 3, 2},
      {16384, 3, 3},
      {std::numeric_limits<std::int64_t>::max(), 10, 9},
      {std::numeric_limits<std::int64_t>::min(), 10, 10},
  };
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.value);
    byte_writer out;
    out.put_signed(c.value);
    EXPECT_EQ(out.size(), c.as_signed);
    out.put_unsigned(static_cast<std::uint64_t>(c.value));
    EXPECT_EQ(out.size(), c.as_signed + c.as_unsigned);
    byte_reader in(out.bytes(), stream_id);
    EXPECT_EQ(in.get_signed(), c.value);
    EXPECT_EQ(in.get_unsigned(), static_cast<std::uint64_t>(c.value));
    EXPECT_TRUE(in.at_end());
  }
}

TEST(ByteStreamTest, GivesRealNumbersBackBitForBit) {
  struct test_case {
    double value;
    std::size_t bytes, as_float;
  };
  const double quiet = std::bit_cast<double>(std::uint64_t{0x7FF8000000001234});
  const test_case cases[] = {{0.0, 1, 1}, {-0.0, 2, 2},  {1.0, 3, 3},      {-2.5, 3, 3},
                             {0.1, 9, 5}, {1e300, 9, 3}, {INFINITY, 3, 3}, {quiet, 9, 3}};
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.value);
    byte_writer out;
    out.put_double(c.value);
    EXPECT_EQ(out.size(), c.bytes);
    const auto narrow = static_cast<float>(c.value);
    out.put_float(narrow);
    EXPECT_EQ(out.size(), c.bytes + c.as_float);
    byte_reader in(out.bytes(), stream_id);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(in.get_double()), std::bit_cast<std::uint64_t>(c.value));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(in.get_float()), std::bit_cast<std::uint32_t>(narrow));
  }
}

TEST(ByteStreamTest, StoresReferencesRelativeToTheirObject) {
  struct test_case {
    object_id target;
    std::size_t bytes;
  };
  const test_case cases[] = {
      {0, 1},                                // none
      {stream_id, 1},                        // itself
      {make_object_id(3, 0x12345 + 31), 1},  // neighbours
      {make_object_id(3, 0x12345 - 31), 1},
      {make_object_id(3, 0x12345 + 4000), 2},
      {make_object_id(3, 0x10000), 3},  // the root
      {make_object_id(3, 0xFFFFFFFF), 5},
      {make_object_id(0, 0x12345), 2},  // another storage
      {make_object_id(0xFFFF, 0xFFFFFFFF), 8},
  };
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.target);
    byte_writer out;
    out.put_reference(c.target, stream_id);
    EXPECT_EQ(out.size(), c.bytes);
    byte_reader in(out.bytes(), stream_id);
    EXPECT_EQ(in.get_reference(), c.target);
    EXPECT_TRUE(in.at_end());
  }
}

std::vector<std::uint8_t> written_reference(object_id target) {
  byte_writer out;
  out.put_reference(target, stream_id);
  std::vector<std::uint8_t> bytes;
  for (const std::byte byte : out.bytes()) bytes.push_back(static_cast<std::uint8_t>(byte));
  return bytes;
}

TEST(ByteStreamTest, RefusesWhatNoWriterWrites) {
  struct test_case {
    const char* what;
    std::vector<std::uint8_t> bytes;
    std::function<void(byte_reader&)> read;
  };
  const std::vector<std::uint8_t> endless(11, 0xFF);
  const test_case cases[] = {
      {"no byte", {}, [](byte_reader& in) { in.get_byte(); }},
      {"number cut short", {0x80}, [](byte_reader& in) { in.get_unsigned(); }},
      {"number over 64 bits", endless, [](byte_reader& in) { in.get_unsigned(); }},
      {"real of 9 bytes", {9, 1, 1, 1, 1, 1, 1, 1, 1, 1}, [](byte_reader& in) { in.get_double(); }},
      {"float of 5 bytes", {5, 1, 1, 1, 1, 1}, [](byte_reader& in) { in.get_float(); }},
      {"text longer than the state", {3, 'a', 'b'}, [](byte_reader& in) { in.get_text(); }},
      {"huge count", {0xFF, 0xFF, 0xFF, 0x7F}, [](byte_reader& in) { in.get_count(); }},
      {"reference to a layout", written_reference(make_object_id(3, 0xFFFF)),
       [](byte_reader& in) { in.get_reference(); }},
      {"reference far away", endless, [](byte_reader& in) { in.get_reference(); }},
      {"reference to storage 65536",
       {2, 0x80, 0x80, 4},
       [](byte_reader& in) { in.get_reference(); }},
  };
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.what);
    byte_reader in(std::as_bytes(std::span(c.bytes)), stream_id);
    EXPECT_EQ(code_of([&] { c.read(in); }), error_code::corrupt_data);
  }
}

}  // namespace
}  // namespace goods
