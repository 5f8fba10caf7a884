// Queries: single conditions, how they are joined, and what they are evaluated against.
#include <gmock/gmock.h>
#include <tarns/select/TarnQuery.h>
#include <tarns/select/TarnSelection.h>
#include <tarns/session/TarnManager.h>

#include <limits>
#include <random>
#include <set>
#include <string>

#include "support/node_test.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using Element = TarnQueryElement;

bool Evaluate(const xcptref<Element>& element, const char* subject) {
  XString text(subject);
  return element->evaluate(text);
}

bool Holds(const char* subject, std::uint32_t op, const char* reference) {
  const TarnRef node = TarnObject::Create();
  modify(node)->setValue("s", TarnData(subject));
  return Element::Create("s", static_cast<Element::OperatorType>(op), reference)->evaluate(node);
}

TEST(QueryElementTest, ComparesWithoutRegardToCase) {
  const struct {
    const char* subject;
    const char* reference;
    const char* holds;  // a character for each operator from 0 on
  } cases[] = {
      {"abc", "ABC", "..E.GLSC"},
      {"abc", "abd", "L..N.L.."},
      {"b", "abd", ".G.NG..."},
      {"abc", "aB", ".G.NG.SC"},
      {"AB", "ab", "..E.GLSC"},
      {"cab", "ab", ".G.NG..C"},
      {"aab", "ab", "L..N.L.C"},
      {"a", "ab", "L..N.L.."},
      {"10", "9", "L..N.L.."},
      {"", "", "........"},
      {"", "x", "........"},
      {"x", "", "........"},
      {"", "*", "********"},
      {"x", "*", "********"},
      {"x*", "**", ".G.NG..."},
      {"\xC3\xA4", "\xC3\x84", ".G.NG..."},  // letters beyond ASCII keep their case
  };
  for (const auto& test : cases) {
    for (std::uint32_t op = 0; op < 8; ++op) {
      EXPECT_EQ(Holds(test.subject, op, test.reference), test.holds[op] != '.')
          << '"' << test.subject << "\" " << op << " \"" << test.reference << '"';
    }
    const bool isAnything = std::string_view(test.reference) == "*";
    EXPECT_EQ(Holds(test.subject, 8, test.reference), isAnything);
    EXPECT_EQ(Holds(test.subject, std::numeric_limits<std::uint32_t>::max(), test.reference),
              isAnything);
  }
}

// The operators with single texts against each other, each of which says it in another way.
TEST(QueryElementTest, OperatorsAgree) {
  std::mt19937 random(7);
  const auto anyText = [&] {
    std::string text(1 + random() % 4, ' ');
    for (char& c : text) c = "aAbBzZ[_0\xE4"[random() % 10];
    return text;
  };
  for (int i = 0; i < 2000; ++i) {
    const std::string s = anyText(), v = anyText();
    const auto holds = [&](std::uint32_t op) { return Holds(s.c_str(), op, v.c_str()); };
    ASSERT_EQ(holds(Element::Less) + holds(Element::Equal) + holds(Element::Greater), 1) << s << v;
    ASSERT_NE(holds(Element::Equal), holds(Element::NotEqual)) << s << v;
    ASSERT_NE(holds(Element::Less), holds(Element::GreaterOrEqual)) << s << v;
    ASSERT_NE(holds(Element::Greater), holds(Element::LessOrEqual)) << s << v;
    ASSERT_EQ(holds(Element::Equal), Holds(v.c_str(), Element::Equal, s.c_str())) << s << v;
    ASSERT_TRUE(holds(Element::Contains) || !holds(Element::StartsWith)) << s << v;
    ASSERT_TRUE(Holds((s + v).c_str(), Element::Contains, v.c_str())) << s << v;
    ASSERT_TRUE(Holds((v + s).c_str(), Element::StartsWith, v.c_str())) << s << v;
  }
}

TEST(QueryElementTest, AGivenSubjectIsComparedAsItIs) {
  EXPECT_FALSE(Evaluate(Element::Create("", Element::Equal, "abc"), "abc"));
  EXPECT_TRUE(Evaluate(Element::Create("", Element::Equal, "abc"), "ABC"));
  EXPECT_TRUE(Evaluate(Element::Create("", Element::StartsWith, "aBc"), "AbCd"));
  EXPECT_TRUE(Evaluate(Element::Create("", Element::Contains, "bc"), "aBCd"));
  EXPECT_TRUE(Evaluate(Element::Create("", Element::NotEqual, "*"), ""));
}

