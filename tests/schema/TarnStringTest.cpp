#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnData.h>
#include <tarns/schema/TarnString.h>
#include <tarns/schema/TarnStringList.h>
#include <tarns/util/Buffer.h>

#include <string>
#include <vector>

#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;

TEST(TarnStringTest, GrowsInPlaceToTwiceItsCapacityOrWhatIsNeeded) {
  TarnString text("abc");
  const TarnString same = text;  // the same String
  struct Case {
    const char* text;
    std::size_t capacity;
  };
  const Case cases[] = {{"abc", 4}, {"0123456789", 11}, {"0123456789ab", 22}, {"x", 22}, {"", 22}};
  for (const Case& c : cases) {
    text.set(c.text);
    EXPECT_EQ(text.getReference()->capacity(), c.capacity) << c.text;
    EXPECT_EQ(same.str(), c.text);
  }
  text.append("more");
  EXPECT_EQ(same.str(), "more");
  text.append(nullptr);
  text.set(nullptr);
  EXPECT_TRUE(text.isNull());
  EXPECT_EQ(same.str(), "more") << "clearing drops the reference, not the text";
  text.append("new");
  EXPECT_EQ(text.str(), "new");
}

TEST(TarnStringTest, ComparesWithItsOddities) {
  struct Case {
    TarnString left;
    const char* right;
    bool caseSensitive;
    int sign;
  };
  const TarnString null, empty("");
  const Case cases[] = {
      {null, nullptr, true, 0},  {null, "", true, 0},       {null, "a", true, -1},
      {empty, "", true, 1},      {empty, nullptr, true, 1}, {empty, "a", true, -1},
      {"abc", "abc", true, 0},   {"abc", "ABC", true, 1},   {"abc", "ABC", false, 0},
      {"abc", "ABD", false, -1}, {"ab", "abc", false, -1},  {"abc", "ab", true, 1},
      {"\xe4", "a", true, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << '"' << c.left.str() << "\" against "
                                    << (c.right != nullptr ? c.right : "null"));
    const auto order = c.left.compare(c.right, c.caseSensitive);
    EXPECT_EQ((order > 0) - (order < 0), c.sign);
  }
  EXPECT_EQ(TarnString("abc").compare("ABD", false), 'C' - 'D');
}

TEST(TarnStringTest, CopiesItsText) {
  Buffer buffer(std::string_view("before"));
  TarnString().copyTo(buffer);
  EXPECT_EQ(buffer.getCapacity(), 0U);
  TarnString("text").copyTo(buffer);
  EXPECT_STREQ(buffer.getText(), "text");
  TarnData data;
  TarnString().copyTo(data);
  EXPECT_EQ(data.getType(), TarnData::String) << "the empty text, not the empty value";
  EXPECT_STREQ(TarnData(TarnString("abc")).getString(), "abc");
  TarnString copy;
  const TarnString original("a");
  copy.copyFrom(original);
  copy.set("b");
  EXPECT_EQ(original.str(), "a");
}

TEST(TarnStringTest, VerifiesNumbers) {
  TarnString::VerifyFloat("-1,234.5");
  TarnString::VerifyInteger("-12");
  EXPECT_THAT([] { TarnString::VerifyFloat("1e5"); },
              ThrowsTarn(0,
                         "The specified value \"1e5\"does not appear to be a real number.  Real "
                         "numbers only contain the characters [`0'..`9',`-',`,',`.'].  Please "
                         "correct the value and try again."));
  EXPECT_THAT(
      [] { TarnString::VerifyInteger("1.5"); },
      ThrowsTarn(0,
                 "The specified value \"1.5\"does not appear to be an integer.  Integers "
                 "only contain the characters [`0'..`9',`-',`,'].  Please correct the value "
                 "and try again."));
}

TEST(TarnStringListTest, KeepsNamedTextsInOrder) {
  TarnStringList list;
  EXPECT_EQ(list.getCount(), 0U);
  list.insert("b", "1");
  list.insert("a", "2");
  list.insert("b", "3");
  EXPECT_EQ(list.getCount(), 3U);
  std::vector<std::string> found;
  list.iterateChildren([&](std::string_view name, const TarnString& text) {
    found.push_back(std::string(name) + text.str());
  });
  EXPECT_THAT(found, ElementsAre("a2", "b1", "b3"));
}

}  // namespace
}  // namespace tarns
