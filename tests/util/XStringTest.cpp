#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <tarns/util/MeatRack.h>
#include <tarns/util/XException.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tarns {
namespace {

TEST(XStringTest, HasNoTextUntilOneIsGiven) {
  XString string;
  EXPECT_EQ(static_cast<const char*>(string), nullptr);
  EXPECT_TRUE(string == "" && string == XString("") && string == nullptr);
  string = "abc";
  EXPECT_STREQ(string, "abc");
  EXPECT_EQ(string.getCapacity(), 4U);
  string = nullptr;
  EXPECT_EQ(string.getCapacity(), 0U);
}

TEST(XStringTest, EndsAtTheFirstNul) {
  const std::string text("ab\0cd", 5);
  EXPECT_EQ(XString(text).getLength(), 2U);
  XString string;
  string = text;
  EXPECT_TRUE(string == std::string("ab") && string < std::string_view("b"));
  string << text << '\0' << "x";
  EXPECT_EQ(string.view(), "ababx");
  Buffer buffer{std::string_view(text)};
  string.exchange(buffer);
  EXPECT_EQ(string.view(), "ab");
  EXPECT_EQ(buffer.view(), "ababx");
}

TEST(XStringTest, ComparesByBytesOrWithoutCase) {
  struct Case {
    const char *left, *right;
    int exact, folded;
  };
  const Case cases[] = {
      {"", "", 0, 0},       {"", "a", -1, -1},      {"a", "B", 1, -1},
      {"abc", "ABC", 1, 0}, {"ab", "ABC", 1, -1},   {"z", "\xC3", -1, -1},
      {"_", "a", -1, 1},    {"\xE4", "\xC4", 1, 1}, {nullptr, "", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.left != nullptr ? c.left : "null") << " and " << c.right);
    EXPECT_EQ(XString(c.left).compare(c.right), c.exact);
    EXPECT_EQ(XString(c.right).compare(c.left), -c.exact);
    EXPECT_EQ(XString(c.left).compare(c.right, false), c.folded);
    EXPECT_EQ(XString(c.right).compare(c.left, false), -c.folded);
    EXPECT_EQ(XString(c.left) < XString(c.right), c.exact < 0);
  }
}

TEST(XStringTest, TrimsBlanksAndSeparators) {
  XString line("0:  host:100 \r\n");
  EXPECT_TRUE(line.trimTo(":", 1));
  line.trim();
  EXPECT_STREQ(line, "host:100");

  struct Case {
    const char *text, *separator;
    unsigned long count;
    bool found;
    const char *behind, *before;
  };
  const Case cases[] = {
      {"a_b_c", "_", 1, true, "b_c", "a"},        {"a_b_c", "_", 2, true, "c", "a_b"},
      {"a_b_c", "_", 3, false, "a_b_c", "a_b_c"}, {"_", "_", 1, true, "", ""},
      {"a::::b", "::", 2, true, "b", "a::"},      {"abc", "", 1, false, "abc", "abc"},
      {"a_b", "_", 0, false, "a_b", "a_b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.text << ' ' << c.separator << ' ' << c.count);
    XString tail(c.text);
    EXPECT_EQ(tail.trimTo(c.separator, c.count), c.found);
    EXPECT_EQ(tail, c.behind);
    XString head(c.text);
    EXPECT_EQ(head.trimPast(c.separator, c.count), c.found);
    EXPECT_EQ(head, c.before);
  }
  XString blank(" \t ");
  blank.trim();
  EXPECT_EQ(blank, "");
}

TEST(XStringListTest, SplitsWithoutAPieceBehindTheLastSeparator) {
  struct Case {
    const char* text;
    std::vector<const char*> pieces;
  };
  const Case cases[] = {
      {"", {}},       {"\n", {""}},         {"a", {"a"}},
      {"a\n", {"a"}}, {"a\n\n", {"a", ""}}, {"\na\nbc", {"", "a", "bc"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    XStringList list{"first"};
    EXPECT_EQ(list.split(c.text, '\n'), c.pieces.size());
    ASSERT_EQ(list.getCount(), c.pieces.size() + 1);
    EXPECT_EQ(list[0], "first");
    for (std::size_t i = 0; i < c.pieces.size(); ++i) EXPECT_EQ(list[i + 1], c.pieces[i]);
  }
}

TEST(XStringListTest, JoinUndoesSplit) {
  EXPECT_TRUE(rc::check([](std::vector<std::string> words) {
    XStringList list;
    for (std::string& word : words) {
      std::erase_if(word, [](char c) { return c == ',' || c == '\0'; });
      word += 'x';
      list.addLast(word);
    }
    XStringList again;
    again.split(list.join(",").view(), ',');
    RC_ASSERT(again == list);
  }));
}

TEST(XStringListTest, KeepsAndChangesItsOrder) {
  XStringList list;
  list.addLast("b");
  list.addLast("c");
  list.addFirst("a");
  list.removeAt(1);
  EXPECT_EQ(list, (XStringList{"a", "c"}));
  EXPECT_TRUE(list.contains("c"));
  EXPECT_FALSE(list.contains("b"));
  XStringList other{"z"};
  MeatRack::trade(list, other);
  EXPECT_EQ(list, XStringList{"z"});
  EXPECT_EQ(other.getCount(), 2U);
}

TEST(XStringListTest, SortsByBytesOrByAComparison) {
  XStringList list{"b1", "\xC3", "a2", "B", "a1"};
  list.sort();
  EXPECT_EQ(list, (XStringList{"B", "a1", "a2", "b1", "\xC3"}));
  list = {"x3", "a2", "b3", "c1", "d2"};
  list.sort([](const XString** left, const XString** right) {
    return static_cast<int>((*left)->view()[1]) - (*right)->view()[1];
  });
  EXPECT_EQ(list, (XStringList{"c1", "a2", "d2", "x3", "b3"}));
}

TEST(XExceptionTest, StreamsItsMessage) {
  XException error;
  EXPECT_STREQ(error.what(), "");
  error << "at " << XString("x") << ' ' << 1 << -2L << 3UL << 4ULL << static_cast<short>(5);
  EXPECT_STREQ(error.what(), "at x 1-2345");
  const XException copy = error;
  error.setError("other");
  EXPECT_STREQ(copy.what(), "at x 1-2345");
  EXPECT_STREQ(error.getError(), "other");
}

}  // namespace
}  // namespace tarns