TEST(QueryElementTest, HasDefaults) {
  const xcptref<Element> element = Element::Create();
  EXPECT_EQ(element->getElementName(), "");
  EXPECT_EQ(element->getQueryValue(), "");
  EXPECT_EQ(element->getOperator(), Element::Less);
  EXPECT_EQ(element->getLogic(), Element::And);
  EXPECT_FALSE(element->hasExplicitValue());
  EXPECT_FALSE(element->evaluate(TarnObject::Create()));
  modify(element)->setQueryValue("value");
  EXPECT_FALSE(element->hasExplicitValue());
  modify(element)->setQueryValue("Value");
  EXPECT_TRUE(element->hasExplicitValue());
  modify(element)->setQueryValue("*");
  EXPECT_FALSE(element->evaluate(TarnObject::Create())) << "it names no subject";
}

class QueryTest : public node_test {
 protected:
  static void add(const xcptref<TarnQuery>& query, const char* value,
                  Element::LogicType logic = Element::And) {
    modify(query)->addElement(Element::Create("s", Element::Equal, value, logic));
  }
};

INSTANTIATE_NODE_TEST(QueryTest);

TEST_P(QueryTest, JoinsFromLeftToRight) {
  constexpr auto kNone = static_cast<Element::LogicType>(2);
  const struct {
    std::vector<std::pair<bool, Element::LogicType>> elements;
    bool expected;
  } cases[] = {
      {{}, false},
      {{{true, Element::Or}}, true},
      {{{false, Element::Or}}, false},
      {{{true, Element::Or}, {false, Element::And}, {true, Element::And}}, true},
      {{{true, Element::Or}, {true, Element::And}, {false, Element::Or}}, false},
      {{{false, Element::And}, {true, Element::Or}, {true, Element::And}}, true},
      {{{true, kNone}, {false, Element::And}}, true},
      {{{false, kNone}, {true, Element::And}}, false},
      {{{true, kNone}, {false, Element::And}, {false, Element::And}}, false},
  };
  const TarnRef node = node_test::add("node");
  modify(node)->setValue("s", "yes");
  for (const auto& test : cases) {
    const xcptref<TarnQuery> query = TarnQuery::Create();
    for (const auto& [holds, logic] : test.elements) add(query, holds ? "yes" : "no", logic);
    modify(root())->setNode("query", query);
    EXPECT_EQ(query->evaluate(node), test.expected) << &test - cases;
    XString subject("YES");
    EXPECT_EQ(query->evaluate(subject), test.expected) << &test - cases;
  }
}

TEST_P(QueryTest, KeepsItsElementsInTheTree) {
  const xcptref<TarnQuery> made = TarnQuery::Create();
  modify(root())->addChild("query", made);
  for (int i = 0; i < 12; ++i) add(made, std::to_string(i).c_str());
  reload();
  const xcptref<TarnQuery> query(root()->getChildWithName("query"));
  EXPECT_EQ(query->getUint32("Count"), 12U);
  for (unsigned long i = 0; i < 12; ++i) {
    EXPECT_EQ(query->getElement(i)->getQueryValue(), std::to_string(i).c_str());
  }
  EXPECT_TRUE(query->getElement(12).is_null());
  EXPECT_EQ(root()->getXString("query~Elem_10~Value"), "10");
  // What Count does not reach is evaluated, and what is missing ends the query.
  modify(query)->setValue("Count", 3U);
  EXPECT_TRUE(query->getElement(3).is_null());
  modify(query)->deleteChild("Elem_1");
  EXPECT_TRUE(query->getElement(1).is_null());
  modify(root())->setValue("s", "0");
  EXPECT_TRUE(query->evaluate(root()));
}

TEST_P(QueryTest, GivesValuesUpToTheFirstThatHasOne) {
  const xcptref<TarnQuery> query = TarnQuery::Create();
  modify(root())->addChild("query", query);
  for (const char* value : {"value", "value", "X", "value"}) add(query, value);
  modify(query)->setAllQueryValues("given");
  std::vector<std::string> values;
  for (unsigned long i = 0; i < 4; ++i) {
    values.emplace_back(query->getElement(i)->getQueryValue().view());
  }
  EXPECT_THAT(values, ElementsAre("given", "given", "X", "value"));
}

