#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/leCompare.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include "support/comma_locale.h"

namespace tarns {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kUmax = std::numeric_limits<std::uint64_t>::max();

TEST(StringerTest, RecognisesIntegersAndRealNumbers) {
  struct Case {
    const char* text;
    bool integer, real;
  };
  const Case cases[] = {
      {nullptr, false, false},
      {"", false, false},
      {"-", false, false},
      {"0", true, true},
      {"-0", true, true},
      {"007", true, true},
      {"12345", true, true},
      {"+1", false, false},
      {"--1", false, false},
      {" 1", false, false},
      {"1 ", false, false},
      {"1x", false, false},
      {"1,234", true, true},
      {"-1,234,567", true, true},
      {"1,23", false, false},
      {"1234,567", false, false},
      {"1,2345", false, false},
      {",123", false, false},
      {"1,", false, false},
      {"1.5", false, true},
      {"-.5", false, true},
      {"5.", false, true},
      {".", false, false},
      {"-.", false, false},
      {"1.2.3", false, false},
      {"1.2,345", false, false},
      {"1,234.5", false, true},
      {"1e5", false, false},
      {"nan", false, false},
      {"inf", false, false},
      {"0x10", false, false},
      {"\xD9\xA1", false, false},
      {"99999999999999999999999999", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "null");
    EXPECT_EQ(Stringer::IsInteger(c.text), c.integer);
    EXPECT_EQ(Stringer::IsFloat(c.text), c.real);
  }
}

TEST(StringerTest, ReadsIntegers) {
  struct Case {
    const char* text;
    std::int64_t sint, checkedSint;
    std::uint64_t uint, checkedUint;
  };
  const Case cases[] = {
      {nullptr, 0, 0, 0, 0},
      {"abc", 0, 0, 0, 0},
      {"-", 0, 0, 0, 0},
      {" \t12", 12, 12, 12, 12},
      {"12 ", 12, 12, 12, 12},
      {"+5", 5, 5, 5, 5},
      {"3 (Blue)", 3, 0, 3, 0},
      {"-1", -1, -1, kUmax, 0},
      {"1,234", 1234, 1234, 1234, 1234},
      {"1,23", 1, 0, 1, 0},
      {"1,2345", 1, 0, 1, 0},
      {"9223372036854775807", kMax, kMax, 9223372036854775807U, 9223372036854775807U},
      {"9223372036854775808", kMax, 0, 9223372036854775808U, 9223372036854775808U},
      {"-9223372036854775808", kMin, kMin, 9223372036854775808U, 0},
      {"-9223372036854775809", kMin, 0, 9223372036854775808U, 0},
      {"18446744073709551615", kMax, 0, kUmax, kUmax},
      {"18446744073709551616", kMax, 0, kUmax, 0},
      {"-99999999999999999999999", kMin, 0, 9223372036854775808U, 0},
      {"00000000000000000000000000007", 7, 7, 7, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "null");
    EXPECT_EQ(Stringer::ToSint64(c.text), c.sint);
    EXPECT_EQ(Stringer::ToSint64(c.text, 2), c.checkedSint);
    EXPECT_EQ(Stringer::ToUint64(c.text), c.uint);
    EXPECT_EQ(Stringer::ToUint64(c.text, 2), c.checkedUint);
  }
}

TEST(StringerTest, ReadsBackWhatIsWritten) {
  EXPECT_TRUE(rc::check([](std::int64_t number, std::uint64_t natural, bool fancy) {
    Buffer text;
    text.setFancy(fancy);
    text << number;
    RC_ASSERT(Stringer::IsInteger(text.getText()));
    RC_ASSERT(Stringer::ToSint64(text.getText(), 2) == number);
    text.set("");
    text << natural;
    RC_ASSERT(Stringer::ToUint64(text.getText(), 2) == natural);
  }));
}

// Texts that are numbers, nearly numbers and broken in every way.
rc::Gen<std::string> NumberLike() {
  return rc::gen::container<std::string>(
      rc::gen::elementOf(std::string("0123456789019999-+.,eExXpPinfINFanAN() \t\n")));
}

TEST(StringerTest, AtolAndAtofReadWhatCReads) {
  EXPECT_TRUE(rc::check([] {
    const std::string text = *NumberLike();
    RC_ASSERT(Stringer::Atol(text.c_str()) == std::strtol(text.c_str(), nullptr, 10));
    const double expected = std::strtod(text.c_str(), nullptr);
    const double read = Stringer::Atof(text.c_str());
    RC_ASSERT(std::bit_cast<std::uint64_t>(read) == std::bit_cast<std::uint64_t>(expected));
  }));
  EXPECT_EQ(Stringer::Atol("-99999999999999999999"), kMin);
  EXPECT_EQ(Stringer::Atol("1,234"), 1);
  EXPECT_EQ(Stringer::Atof(" -0x1.8p1z"), -3.0);
  EXPECT_EQ(Stringer::Atof("1e999"), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(Stringer::Atof("nan")));
  EXPECT_EQ(Stringer::Atof(nullptr), 0.0);
}

TEST(StringerTest, IgnoresTheLocale) {
  const comma_locale comma;
  if (comma.has_c_part()) {
    ASSERT_EQ(std::strtod("1.5", nullptr), 1.0) << "the locale is not in force";
  }
  EXPECT_EQ(Stringer::Atof("1.5"), 1.5);
  EXPECT_EQ(Stringer::Atof("1,5"), 1.0);
  EXPECT_EQ(Stringer::Atol("1.234"), 1);
  EXPECT_EQ(Stringer::ToSint64("1.234"), 1);
  EXPECT_TRUE(Stringer::IsFloat("1.5"));
  EXPECT_FALSE(Stringer::IsFloat("1,5"));
  EXPECT_EQ(Stringer::CompareIgnoringCase("\xC3\xA4", "\xC3\x84"), 1);
}

TEST(StringerTest, CountsAndReplaces) {
  EXPECT_EQ(Stringer::CountChars("a~b~~", '~'), 3U);
  EXPECT_EQ(Stringer::CountChars(nullptr, '~'), 0U);
  struct Case {
    const char *text, *piece, *replacement, *result;
    std::size_t count;
  };
  const Case cases[] = {
      {"a-b-c", "-", "", "abc", 2}, {"aaaaa", "aa", "b", "bba", 2}, {"abc", "", "x", "abc", 0},
      {"", "a", "b", "", 0},        {"a", "a", "aa", "aa", 1},      {"aba", "ab", "", "a", 1},
      {"ab", "abc", "x", "ab", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Stringer::Count(c.text, c.piece), c.count);
    XString text(c.text);
    EXPECT_EQ(Stringer::Replace(text, c.piece, c.replacement), c.count);
    EXPECT_EQ(text, c.result);
  }
  Buffer self("abc");
  EXPECT_EQ(Stringer::Replace(self, self.view(), "x"), 1U);
  EXPECT_STREQ(self.getText(), "x");
}

TEST(StringerTest, ParsesAttributeValuesAndMakesTextsSafe) {
  struct Case {
    const char *text, *token, *rest;
  };
  const Case cases[] = {
      {"a~b c", "a~b", " c"},     {"\"a b\"c", "a b", "c"}, {"'a\"b'", "a\"b", ""},
      {"a~b\">", "a~b", "\">"},   {"\"open", "open", ""},   {"", "", ""},
      {"x#y<br>", "x#y", "<br>"},
  };
  for (const Case& c : cases) {
    XString token("old");
    EXPECT_STREQ(Stringer::ParseAttributeValueToken(c.text, token), c.rest);
    EXPECT_EQ(token, c.token);
  }
  XString text("<a href=\"x\">'&amp;");
  Stringer::MakeHTMLsafe(text);
  EXPECT_STREQ(text, "&lt;a href=&quot;x&quot;&gt;&#39;&amp;amp;");
}

TEST(leCompareTest, ComparesByValueAcrossSigns) {
  EXPECT_EQ(leCompare(-1, std::uint64_t{1} << 63), -1);
  EXPECT_EQ(leCompare(std::uint64_t{1} << 63, -1), 1);
  EXPECT_EQ(leCompare(kMax, std::uint64_t{9223372036854775807U}), 0);
  EXPECT_EQ(leCompare(2.5, 2.0), 1);
  EXPECT_EQ(leCompare(std::nan(""), 1.0), 0);
}

}  // namespace
}  // namespace tarns
