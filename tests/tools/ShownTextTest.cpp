#include <gtest/gtest.h>

#include <optional>

#include "tools/shown_text.h"
#include "tools/value_text.h"

namespace tarns {
namespace {

TEST(ShownTextTest, MeasuresAndCutsByColumns) {
  struct Case {
    const char* text;
    std::size_t width, columns;
    const char* cut;
  };
  const Case cases[] = {
      {"", 0, 0, ""},
      {"abc", 3, 3, "abc"},
      {"abcd", 4, 3, "ab…"},
      {"日本語", 6, 6, "日本語"},
      {"日本語", 6, 5, "日本…"},
      {"日本語", 6, 4, "日…"},
      {"e\u0301x", 2, 2, "e\u0301x"},
      {"abc", 3, 1, "…"},
      {"abc", 3, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(WidthOf(c.text), c.width);
    EXPECT_EQ(CutToWidth(c.text, c.columns), c.cut);
    EXPECT_LE(WidthOf(c.cut), c.columns);
  }
}

TEST(ShownTextTest, LetsNothingThroughThatActsOnATerminal) {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) text += static_cast<char>(byte);
  text += "\xC2\x9B\xE2\x80\xA8\xF0\x9F\x98\x80\xE2\x80\xAE";
  for (const unsigned char byte : Shown(text)) EXPECT_TRUE(byte >= 0x20 && byte != 0x7F);
  EXPECT_TRUE(IsUtf8(Shown(text)));
  EXPECT_EQ(Shown("a\\b\tc"), "a\\\\b\\tc");
  EXPECT_EQ(ShownInFull("a\\b\tc\n\r"), "a\\b\tc\n\\r");
  EXPECT_EQ(Shown("\xC2\x9B\xF0\x9F\x98\x80"), "\\u{9b}\xF0\x9F\x98\x80");
}

TEST(ValueTextTest, GuessesTypes) {
  struct Case {
    const char* text;
    TarnData::Type type;
  };
  const Case cases[] = {
      {"true", TarnData::Boolean},
      {"True", TarnData::String},
      {"0", TarnData::Sint64},
      {"-5", TarnData::Sint64},
      {"9223372036854775808", TarnData::Uint64},
      {"18446744073709551616", TarnData::String},
      {"007", TarnData::String},
      {"+5", TarnData::String},
      {"1.5", TarnData::Double},
      {"1e3", TarnData::Double},
      {"1.", TarnData::String},
      {".5", TarnData::String},
      {"1e999", TarnData::String},
      {"nan", TarnData::String},
      {"", TarnData::String},
      {" 1", TarnData::String},
      {"0x10", TarnData::String},
      {"-", TarnData::String},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const TarnData value = GuessValue(c.text);
    EXPECT_EQ(value.getType(), c.type);
    EXPECT_EQ(ValueOfType(ValueText(value), c.type)->compare(value), 0);
  }
}

TEST(ValueTextTest, RefusesWhatATypeCannotHold) {
  struct Case {
    const char* text;
    TarnData::Type type;
    bool isValid;
  };
  const Case cases[] = {
      {"127", TarnData::Sint8, true},   {"128", TarnData::Sint8, false},
      {"-1", TarnData::Uint64, false},  {"1.0", TarnData::Sint32, false},
      {"1e39", TarnData::Float, false}, {"inf", TarnData::Float, true},
      {"yes", TarnData::Boolean, true}, {"maybe", TarnData::Boolean, false},
      {"", TarnData::Sint64, false},    {"", TarnData::String, true},
      {"12 ", TarnData::Uint16, false}, {"65535", TarnData::Uint16, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.text << " as " << c.type);
    EXPECT_EQ(ValueOfType(c.text, c.type).has_value(), c.isValid);
  }
}

}  // namespace
}  // namespace tarns
