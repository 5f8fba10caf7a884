#include "examples/Machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/schema/TarnMember.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

TEST(TarnMemberTest, SplitsElementNamesAtTheLastSeparator) {
  struct Case {
    const char *name, *base;
    unsigned long index;
  };
  const Case cases[] = {{"a_b_7", "a_b", 7}, {"Items_3", "Items", 3}, {"x__0", "x_", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    XString base;
    unsigned long index = 99;
    TarnMember::FromElementName(c.name, &base, &index);
    EXPECT_EQ(base, c.base);
    EXPECT_EQ(index, c.index);
    EXPECT_EQ(TarnMember::GetElementName(c.base, c.index), c.name);
    EXPECT_TRUE(TarnMember::HasElementIndex(c.name));
  }
  EXPECT_FALSE(TarnMember::HasElementIndex("Items"));
  XString base;
  TarnMember::FromElementName("a_x", &base, nullptr);
  EXPECT_EQ(base, "a");
}

TEST(TarnMemberTest, RefusesOtherNamesAndChangesNothing) {
  XString base("before");
  unsigned long index = 99;
  for (const char* name : {"_7", "a", "", "_"}) {
    EXPECT_THAT(
        [&] { TarnMember::FromElementName(name, &base, &index); },
        ThrowsTarn(0, "Could not parse the base name and index from \"" + std::string(name) +
                          "\" because the separator ('_') is missing."));
  }
  EXPECT_THAT(
      [&] { TarnMember::FromElementName("a_x", &base, &index); },
      ThrowsTarn(0,
                 "Could not parse the base name and index from \"a_x\" because the index is "
                 "not an integer."));
  for (const char* name : {"a_1,234", "a_ 1", "a_+1", "a_"}) {
    EXPECT_THAT([&] { TarnMember::FromElementName(name, &base, &index); },
                ThrowsTarn(0, HasSubstr("not an integer")))
        << name;
    EXPECT_FALSE(TarnMember::ParseIndex(name + 2).has_value());
  }
  EXPECT_EQ(base, "before");
  EXPECT_EQ(index, 99U);
  EXPECT_EQ(TarnMember::ParseIndex("-0"), 0);
  EXPECT_EQ(TarnMember::ParseIndex("007"), 7);
}

TEST(TarnMemberTest, OrdersElementNamesByBaseAndIndex) {
  struct Case {
    const char *left, *right;
    int order;
  };
  const Case cases[] = {
      {"Item_9", "Item_10", -1}, {"Item_1", "Jtem_0", -1}, {"a_b_2", "a_b_2", 0},
      {"a_b_2", "a_c_1", -1},    {"Item", "Item_1", -1},   {"Item_9", "Item", 1},
      {"\xFF", "a", 1},          {"B_1", "a_1", -1},       {"a_007", "a_7", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.left) + " against " + c.right);
    EXPECT_EQ(TarnMember::CompareElementNames(c.left, c.right), c.order);
    EXPECT_EQ(TarnMember::CompareElementNames(c.right, c.left), -c.order);
  }
  EXPECT_THAT([] { TarnMember::CompareElementNames("a_1", "a_x"); },
              ThrowsTarn(0, HasSubstr("\"a_x\" because the index is not an integer.")));
}

goods::WWWconnection RequestOf(std::string_view query) {
  goods::WWWconnection request;
  request.add_query(query);
  return request;
}

TEST(TarnMemberTest, ReadsWholeNumbersFromRequests) {
  const auto request = RequestOf("a=0&b=1&c=5&d=6&e=-1&f=x&g=&h=1,234&i=18446744073709551616&j=-0");
  const auto read = [&](const char* name) { return TarnMember::GetUintFrom(name, request, 1, 5); };
  EXPECT_EQ(read("b"), 1U);
  EXPECT_EQ(read("c"), 5U);
  for (const char* name : {"a", "d", "h", "i"}) {
    EXPECT_THAT([&] { read(name); },
                ThrowsTarn(0, "Invalid URL attribute \"" + std::string(name) +
                                  "\":  expected a positive integer in the range [1..5]."));
  }
  for (const char* name : {"e", "f", "g", "j", "missing"}) {
    EXPECT_THAT([&] { read(name); }, ThrowsTarn(0, "Invalid URL attribute \"" + std::string(name) +
                                                       "\":  expected a positive integer."));
  }
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(TarnMember::GetUintFrom("h", request, 0, kMost), 1234U);
  EXPECT_THAT([&] { TarnMember::GetUintFrom("i", request, 0, kMost); },
              ThrowsTarn(0, HasSubstr("[0..18446744073709551615]")));
}

