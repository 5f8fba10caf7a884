#include <gtest/gtest.h>
#include <tarns/util/Buffer.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "support/comma_locale.h"

namespace tarns {
namespace {

template <typename T>
std::string Written(T value, bool fancy = false) {
  Buffer buffer;
  buffer.setFancy(fancy);
  buffer << value;
  return std::string(buffer.view());
}

TEST(BufferTest, OwnsNothingUntilSomethingIsPutIn) {
  Buffer buffer;
  EXPECT_EQ(buffer.getText(), nullptr);
  EXPECT_EQ(buffer.getCapacity(), 0U);
  buffer << static_cast<const char*>(nullptr) << "";
  EXPECT_EQ(buffer.getText(), nullptr);
  buffer.set("");
  EXPECT_STREQ(buffer.getText(), "");
  EXPECT_EQ(buffer.getCapacity(), 1U);
}

TEST(BufferTest, CapacityIsExactAndCutsWhatDoesNotFit) {
  Buffer buffer("abcdef");
  EXPECT_EQ(buffer.getCapacity(), 7U);
  buffer.setCapacity(20);
  EXPECT_EQ(buffer.getCapacity(), 20U);
  EXPECT_STREQ(buffer.getText(), "abcdef");
  buffer.setCapacity(4);
  EXPECT_STREQ(buffer.getText(), "abc");
  EXPECT_EQ(buffer.getLength(), 3U);
  buffer.setCapacity(0);
  EXPECT_EQ(buffer.getText(), nullptr);
  EXPECT_EQ(buffer.getLength(), 0U);
}

TEST(BufferTest, AcceptsPiecesOfItself) {
  Buffer buffer("abc");
  for (int i = 0; i < 10; ++i) buffer.append(buffer.view());
  std::string model = "abc";
  for (int i = 0; i < 10; ++i) model += model;
  EXPECT_EQ(buffer.view(), model);
  buffer.set(buffer.view().substr(1, 2000));  // fits into the memory
  EXPECT_EQ(buffer.view(), model.substr(1, 2000));
  buffer.set(buffer.view().substr(1, 5));  // gets new memory
  EXPECT_EQ(buffer.view(), model.substr(2, 5));
  EXPECT_EQ(buffer.getCapacity(), 6U);
}

TEST(BufferTest, TakesHeapTexts) {
  Buffer buffer("old");
  char* text = new char[10];
  std::strcpy(text, "abc");  // NOLINT(*-insecureAPI*): ten bytes
  buffer.take(text, 10);
  EXPECT_EQ(buffer.getText(), text);
  EXPECT_EQ(buffer.view(), "abc");
  buffer << "defghi";
  EXPECT_EQ(buffer.getText(), text);
  EXPECT_STREQ(buffer.getText(), "abcdefghi");

  char* endless = new char[2]{'x', 'y'};
  buffer.take(endless, 2);
  EXPECT_STREQ(buffer.getText(), "xy");
  buffer.take(nullptr, 0);
  EXPECT_EQ(buffer.getText(), nullptr);
}

TEST(BufferTest, CopiesContentAndMovesMemory) {
  Buffer original(std::string_view("a\0b", 3));
  Buffer copy = original;
  EXPECT_EQ(copy.view(), original.view());
  EXPECT_NE(copy.getText(), original.getText());
  const char* memory = copy.getText();
  Buffer moved;
  moved = std::move(copy);
  EXPECT_EQ(moved.getText(), memory);
  Buffer& same = moved;
  moved = same;
  EXPECT_EQ(moved.view(), original.view());
  moved = Buffer();
  EXPECT_EQ(moved.getText(), nullptr);
}

TEST(BufferTest, WritesNumbersInDecimalWhateverTheLocale) {
  const comma_locale comma;
  EXPECT_EQ(Written(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(Written(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(Written(static_cast<signed char>(-5)), "-5");
  EXPECT_EQ(Written(static_cast<unsigned char>(65)), "65");
  EXPECT_EQ(Written('A'), "A");
  EXPECT_EQ(Written(7L), "7");
  EXPECT_EQ(Written(7ULL), "7");
  EXPECT_EQ(Written(true), "True");
  EXPECT_EQ(Written(1.5), "1.5");
  EXPECT_EQ(Written(0.1F), "0.1");
}

TEST(BufferTest, GroupsDigitsOnlyWhenFancy) {
  struct Case {
    std::int64_t number;
    const char* text;
  };
  const Case cases[] = {
      {0, "0"},
      {999, "999"},
      {-999, "-999"},
      {1000, "1,000"},
      {-123456, "-123,456"},
      {1234567, "1,234,567"},
      {std::numeric_limits<std::int64_t>::min(), "-9,223,372,036,854,775,808"},
  };
  for (const Case& c : cases) EXPECT_EQ(Written(c.number, true), c.text);
  EXPECT_EQ(Written(std::numeric_limits<std::uint64_t>::max(), true), "18,446,744,073,709,551,615");
}

TEST(BufferTest, EncodesBase64) {
  const std::pair<const char*, const char*> cases[] = {// RFC 4648, section 10
                                                       {"", ""},
                                                       {"f", "Zg=="},
                                                       {"fo", "Zm8="},
                                                       {"foo", "Zm9v"},
                                                       {"foob", "Zm9vYg=="},
                                                       {"fooba", "Zm9vYmE="},
                                                       {"foobar", "Zm9vYmFy"},
                                                       {"\xFF\xFE\xFD", "//79"}};
  for (const auto& [bytes, text] : cases) {
    Buffer encoded("old");
    Buffer(bytes).copyToBase64(encoded);
    EXPECT_EQ(encoded.view(), text);
  }
}

}  // namespace
}  // namespace tarns
