#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnData.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace tarns {
namespace {

constexpr std::uint64_t k2To63 = std::uint64_t{1} << 63;

TarnData Parsed(const char* text, TarnData::Type type) {
  TarnData data;
  data.set(text, type);
  return data;
}

TEST(TarnDataTest, AnEmptyValueReadsAsTrueAndOneButHasNoText) {
  TarnData emptied("abc");
  emptied.empty();
  TarnData cached(7L);
  EXPECT_STREQ(cached.getString(), "7");
  cached.empty();
  for (const TarnData& data : {TarnData(), TarnData(TarnData::None), emptied, cached}) {
    EXPECT_EQ(data.getType(), TarnData::None);
    EXPECT_STREQ(data.getString(), "");
    EXPECT_TRUE(data.getBoolean());
    EXPECT_EQ(data.getDouble(), 1.0);
    EXPECT_EQ(data.getSint64(), 1);
    EXPECT_EQ(data.getUint64(), 1U);
    EXPECT_EQ(data.compare(TarnData(true)), 0);
  }
}

TEST(TarnDataTest, NamesItsTypesInAlphabeticalOrder) {
  const char* const names[] = {"None",   "Boolean", "Double", "Float",  "Sint8",
                               "Sint16", "Sint32",  "Sint64", "String", "Uint8",
                               "Uint16", "Uint32",  "Uint64"};
  for (int number = 0; number < 13; ++number) {
    const auto type = static_cast<TarnData::Type>(number);
    EXPECT_STREQ(TarnData::GetTypeAsString(type), names[number]);
    EXPECT_EQ(TarnData::GetTypeEnum(names[number]), type);
  }
  EXPECT_STREQ(TarnData::GetTypeAsString(static_cast<TarnData::Type>(13)), "None");
  EXPECT_STREQ(TarnData::GetTypeAsString(static_cast<TarnData::Type>(-1)), "None");
  for (const char* name : {"sint8", "", "Sint", "String ", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(TarnData::GetTypeEnum(name), TarnData::None);
  }
}

TEST(TarnDataTest, TakesEveryScalarByWidthAndSign) {
  EXPECT_EQ(TarnData(true).getType(), TarnData::Boolean);
  EXPECT_EQ(TarnData(1.0).getType(), TarnData::Double);
  EXPECT_EQ(TarnData(1.0F).getType(), TarnData::Float);
  EXPECT_EQ(TarnData('a').getType(), TarnData::Sint8);
  EXPECT_EQ(TarnData(static_cast<signed char>(1)).getType(), TarnData::Sint8);
  EXPECT_EQ(TarnData(static_cast<unsigned char>(1)).getType(), TarnData::Uint8);
  EXPECT_EQ(TarnData(static_cast<short>(1)).getType(), TarnData::Sint16);
  EXPECT_EQ(TarnData(u'a').getType(), TarnData::Uint16);
  EXPECT_EQ(TarnData(1).getType(), TarnData::Sint32);
  EXPECT_EQ(TarnData(1U).getType(), TarnData::Uint32);
  EXPECT_EQ(TarnData(1L).getType(), TarnData::Sint64);
  EXPECT_EQ(TarnData(1LL).getType(), TarnData::Sint64);
  EXPECT_EQ(TarnData(1UL).getType(), TarnData::Uint64);
  EXPECT_EQ(TarnData(1ULL).getType(), TarnData::Uint64);
  for (const TarnData& data : {TarnData("abc"), TarnData(std::string("abc")),
                               TarnData(std::string_view("abc\0d", 5)), TarnData(XString("abc"))}) {
    EXPECT_EQ(data.getType(), TarnData::String);
    EXPECT_EQ(data.getText(), "abc");
  }
  TarnData none("x");
  none.set(static_cast<const char*>(nullptr));
  EXPECT_EQ(none.getType(), TarnData::String);
  EXPECT_STREQ(none.getString(), "");
}

TEST(TarnDataTest, StartsAType) {
  EXPECT_STREQ(TarnData(TarnData::String).getString(), "0");
  EXPECT_FALSE(TarnData(TarnData::Boolean).getBoolean());
  for (int number = TarnData::Double; number <= TarnData::Uint64; ++number) {
    const auto type = static_cast<TarnData::Type>(number);
    SCOPED_TRACE(TarnData::GetTypeAsString(type));
    TarnData data(type);
    // "0" is a boolean word, and those leave Uint8.
    EXPECT_EQ(data.getType(), type == TarnData::Uint8 ? TarnData::Boolean : type);
    EXPECT_EQ(data.getSint64(), 0);
    data.set("77", type);
    EXPECT_EQ(data.getSint64(), 77);
    data.zeroValue();
    EXPECT_EQ(data.getType(), type);
    EXPECT_EQ(data.getDouble(), 0.0);
  }
  TarnData text("abc");
  text.zeroValue();
  EXPECT_STREQ(text.getString(), "");
  EXPECT_EQ(text.getType(), TarnData::String);
  TarnData truth(true);
  truth.zeroValue();
  EXPECT_FALSE(truth.getBoolean());
  EXPECT_EQ(truth.getType(), TarnData::Boolean);
  TarnData none;
  none.zeroValue();
  EXPECT_EQ(none.getType(), TarnData::None);
}

TEST(TarnDataTest, ConvertsBetweenTypes) {
  struct Case {
    TarnData data;
    bool boolean;
    double real;
    std::int64_t sint;
    std::uint64_t uint;
    std::uint8_t byte;
    const char* text;
  };
  const Case cases[] = {
      {true, true, 1.0, 1, 1, 1, "True"},
      {false, false, 0.0, 0, 0, 0, "False"},
      {300, true, 300.0, 300, 300, 44, "300"},
      {-1, true, -1.0, -1, ~std::uint64_t{0}, 255, "-1"},
      {static_cast<signed char>(-128), true, -128.0, -128, ~std::uint64_t{127}, 128, "-128"},
      {k2To63, true, 9223372036854775808.0, std::numeric_limits<std::int64_t>::min(), k2To63, 0,
       "9223372036854775808"},
      {static_cast<unsigned char>(200), true, 200.0, 200, 200, 200, "200"},
      {2.9, true, 2.9, 2, 2, 2, "2.900000"},
      {-2.9, true, -2.9, -2, ~std::uint64_t{1}, 254, "-2.900000"},
      {0.5F, true, 0.5, 0, 0, 0, "0.500000"},
      {5e-8, false, 5e-8, 0, 0, 0, "0.000000"},
      {-1e-7, true, -1e-7, 0, 0, 0, "-0.000000"},
      {1e-7, true, 1e-7, 0, 0, 0, "0.000000"},
      {1e30, true, 1e30, std::numeric_limits<std::int64_t>::max(), ~std::uint64_t{0}, 255,
       "1000000000000000019884624838656.000000"},
      {1e19, true, 1e19, std::numeric_limits<std::int64_t>::max(), 10000000000000000000U, 0,
       "10000000000000000000.000000"},
      {-1e30, true, -1e30, std::numeric_limits<std::int64_t>::min(), k2To63, 0,
       "-1000000000000000019884624838656.000000"},
      {std::numeric_limits<double>::quiet_NaN(), false, 0, 0, 0, 0, "nan"},
      {"FALSE", true, 0.0, 0, 0, 0, "FALSE"},
      {"0", true, 0.0, 0, 0, 0, "0"},
      {"", false, 0.0, 0, 0, 0, ""},
      {" -12.7x", true, -12.7, -12, ~std::uint64_t{11}, 244, " -12.7x"},
      {"1,234", true, 1.0, 1234, 1234, 210, "1,234"},
      {"0x10", true, 16.0, 0, 0, 0, "0x10"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.data.getTypeAsString() << ' ' << c.text);
    EXPECT_EQ(c.data.getBoolean(), c.boolean);
    if (std::strcmp(c.text, "nan") != 0) {
      EXPECT_EQ(c.data.getDouble(), c.real);
      EXPECT_EQ(c.data.getFloat(), static_cast<float>(c.real));
    }
    EXPECT_EQ(c.data.getSint64(), c.sint);
    EXPECT_EQ(c.data.getSint16(), static_cast<std::int16_t>(c.sint));
    EXPECT_EQ(c.data.getUint64(), c.uint);
    EXPECT_EQ(c.data.getUint32(), static_cast<std::uint32_t>(c.uint));
    EXPECT_EQ(c.data.getUint8(), c.byte);
    EXPECT_STREQ(c.data.getString(), c.text);
  }
  // Rounded once: by way of a double this would be 2^62.
  EXPECT_EQ(TarnData(4611686293305294849).getFloat(), 4611686567983202304.0F);
}

TEST(TarnDataTest, ParsesTextsByType) {
  struct Case {
    const char* text;
    TarnData::Type type, resulting;
    double value;
  };
  const Case cases[] = {
      {"TRUE", TarnData::Uint8, TarnData::Boolean, 1},
      {"7", TarnData::Uint8, TarnData::Uint8, 7},
      {"1", TarnData::Uint16, TarnData::Uint16, 1},
      {"yes", TarnData::Uint64, TarnData::Uint64, 1},
      {nullptr, TarnData::Uint32, TarnData::Uint32, 0},
      {"", TarnData::Uint64, TarnData::Uint64, 0},
      {"yes", TarnData::Sint32, TarnData::Sint32, 0},
      {nullptr, TarnData::Sint64, TarnData::Sint64, 0},
      {"300", TarnData::Uint8, TarnData::Uint8, 44},
      {"-1", TarnData::Uint16, TarnData::Uint16, 65535},
      {"4294967297", TarnData::Sint32, TarnData::Sint32, 1},
      {"18446744073709551615", TarnData::Uint64, TarnData::Uint64, 18446744073709551615.0},
      {" 12abc", TarnData::Sint16, TarnData::Sint16, 12},
      {"-1.5e3x", TarnData::Double, TarnData::Double, -1500},
      {"0.1", TarnData::Float, TarnData::Float, 0.1F},
      {nullptr, TarnData::Double, TarnData::Double, 0},
      {"nIl", TarnData::Boolean, TarnData::Boolean, 0},
      {"y", TarnData::Boolean, TarnData::Boolean, 1},
      {"anything", TarnData::None, TarnData::None, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.text != nullptr ? c.text : "null") << " as "
                                    << TarnData::GetTypeAsString(c.type));
    const TarnData data = Parsed(c.text, c.type);
    EXPECT_EQ(data.getType(), c.resulting);
    EXPECT_EQ(data.getDouble(), c.value);
  }
  TarnData kept("text");
  kept.set("maybe", TarnData::Boolean);
  EXPECT_STREQ(kept.getString(), "text");
  EXPECT_EQ(kept.getType(), TarnData::String);
  kept.set("5", "Sint8");
  EXPECT_EQ(kept.getType(), TarnData::Sint8);
  kept.set("5", "sint8");
  EXPECT_EQ(kept.getType(), TarnData::None);
}

TEST(TarnDataTest, WritesNarrowValuesOverTheFirstBytesOnly) {
  TarnData data(0x12345678);
  data.set("TRUE", TarnData::Uint32);
  EXPECT_EQ(data.getUint32(), 0x12345601U);
  data.set("0", TarnData::Uint32);
  EXPECT_EQ(data.getUint32(), 0x12345600U);
  data.set("", TarnData::Uint16);
  EXPECT_EQ(data.getUint16(), 0x5600U);
  data.set(static_cast<signed char>(-1));
  data.set("T", TarnData::Uint64);
  EXPECT_EQ(data.getUint64(), 0x12345601U);
  // An empty value is its first byte, whatever the others hold.
  TarnData emptied(0x1200);
  emptied.empty();
  EXPECT_EQ(emptied.getSint64(), 1);
}

TEST(TarnDataTest, KeepsATextUntilTheValueIsSetAgain) {
  TarnData data(5);
  EXPECT_STREQ(data.getString(), "5");
  data.add(TarnData(1L));
  EXPECT_STREQ(data.getString(), "5");
  EXPECT_EQ(data.getSint32(), 6);
  data.subtract(TarnData(2));
  EXPECT_STREQ(data.getString(), "5");
  const TarnData copied = data;  // the text does not come along
  EXPECT_STREQ(copied.getString(), "4");
  data.set(data.getSint32());
  EXPECT_STREQ(data.getString(), "4");
  data.set("T", TarnData::Uint32);
  EXPECT_STREQ(data.getString(), "1");
}

TEST(TarnDataTest, AddsAndSubtractsInItsOwnType) {
  struct Case {
    TarnData left, right;
    const char *sum, *difference;
  };
  const Case cases[] = {
      {static_cast<signed char>(127), 1, "-128", "126"},
      {static_cast<unsigned char>(0), 1, "1", "255"},
      {static_cast<short>(-32768), 1, "-32767", "32767"},
      {static_cast<unsigned short>(65535), 2, "1", "65533"},
      {2147483647, 1L, "-2147483648", "2147483646"},
      {0U, 1, "1", "4294967295"},
      {std::numeric_limits<std::int64_t>::max(), 1, "-9223372036854775808", "9223372036854775806"},
      {std::uint64_t{0}, -1, "18446744073709551615", "1"},
      {2, "5", "7", "-3"},
      {2, 2.9, "4", "0"},
      {2.5, "1.25", "3.750000", "1.250000"},
      {2.5F, 1, "3.500000", "1.500000"},
      {true, false, "True", "True"},
      {true, 5, "True", "False"},
      {false, "x", "True", "False"},
      {"a-b-c", "-", "a-b-c-", "abc"},
      {"a1b", 1, "a1b1", "ab"},
      {"abc", "", "abc", "abc"},
      {TarnData(), 1, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.left.getTypeAsString() << ' ' << c.sum);
    TarnData sum = c.left;
    sum.add(c.right);
    EXPECT_STREQ(sum.getString(), c.sum);
    TarnData difference = c.left;
    difference.subtract(c.right);
    EXPECT_STREQ(difference.getString(), c.difference);
    EXPECT_EQ(sum.getType(), c.left.getType());
    EXPECT_EQ(difference.getType(), c.left.getType());
  }
  TarnData self("ab");
  self.add(self);
  EXPECT_STREQ(self.getString(), "abab");
  self.subtract(self);
  EXPECT_STREQ(self.getString(), "");
}

TEST(TarnDataTest, CopiesMovesAndTakesTexts) {
  TarnData data;
  data.copyString("abcdef", 3);
  EXPECT_STREQ(data.getString(), "abc");
  data.copyString("ab", 5);
  EXPECT_STREQ(data.getString(), "ab");
  data.copyString(nullptr, 5);
  EXPECT_STREQ(data.getString(), "");
  data.copyString("xyz", 0);
  EXPECT_STREQ(data.getString(), "");
  EXPECT_EQ(data.getType(), TarnData::String);

  char* text = new char[4]{'x', 'y', 'z', '\0'};
  data.take(text);
  EXPECT_EQ(data.getString(), text);
  TarnData moved = std::move(data);
  EXPECT_EQ(moved.getString(), text);
  TarnData& same = moved;
  moved = same;
  EXPECT_STREQ(moved.getString(), "xyz");
  moved.set(moved.getString() + 1);
  EXPECT_STREQ(moved.getString(), "yz");
  moved.set("12");
  moved.set(moved.getString(), TarnData::Sint32);
  EXPECT_EQ(moved.getSint32(), 12);
  moved = TarnData("text");
  moved = TarnData(2.5);
  EXPECT_STREQ(moved.getString(), "2.500000");
}

TEST(TarnDataTest, GroupsDigitsWhenAskedTo) {
  TarnData data(-1234567);
  data.setFancyIntegers(true);
  EXPECT_STREQ(data.getString(), "-1,234,567");
  EXPECT_EQ(TarnData(data.getString()).getSint64(), -1234567);
  const TarnData copied = data;
  EXPECT_STREQ(copied.getString(), "-1234567");
}

}  // namespace
}  // namespace tarns