template <class T>
void ExpectWholeRange(const char* tooLarge) {
  constexpr T kMost = std::numeric_limits<T>::max();
  T target = 7;
  TarnMember::InitializeFrom(&target, "missing", RequestOf("a=1"));
  EXPECT_EQ(target, 7U);
  TarnMember::InitializeFrom(&target, "a", RequestOf("a=" + std::to_string(kMost)));
  EXPECT_EQ(target, kMost);
  target = 7;
  const auto request = RequestOf(std::string("a=") + tooLarge);
  EXPECT_THAT([&] { TarnMember::InitializeFrom(&target, "a", request); },
              ThrowsTarn(0, HasSubstr("range [0.." + std::to_string(kMost) + "].")));
  EXPECT_EQ(target, 7U);
}

TEST(TarnMemberTest, InitializesMembersFromRequests) {
  ExpectWholeRange<unsigned char>("256");
  ExpectWholeRange<unsigned short>("65536");
  ExpectWholeRange<unsigned>("4294967296");
  ExpectWholeRange<unsigned long>("18446744073709551616");
  ExpectWholeRange<unsigned long long>("18446744073709551616");

  const auto request = RequestOf("x=2.5&bad=1e3&x_0=1.5&x_2=-3&y_1=7&s_0=-5&s_1=70000&t=a+b");
  double real = 9;
  TarnMember::InitializeFrom(&real, "missing", request);
  EXPECT_EQ(real, 9);
  TarnMember::InitializeFrom(&real, "x", request);
  EXPECT_EQ(real, 2.5);
  EXPECT_THAT([&] { TarnMember::InitializeFrom(&real, "bad", request); },
              ThrowsTarn(0, "Invalid URL attribute \"bad\":  expected a real number."));
  double reals[] = {7, 8, 9};
  TarnMember::InitializeFrom(reals, 3, "x", request);
  EXPECT_THAT(reals, testing::ElementsAre(1.5, 8, -3));
  short shorts[] = {1, 2};
  TarnMember::InitializeFrom(shorts, 2, "s", request);
  EXPECT_THAT(shorts, testing::ElementsAre(-5, 70000 - 65536));
  TarnString text("before");
  TarnMember::InitializeFrom(text, "missing", request);
  EXPECT_EQ(text.str(), "before");
  TarnMember::InitializeFrom(text, "t", request);
  EXPECT_EQ(text.str(), "a b");
}

TEST(TarnMemberTest, KeepsArraysOfWhichAnElementCannotBeRead) {
  double reals[] = {7, 8};
  EXPECT_THAT([&] { TarnMember::InitializeFrom(reals, 2, "x", RequestOf("x_0=1&x_1=z")); },
              ThrowsTarn(0, "Invalid URL attribute \"x_1\":  expected a real number."));
  EXPECT_THAT(reals, testing::ElementsAre(7, 8));
  short shorts[] = {1, 2};
  EXPECT_THAT([&] { TarnMember::InitializeFrom(shorts, 2, "x", RequestOf("x_0=1&x_1=1.5")); },
              ThrowsTarn(0, "Invalid URL attribute \"x_1\":  expected an integer."));
  EXPECT_THAT(shorts, testing::ElementsAre(1, 2));
}

