#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <tarns/core/TarnData.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "support/comma_locale.h"

namespace tarns {
namespace {

// Values of all types, the interesting ones of each more often.
rc::Gen<TarnData> AnyData() {
  return rc::gen::exec([] {
    const auto bits = *rc::gen::oneOf(
        rc::gen::arbitrary<std::uint64_t>(),
        rc::gen::map(rc::gen::inRange(-3, 4), [](int n) { return static_cast<std::uint64_t>(n); }),
        rc::gen::map(rc::gen::inRange(-3, 4), [](int n) {
          return (std::uint64_t{1} << 63) + static_cast<std::uint64_t>(n);
        }));
    switch (*rc::gen::inRange(0, 13)) {
      case 0:
        return TarnData();
      case 1:
        return TarnData(bits % 2 == 0);
      case 2:
        return TarnData(static_cast<double>(static_cast<std::int64_t>(bits)) / 4);
      case 3:
        return TarnData(static_cast<float>(static_cast<std::int64_t>(bits)) / 4);
      case 4:
        return TarnData(static_cast<std::int8_t>(bits));
      case 5:
        return TarnData(static_cast<std::int16_t>(bits));
      case 6:
        return TarnData(static_cast<std::int32_t>(bits));
      case 7:
        return TarnData(static_cast<std::int64_t>(bits));
      case 8:
        return TarnData(
            *rc::gen::container<std::string>(rc::gen::elementOf(std::string("019-.\xFF"
                                                                            "a"))));
      case 9:
        return TarnData(static_cast<std::uint8_t>(bits));
      case 10:
        return TarnData(static_cast<std::uint16_t>(bits));
      case 11:
        return TarnData(static_cast<std::uint32_t>(bits));
      default:
        return TarnData(bits);
    }
  });
}

TEST(TarnDataPropertyTest, CompareIsAntisymmetricAndExactForIntegers) {
  EXPECT_TRUE(rc::check([] {
    const TarnData left = *AnyData();
    const TarnData right = *AnyData();
    RC_ASSERT(left.compare(left) == 0);
    RC_ASSERT(left.compare(right) == -right.compare(left));
    if (left.isInteger() && right.isInteger()) {
      // Shifted by 2^63, all 64-bit integers of either sign are non-negative 65-bit ones; long
      // double holds them exactly here.
      const auto value = [](const TarnData& data) {
        return data.isSignedInteger() ? static_cast<long double>(data.getSint64())
                                      : static_cast<long double>(data.getUint64());
      };
      const int order = (value(left) > value(right)) - (value(left) < value(right));
      RC_ASSERT(left.compare(right) == order);
    }
  }));
}

TEST(TarnDataPropertyTest, ComparesTextsAndBooleans) {
  struct Case {
    TarnData left, right;
    int order;
  };
  const Case cases[] = {
      {std::uint64_t{1} << 63, static_cast<std::int64_t>(-1), 1},
      {2.5, static_cast<signed char>(2), 1},
      {"10", "9", -1},
      {"abc", 5, 1},
      {"5", 5, 0},
      {"0.500000", 0.5, 0},
      {"\xFF", "z", 1},
      {TarnData(), "", 0},
      {TarnData(), 5, -1},
      {true, 5, 0},
      {false, "FALSE", -1},
      {false, 0, 0},
      {std::nan(""), 1.0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.left.getString() << " and " << c.right.getString());
    EXPECT_EQ(c.left.compare(c.right), c.order);
    EXPECT_EQ(c.right.compare(c.left), -c.order);
    EXPECT_EQ(c.left == c.right, c.order == 0);
  }
  EXPECT_TRUE(TarnData(5) == "5");
  EXPECT_TRUE(TarnData(5) != "5.0");
}

TEST(TarnDataPropertyTest, ReadsBackItsOwnIntegers) {
  EXPECT_TRUE(rc::check([] {
    const TarnData data =
        *rc::gen::suchThat(AnyData(), [](const TarnData& any) { return any.isInteger(); });
    TarnData parsed;
    parsed.set(data.getString(), data.getType());
    RC_ASSERT(parsed.compare(data) == 0 || parsed.isBoolean());
    RC_ASSERT(parsed.getType() == data.getType() ||
              (data.getType() == TarnData::Uint8 && data.getUint8() < 2));
  }));
}

TEST(TarnDataPropertyTest, WritesRealNumbersAsPrintfDoesInTheCLocale) {
  EXPECT_TRUE(rc::check([](double number, std::uint64_t bits) {
    double any = 0;
    std::memcpy(&any, &bits, sizeof any);
    for (const double value : {number, any, std::numeric_limits<double>::max(), -any}) {
      char text[400];
      std::snprintf(text, sizeof text, "%f", value);
      RC_ASSERT(TarnData(value).getText() == std::string(text));
    }
  }));
  const comma_locale comma;
  EXPECT_STREQ(TarnData(1234.5).getString(), "1234.500000");
  EXPECT_EQ(TarnData("1234.5").getDouble(), 1234.5);
}

}  // namespace
}  // namespace tarns
