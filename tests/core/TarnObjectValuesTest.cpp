// Values and nodes by path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnValueComparator.h>

#include <string>
#include <vector>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class TarnObjectValuesTest : public node_test {
 protected:
  std::string text(const char* path) { return std::string(root()->getXString(path).view()); }
};
INSTANTIATE_NODE_TEST(TarnObjectValuesTest);

TEST_P(TarnObjectValuesTest, KeepsEveryTypeAndValue) {
  const std::string large(3'000'000, 'L');
  const std::vector<TarnData> values = {true,
                                        false,
                                        0.1,
                                        -1e300,
                                        1.5F,
                                        std::int8_t{-128},
                                        std::int16_t{-32768},
                                        std::int32_t{-2147483647},
                                        std::int64_t{-9223372036854775807},
                                        std::uint8_t{255},
                                        std::uint16_t{65535},
                                        std::uint32_t{4294967295},
                                        std::uint64_t{18446744073709551615U},
                                        "",
                                        "text",
                                        "\xff\x01\n",
                                        large};
  atomically([&] {
    for (std::size_t i = 0; i < values.size(); ++i) {
      modify(root())->setValue(("dir~v" + std::to_string(i)).c_str(), values[i]);
    }
  });
  reload();
  for (std::size_t i = 0; i < values.size(); ++i) {
    SCOPED_TRACE(i);
    const auto found = root()->valueAt("dir~v" + std::to_string(i));
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->getType(), values[i].getType());
    EXPECT_EQ(found->getText() == values[i].getText(), true);
    EXPECT_EQ(found->compare(values[i]), 0);
  }
}

TEST_P(TarnObjectValuesTest, AnswersAbsenceWithDefaultsOrAnError) {
  modify(root())->setValue("a~n", TarnData(5));
  TarnData out("before");
  for (const char* path : {"b", "a", "a~n~x", "a~m", "", "a~n~"}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(root()->get(path, out));
    EXPECT_STREQ(out.getString(), "before");
    EXPECT_EQ(root()->getSint32(path, 42), 42);
    EXPECT_EQ(root()->getXString(path, "d"), "d");
    EXPECT_FALSE(root()->willSetModify(path));
    EXPECT_THAT(
        [&] { root()->getDouble(path); },
        ThrowsTarn(7, "No value exists at the specified path \"" + std::string(path) + "\"."));
    XString text;
    EXPECT_THAT([&] { root()->copyAsStringTo(path, text); },
                ThrowsTarn(7, "The specified path \"" + std::string(path) + "\" does not exist."));
  }
  EXPECT_FALSE(root()->get("b", out, TarnData(8)));
  EXPECT_EQ(out.getSint32(), 8);
  EXPECT_TRUE(root()->willSetModify("a~n"));
  EXPECT_EQ(root()->getUint8("a~n"), 5);
  EXPECT_EQ(root()->getFloat("a~n", 1.0F), 5.0F);
  EXPECT_THAT(names_of(root()), ElementsAre("a")) << "asking creates nothing";
}