TEST(TarnMemberTest, PutsValuesIntoTexts) {
  const auto replaced = [](const auto&... value) {
    XString text("#a# #a#b#a");
    TarnMember::Replace(text, "a", value...);
    return std::string(text.view());
  };
  EXPECT_EQ(replaced(true, "yes", "no"), "yes yesb#a");
  EXPECT_EQ(replaced(false, "yes", nullptr), " b#a");
  EXPECT_EQ(replaced(static_cast<unsigned char>(200)), "200 200b#a");
  EXPECT_EQ(replaced(static_cast<unsigned short>(65535), true), "65,535 65,535b#a");
  EXPECT_EQ(replaced(1234567UL, false), "1234567 1234567b#a");
  EXPECT_EQ(replaced(18446744073709551615ULL, true),
            "18,446,744,073,709,551,615 18,446,744,073,709,551,615b#a");
  EXPECT_EQ(replaced(TarnString("#a#")), "#a# #a#b#a");
  EXPECT_EQ(replaced(TarnString()), " b#a");

  struct Case {
    double value;
    unsigned short decimals;
    bool isGrouped;
    const char* text;
  };
  const Case cases[] = {
      {1234567.891, 2, true, "1,234,567.89"},
      {-1234.5, 0, true, "-1,234"},
      {-123456, 1, true, "-123,456.0"},
      {-123, 0, true, "-123"},
      {1234567.891, 3, false, "1234567.891"},
      {0.05, 1, true, "0.1"},
      {INFINITY, 2, true, "inf"},
      {-INFINITY, 0, true, "-inf"},
  };
  for (const Case& c : cases) {
    XString text("#x#");
    TarnMember::Replace(text, "x", c.value, c.decimals, c.isGrouped);
    EXPECT_EQ(text, c.text);
  }
  XString text("#x#");
  TarnMember::Replace(text, "x", -std::numeric_limits<double>::max(), 65535, true);
  EXPECT_EQ(text.getLength(), 1U + 309 + 102 + 1 + 65535);

  const double reals[] = {1, 2.25};
  text = "#x_0#/#x_1#/#x_2#";
  TarnMember::ReplaceArray(text, "x", reals, 2, 1, false);
  EXPECT_EQ(text, "1.0/2.2/#x_2#");
}

TEST(TarnMemberTest, SetsElementsWithinTheArray) {
  double array[] = {0, 0, 0};
  TarnMember::SetElement("Elem_2", 5, array, 3);
  EXPECT_THAT(array, testing::ElementsAre(0, 0, 5));
  for (const char* name : {"Elem_3", "Elem_-1", "Elem_99999999999999999999"}) {
    EXPECT_THAT([&] { TarnMember::SetElement(name, 1, array, 3); },
                ThrowsTarn(0, "Cannot set array element value: \"" + std::string(name) +
                                  "\"'s index must be in the range [0 .. 2]"));
  }
  EXPECT_THAT([&] { TarnMember::SetElement("Elem", 1, array, 3); },
              ThrowsTarn(0,
                         "Cannot set array element value:  \"Elem\" does not contain an array "
                         "index."));
  EXPECT_THAT(array, testing::ElementsAre(0, 0, 5));
}

TEST(TarnMemberTest, SaysWhichPathsChangeABranch) {
  const XStringList names{"a~b", "c", "de"};
  for (const char* branch : {"a", "a~b", "c", "de", "", static_cast<const char*>(nullptr)}) {
    EXPECT_TRUE(TarnMember::WillModifyBranch(names, branch)) << ViewOf(branch);
  }
  for (const char* branch : {"d", "a~b~c", "b", "a~", "c~"}) {
    EXPECT_FALSE(TarnMember::WillModifyBranch(names, branch)) << branch;
  }
  EXPECT_FALSE(TarnMember::WillModifyBranch(XStringList(), ""));
}

void Collect(const char* name, TarnRef node, const void* arg) {
  TarnData value;
  node->get(nullptr, value);
  auto& lines = *static_cast<std::vector<std::string>*>(const_cast<void*>(arg));
  lines.push_back(std::string(name) + " " + node->getType() + " " + value.getString() + " " +
                  std::string(node->getName().view()));
}