class QuerySessionTest : public session_test {
 protected:
  // Children c0, c1, ... whose values "v" run through 0 to 9, and "t" through three words.
  TarnRef makeChildren(int count) {
    manager().transaction([&] {
      for (int i = 0; i < count; ++i) {
        const std::string child = "parent~c" + std::to_string(i);
        manager().set(child + "~v", i % 10);
        if (i % 7 != 0) manager().set(child + "~in~t", i % 3 == 0 ? "Red" : "green");
      }
    });
    return manager().getObject("parent");
  }
  static xcptref<TarnQuery> Both() {
    xcptref<TarnQuery> query = TarnQuery::Create();
    modify(query)->addElement(Element::Create("v", Element::Less, "3"));
    modify(query)->addElement(Element::Create("in~t", Element::Contains, "RE", Element::Or));
    modify(query)->addElement(Element::Create("none", Element::NotEqual, "x"));
    return query;
  }
};

std::vector<std::string> NamesIn(TarnSelection& selection) {
  std::vector<std::string> names;
  for (const auto& [name, child] : selection) names.push_back(name);
  return names;
}

TEST_F(QuerySessionTest, ASelectionFindsWhatEvaluationSays) {
  const TarnRef parent = makeChildren(2000);
  const xcptref<TarnQuery> query = Both();
  std::vector<std::string> expected;
  for (const auto& [name, child] : parent->children()) {
    if (query->evaluate(child)) expected.push_back(name);
  }
  ASSERT_GT(expected.size(), 300U);
  TarnSelection all(parent, query);
  EXPECT_EQ(NamesIn(all), expected);
  EXPECT_TRUE(all.isAtEnd());
  EXPECT_EQ(all.getNumLooked(), 2000U);
  EXPECT_EQ(all.getLastName(), "c999");

  // In pages, each resumed behind the last name of the one before.
  std::vector<std::string> paged;
  std::string behind;
  for (bool isAtEnd = false; !isAtEnd;) {
    TarnSelection page(parent, query);
    page.limitTo(70);
    if (!behind.empty()) page.startBehind(behind);
    const std::vector<std::string> names = NamesIn(page);
    EXPECT_TRUE(names.size() == 70 || page.isAtEnd());
    paged.insert(paged.end(), names.begin(), names.end());
    behind = page.getLastName();
    isAtEnd = page.isAtEnd();
  }
  EXPECT_EQ(paged, expected);
}

TEST_F(QuerySessionTest, ASelectionGoesOnWhileItsChildrenChange) {
  const TarnRef parent = makeChildren(TarnSelection::kBatchSize + 50);
  for (int i = 0; i < 3; ++i) modify(parent)->addChild("same", TarnObject::Create());
  const xcptref<TarnQuery> all = TarnQuery::Create();
  modify(all)->addElement(Element::Create("v", Element::Equal, "*"));
  TarnSelection selection(parent, all);
  std::size_t met = 0, same = 0;
  for (const auto& [name, child] : selection) {
    ++met;
    same += name == "same" ? 1 : 0;
    modify(parent)->deleteChild(child);
  }
  EXPECT_EQ(met, TarnSelection::kBatchSize + 53);
  EXPECT_EQ(same, 3U);
  EXPECT_EQ(parent->getNumAbstractChildren(), 0U);
  TarnSelection nothing(parent, all);
  EXPECT_TRUE(NamesIn(nothing).empty());
  TarnSelection childless(TarnObject::Create(), all);
  EXPECT_TRUE(NamesIn(childless).empty());
}

// Whoever goes on behind the last name misses nothing, wherever the loop was left.
TEST_F(QuerySessionTest, ASelectionIsResumedBehindItsLastName) {
  const TarnRef parent = makeChildren(5);
  for (int i = 0; i < 3; ++i) modify(parent)->addChild("c3", TarnObject::Create());
  const xcptref<TarnQuery> all = TarnQuery::Create();
  modify(all)->addElement(Element::Create("v", Element::Equal, "*"));
  for (const bool leavesEarly : {false, true}) {
    std::vector<std::string> met;
    std::string behind;
    for (bool isAtEnd = false; !isAtEnd;) {
      TarnSelection one(parent, all);
      if (!leavesEarly) one.limitTo(1);
      if (!behind.empty()) one.startBehind(behind);
      for (const auto& [name, child] : one) {
        met.push_back(name);
        if (leavesEarly) break;
      }
      behind = one.getLastName();
      isAtEnd = one.isAtEnd() || behind == "c4";
    }
    const std::vector<std::string> expected{"c0", "c1", "c2", "c3", "c4"};
    const auto distinct = std::set<std::string>(met.begin(), met.end());
    EXPECT_EQ(std::vector<std::string>(distinct.begin(), distinct.end()), expected);
    if (!leavesEarly) {
      EXPECT_EQ(met.size(), 8U);
    }
  }
}