TEST_P(TarnObjectValuesTest, SetWritesOnlyWhatExists) {
  modify(root())->setValue("a~n", TarnData(std::int32_t{5}));
  root()->set("a~n", TarnData("7"));
  EXPECT_EQ(root()->valueAt("a~n")->getType(), TarnData::Sint32);
  EXPECT_EQ(text("a~n"), "7");
  root()->set("a~n", 0);
  EXPECT_EQ(text("a~n"), "0") << "a literal 0 is a number";
  root()->set("a~n", 12LL);
  EXPECT_EQ(text("a~n"), "12");
  const auto before = picture_of(root());
  struct Case {
    const char* path;
    unsigned long id;
    const char* message;
  };
  const Case cases[] = {
      {"n", 9,
       "Programmer error: set() cannot create the value for \"n\"; use setValue() instead."},
      {"x~y~z", 9,
       "Programmer error: set() cannot create the value for \"x~y~z\"; use setValue() instead."},
      {"a", 11, "Cannot store value \"1\" because TarnObject instances do not have values."},
      {"", 11, "Cannot store value \"1\" because TarnObject instances do not have values."},
      {"a~~b", 0, "Cannot add a TarnObject to \"a\" because no child name was specified."},
      {"a~", 0, "Cannot add a TarnObject to \"a\" because no child name was specified."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_THAT([&] { root()->set(c.path, TarnData(1)); }, ThrowsTarn(c.id, c.message));
    EXPECT_EQ(picture_of(root()), before);
  }
  for (const char* path : {"n", "", "a"}) {
    EXPECT_THAT([&] { root()->set(path, TarnObject::Create()); },
                ThrowsTarn(9,
                           "Programmer error: set() cannot set a node as an immediate descendant "
                           "for \"" +
                               std::string(path) + "\"; use setNode() instead."));
  }
  EXPECT_EQ(picture_of(root()), before);
}

TEST_P(TarnObjectValuesTest, SetValueMakesWhatIsMissing) {
  modify(root())->setValue("a~b~n", TarnData(std::uint16_t{1}));
  modify(root())->setValue("a~b~n", TarnData("70000"));
  modify(root())->setValue("a~b~n~below", TarnData("x"));
  modify(root())->setValue("a~c", TarnData());
  modify(root())->setValue("a~c", TarnData());
  reload();
  EXPECT_THAT(
      picture_of(root()),
      testing::ElementsAre(
          testing::Pair("", "TarnObject="), testing::Pair("a", "TarnObject="),
          testing::Pair("a~b", "TarnObject="), testing::Pair("a~b~n", "TarnUint16Value=4464"),
          testing::Pair("a~b~n~below", "TarnStringValue=x"), testing::Pair("a~c", "TarnObject=")));
  const auto before = picture_of(root());
  EXPECT_THAT([&] { modify(root())->setValue("a~b", TarnData("v")); },
              ThrowsTarn(11, HasSubstr("\"v\"")));
  EXPECT_THAT([&] { modify(root())->setValue("q~~n", TarnData("v")); },
              ThrowsTarn(0, HasSubstr("no child")));
  EXPECT_EQ(picture_of(root()), before);
}

TEST_P(TarnObjectValuesTest, PutsNodesInPlaceOfOthers) {
  const TarnRef node = TarnObject::Create();
  root()->set("x~y~node", node);
  EXPECT_EQ(path_of(node), "x~y~node");
  modify(root())->setValue("x~old~v", TarnData(1));
  modify(root())->addChild("twin", TarnValue::CreateValue(TarnData(1)));
  modify(root())->addChild("twin", TarnValue::CreateValue(TarnData(2)));
  const TarnRef old = root()->getChildWithName("x~old");
  modify(root())->setNode("x~old", node);
  EXPECT_EQ(path_of(node), "x~old");
  EXPECT_FALSE(old->hasParent());
  EXPECT_EQ(root()->getChildWithName("x~y~node"), node) << "the earlier entry stays";
  modify(root())->setNode("twin", TarnValue::CreateValue(TarnData(3)));
  EXPECT_EQ(root()->getSint32("twin"), 3) << "the path leads to the new one";
  EXPECT_EQ(root()->getChildren()->getNumWithName("twin"), 2U);
  const TarnRef value = TarnValue::CreateValue(TarnData("8"));
  modify(root())->setValue("n", TarnData(1));
  modify(root()->getChildWithName("n"))->copyFrom(value);
  EXPECT_EQ(root()->valueAt("n")->getSint32(), 8);
  EXPECT_THAT([&] { modify(root()->getChildWithName("n"))->setNode("", value); },
              ThrowsTarn(11, HasSubstr("\"TarnStringValue\"")));
  EXPECT_THAT([&] { modify(root())->setNode("m", nullptr); },
              ThrowsTarn(0, HasSubstr("NULL TarnRef")));
}

TEST_P(TarnObjectValuesTest, ReplacesTokens) {
  modify(root())->setValue("a~b", TarnData("<1> & #TarnValue:a~b"));
  modify(root())->setValue("n", TarnData(5));
  struct Case {
    const char *before, *after;
  };
  const Case cases[] = {
      {"", ""},
      {"no tokens # here", "no tokens # here"},
      {"x #TarnValue:\"n\"y", "x 5y"},
      {"#TarnValue:n #TarnValue:'n'", "5 5"},
      {"#TarnHTMLvalue:\"a~b\"", "&lt;1&gt; &amp; #TarnValue:a~b"},
      {"<#TarnValue:\"absent\">", "<>"},
      {"#TarnValue:n#TarnHTMLvalue:n #TarnHTMLvalue:n #TarnValue:n", " 5 5"},
  };
  for (const Case& c : cases) {
    XString text(c.before);
    root()->replaceTokens(text);
    EXPECT_EQ(text, c.after) << c.before;
  }
  XString none;
  root()->replaceTokens(none);
  EXPECT_EQ(none.getText(), nullptr);
}

TEST_P(TarnObjectValuesTest, AddsToValues) {
  EXPECT_EQ(TarnValue::AddToChild(root(), "n", TarnData(2)).getSint32(), 2);
  EXPECT_EQ(TarnValue::AddToChild(root(), "n", TarnData("3")).getSint32(), 5);
  EXPECT_EQ(root()->getSint32("n"), 5);
  const xcptref<TarnValue> n = root()->getChildWithName("n");
  modify(n)->subtract(TarnData(1));
  modify(n)->add(TarnData("10"));
  EXPECT_EQ(root()->getSint32("n"), 14);
  add("plain");
  EXPECT_THAT([&] { TarnValue::AddToChild(root(), "plain", TarnData(2)); },
              ThrowsTarn(11, HasSubstr("do not have values")));
}

TEST_P(TarnObjectValuesTest, ComparesNodesByValue) {
  modify(root())->setValue("a~v", TarnData(1));
  modify(root())->setValue("b~v", TarnData(2));
  add("c");
  TarnData target(2);
  TarnValueComparator comparator("v", &target);
  const TarnData key(2);
  EXPECT_EQ(TarnValueComparator("v", nullptr).compare(root()->getChildWithName("a"), nullptr), 1);
  EXPECT_LT(comparator.compare(root()->getChildWithName("a"), nullptr), 0);
  EXPECT_EQ(target.getSint32(), 1);
  EXPECT_LT(comparator.compare(root()->getChildWithName("a"), &key), 0);
  EXPECT_EQ(comparator.compare(root()->getChildWithName("b"), &key), 0);
  EXPECT_LT(comparator.compare(root()->getChildWithName("c"), &key), 0);
  EXPECT_LT(comparator.compare(nullptr, &key), 0);
  const TarnData less(1);
  EXPECT_GT(comparator.compare(root()->getChildWithName("b"), &less), 0);
}

TEST(TarnValueTest, ConvertsWhatItStores) {
  struct Case {
    TarnData made, set;
    const char* type;
    const char* text;
  };
  const Case cases[] = {
      {std::uint16_t{7}, TarnData("-1"), "TarnUint16Value", "65535"},
      {std::uint8_t{7}, TarnData("300"), "TarnUint8Value", "44"},
      {std::int8_t{1}, TarnData(128), "TarnSint8Value", "-128"},
      {true, TarnData(0.5), "TarnBooleanValue", "True"},
      {0.0, TarnData("1.5e3"), "TarnDoubleValue", "1500.000000"},
      {0.0F, TarnData(std::uint64_t{3}), "TarnFloatValue", "3.000000"},
      {"", TarnData(12), "TarnStringValue", "12"},
      {std::int64_t{0}, TarnData(), "TarnSint64Value", "1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    const TarnRef node = TarnValue::CreateValue(c.made);
    EXPECT_STREQ(node->getType(), c.type);
    EXPECT_TRUE(node->isDerivedFrom("TarnValue"));
    EXPECT_FALSE(node->hasParent());
    EXPECT_EQ(node->valueAt("")->getType(), c.made.getType());
    modify(node)->setValue(nullptr, c.set);
    TarnData out;
    EXPECT_TRUE(node->get(nullptr, out));
    EXPECT_STREQ(out.getString(), c.text);
    EXPECT_EQ(out.getType(), c.made.getType());
    EXPECT_FALSE(node->get("below", out));
  }
  EXPECT_STREQ(TarnValue::CreateValue(TarnData())->getType(), "TarnObject");
}

}  // namespace
}  // namespace tarns