TEST(TarnMemberTest, HandsValuesOutAsNodes) {
  std::vector<std::string> lines;
  const auto hand = [&](auto value) {
    TarnMember::IterateValueRef(Collect, &lines, "v", value);
    std::string line = lines.back();
    lines.pop_back();
    return line;
  };
  EXPECT_EQ(hand(2.5), "v TarnDoubleValue 2.500000 v");
  EXPECT_EQ(hand(static_cast<signed char>(-1)), "v TarnSint8Value -1 v");
  EXPECT_EQ(hand(static_cast<short>(-2)), "v TarnSint16Value -2 v");
  EXPECT_EQ(hand(-3), "v TarnSint32Value -3 v");
  EXPECT_EQ(hand(-4LL), "v TarnSint64Value -4 v");
  EXPECT_EQ(hand(static_cast<unsigned char>(1)), "v TarnUint8Value 1 v");
  EXPECT_EQ(hand(static_cast<unsigned short>(2)), "v TarnUint16Value 2 v");
  EXPECT_EQ(hand(3U), "v TarnUint32Value 3 v");
  EXPECT_EQ(hand(4UL), "v TarnUint64Value 4 v");
  EXPECT_EQ(hand(TarnString("text")), "v TarnStringValue text v");

  const short shorts[] = {7, 8};
  TarnMember::IterateArray(Collect, &lines, "s", shorts, 2);
  const TarnString texts[] = {TarnString("a")};
  TarnMember::IterateArray(Collect, &lines, "t", texts, 1);
  const TarnRef node = TarnObject::Create();
  modify(node)->setValue("child", 5);
  TarnMember::IterateValueRef(Collect, &lines, node->getChildWithName("child"));
  EXPECT_THAT(lines,
              testing::ElementsAre("s_0 TarnSint16Value 7 s_0", "s_1 TarnSint16Value 8 s_1",
                                   "t_0 TarnStringValue a t_0", "child TarnSint32Value 5 child"));
}

class TarnMemberAccessTest : public node_test {};
INSTANTIATE_NODE_TEST(TarnMemberAccessTest);

TEST_P(TarnMemberAccessTest, ReadsAndWritesMembersOfNodes) {
  modify(root())->addChild("press", Machine::Create());
  const xcptref<Machine> press = root()->getChildWithName("press");
  {
    const auto body = modify(press);
    const TarnData value(1.5);
    TarnMember write(&*body, "Loads_1", value), missing(&*body, "Loads_3", value);
    EXPECT_FALSE(write.wasMemberFound());
    EXPECT_TRUE(write.access());
    EXPECT_TRUE(write.wasMemberFound());
    EXPECT_FALSE(missing.access());
  }
  EXPECT_EQ(press->getLoad(1), 1.5);
  TarnData out;
  TarnMember read(*press.read(), "Loads_1", out);
  EXPECT_TRUE(read.access());
  EXPECT_EQ(out.getDouble(), 1.5);
}

TEST_P(TarnMemberAccessTest, SetsManyValuesOrNone) {
  modify(root())->addChild("press", Machine::Create());
  modify(root())->setValue("press~On", true);
  const XStringList names{"press~Speed", "press~On", "x~y"};
  TarnMember::SetValues(root(), names, {"12", "false", "z", "more"});
  EXPECT_EQ(root()->getSint32("press~Speed"), 12);
  EXPECT_FALSE(root()->getBoolean("press~On"));
  EXPECT_EQ(root()->getXString("x~y"), "z");
  EXPECT_THAT(
      [&] {
        TarnMember::SetValues(root(), names, {"13", "true"});
      },
      ThrowsTarn(0, HasSubstr("only 2 texts are given")));
  EXPECT_THAT(
      [&] {
        TarnMember::SetValues(root(), {"x~y", ""}, {"1", "2"});
      },
      testing::Throws<TarnException>());
  if (is_stored()) {
    EXPECT_EQ(root()->getXString("x~y"), "z");
  }
}

}  // namespace
}  // namespace tarns