TEST_F(QuerySessionTest, OrdersByAValue) {
  const TarnRef parent = makeChildren(12);
  manager().deleteBranch("parent~c4~v");
  const xcptref<TarnQuery> all = TarnQuery::Create();
  modify(all)->addElement(Element::Create("v", Element::Equal, "*"));
  const auto namesBy = [&](bool isDescending) {
    TarnSelection selection(parent, all);
    selection.startBehind("c0");
    std::string names;
    for (const TarnChild& child : selection.orderedBy("v", isDescending)) names += child.name + " ";
    return names;
  };
  EXPECT_EQ(namesBy(false), "c4 c10 c1 c11 c2 c3 c5 c6 c7 c8 c9 ");
  EXPECT_EQ(namesBy(true), "c9 c8 c7 c6 c5 c3 c2 c1 c11 c10 c4 ");
}

// Orders texts by their length.
class LengthComparator : public TarnValueComparator {
 public:
  explicit LengthComparator(TarnData* target) : TarnValueComparator("v", target), target_(target) {}

 protected:
  int compareValue(const TarnRef& node, const void* key) override {
    const auto* const other = static_cast<const TarnData*>(key);
    const std::size_t length = other != nullptr ? other->getText().size() : 0;
    TarnValueComparator::compareValue(node, key);
    return static_cast<int>(target_->getText().size()) - static_cast<int>(length);
  }

 private:
  TarnData* target_;
};

TEST_F(QuerySessionTest, TheBestAreTheFirstOfAllInOrder) {
  std::mt19937 random(5);
  const TarnRef parent = manager().getNoFail("p");
  for (int i = 0; i < 300; ++i) {
    const TarnRef child = TarnObject::Create();
    if (random() % 8 != 0) {
      const TarnData value = random() % 2 == 0 ? TarnData(int(random() % 20))
                                               : TarnData(std::string(random() % 6, 'x'));
      modify(child)->setValue("v", value);
    }
    modify(parent)->addChild(std::to_string(i % 290).c_str(), child);
  }
  const xcptref<TarnQuery> all = TarnQuery::Create();
  modify(all)->addElement(Element::Create("v", Element::Equal, "*"));
  const auto childrenOf = [](const std::vector<TarnChild>& found) {
    std::vector<TarnRef> children;
    for (const TarnChild& each : found) children.push_back(each.child);
    return children;
  };
  TarnData target;
  LengthComparator byLength(&target);
  for (const bool isDescending : {false, true}) {
    std::vector<TarnRef> sorted =
        childrenOf(TarnSelection(parent, all).orderedBy("v", isDescending));
    ASSERT_EQ(sorted.size(), 300U);
    for (const std::size_t count : {0, 1, 7, 299, 300, 1000}) {
      auto first = sorted;
      first.resize(std::min<std::size_t>(count, 300));
      TarnSelection selection(parent, all);
      EXPECT_EQ(childrenOf(selection.best(count, "v", isDescending)), first) << count;
    }
    TarnSelection selection(parent, all);
    std::vector<std::size_t> lengths;
    for (const TarnChild& each : selection.best(20, byLength, target, isDescending)) {
      lengths.push_back(each.child->getXString("v", "").view().size());
    }
    EXPECT_TRUE(isDescending ? std::ranges::is_sorted(lengths, std::greater<>())
                             : std::ranges::is_sorted(lengths));
    EXPECT_EQ(lengths.front(), isDescending ? 5U : 0U);
  }
}

TEST_F(QuerySessionTest, ReadsSubjectsOfAnyTypeFromTheRoot) {
  manager().set("machines~press~Speed", 40);
  manager().set("machines~press~Label", "Press");
  const xcptref<TarnQuery> query = TarnQuery::Create();
  modify(query)->addElement(Element::Create("machines~press~Speed", Element::Equal, "40"));
  modify(query)->addElement(Element::Create("machines~press~Label", Element::StartsWith, "pr"));
  EXPECT_TRUE(query->evaluate(manager()));
  manager().set("machines~press~Speed", 41);
  EXPECT_FALSE(query->evaluate(manager()));
  EXPECT_FALSE(Element::Create("none~such", Element::NotEqual, "x")->evaluate(manager()));
  // As text and back it is the same query.
  manager().set("query", TarnRef(query));
  const XString file = query->exportToTempFile();
  const xcptref<TarnQuery> imported(manager().importFromFile(file));
  std::remove(file);
  EXPECT_FALSE(imported->evaluate(manager()));
  manager().set("machines~press~Speed", 40);
  EXPECT_TRUE(imported->evaluate(manager()));
}

}  // namespace
}  // namespace tarns
