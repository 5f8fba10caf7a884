// Value indexes: they agree with the values after every kind of change, and what is found with them
// is what is found without.
#include <gmock/gmock.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValueIndex.h>
#include <tarns/core/TarnValues.h>
#include <tarns/select/TarnCollector.h>
#include <tarns/select/TarnQuery.h>
#include <tarns/select/TarnSelection.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnTransaction.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "select/Crate.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Element = TarnQueryElement;

xcptref<TarnQuery> QueryFor(const char* path, std::uint32_t op, const std::string& value) {
  auto query = TarnQuery::Create();
  modify(query)->addElement(
      Element::Create(path, static_cast<Element::OperatorType>(op), value.c_str()));
  return query;
}

using Found = std::vector<std::pair<std::string, TarnRef>>;

// What the query finds when it is asked about each child.
Found FindByAsking(const TarnRef& parent, const xcptref<TarnQuery>& query) {
  Found found;
  for (const auto& [name, child] : parent->children()) {
    if (query->evaluate(child)) found.emplace_back(name, child);
  }
  return found;
}

Found FindBySelection(const TarnRef& parent, const xcptref<TarnQuery>& query,
                      std::string* indexUsed = nullptr) {
  TarnSelection selection(parent, query);
  Found found;
  for (const auto& [name, child] : selection) found.emplace_back(name, child);
  if (indexUsed != nullptr) {
    indexUsed->clear();
    for (const std::string& each : selection.getIndexesUsed()) *indexUsed += each;
  }
  return found;
}

class ValueIndexTest : public session_test {
 protected:
  using session_test::session_test;
  TarnRef node(const char* path) { return manager().getObject(path); }
  // The paths of the children, of `parent`, that the query finds; it must use the index `below`.
  std::string find(const char* parent, const char* below, std::uint32_t op, const char* value) {
    std::string used, names;
    for (const auto& [name, child] :
         FindBySelection(node(parent), QueryFor(below, op, value), &used)) {
      names += name + ' ';
    }
    EXPECT_EQ(used, below);
    return names;
  }
};

// ---- any change

// Does anything to a small tree, often to the same places, and compares after every transaction.
class ValueIndexPropertyTest : public ValueIndexTest {
 protected:
  static constexpr const char* kParents[] = {"one", "two", "plain"};
  static constexpr const char* kIndexed[] = {"a", "a~b", "Count", "Inner~a"};

  unsigned any(std::size_t count) { return static_cast<unsigned>(random_() % count); }
  std::string anyName() { return std::string(1, "pqrst"[any(5)]); }
  TarnRef anyParent() { return node(kParents[any(3)]); }
  TarnRef anyChild(const TarnRef& parent) { return parent->getChildWithName(anyName().c_str()); }

  TarnData anyValue() {
    static const std::string longText(250, 'x');
    switch (any(9)) {
      case 0:
        return TarnData(std::int32_t(any(3)));
      case 1:
        return TarnData(std::uint64_t(any(3)));
      case 2:
        return TarnData(any(2) == 0 ? 1.0 : -0.0);
      case 3:
        return TarnData(any(2) == 0);
      case 4:
        return TarnData(longText + (any(2) == 0 ? "y" : "z"));
      case 5:
        return TarnData("");
      default:
        return TarnData(std::string(1, "aAbB1"[any(5)]) + (any(2) == 0 ? "" : "c"));
    }
  }

  TarnRef newChild() {
    TarnRef made = any(3) == 0 ? TarnRef(Crate::Create()) : TarnObject::Create();
    if (any(2) == 0) modify(made)->setValue(kIndexed[any(2)], anyValue());
    return made;
  }

  void change() {
    const TarnRef parent = anyParent();
    const std::string name = anyName();
    const TarnRef child = parent->getChildWithName(name.c_str());
    const std::string below = kIndexed[any(4)];
    const std::string value = name + "~" + below;
    switch (any(16)) {
      case 0:
        return modify(parent)->addChild(name.c_str(), newChild());
      case 1:
        return (void)modify(parent)->deleteChild(name.c_str());
      case 2:
        return modify(parent)->setNode(name.c_str(), newChild());
      case 3:
        if (!child.is_null() && child->hasParent()) modify(child)->setName(anyName().c_str());
        return;
      case 4:
        if (!child.is_null()) modify(anyParent())->moveChild(anyName().c_str(), child);
        return;
      case 5:  // listed twice
        if (!child.is_null()) modify(anyParent())->addChild(anyName().c_str(), child);
        return;
      case 6:
        return (void)modify(parent)->becomeParentOf(name.c_str());
      case 7:
        if (!child.is_null()) modify(anyParent())->setNode(anyName().c_str(), child->deepClone());
        return;
      case 8:  // a value, or the branch above it, goes
        if (!child.is_null()) modify(child)->deleteChild("a");
        return;
      case 9:
        if (const TarnRef branch = parent->getChildWithName((name + "~a").c_str());
            !branch.is_null()) {
          modify(branch)->deleteChildren();
        }
        return;
      case 10:  // a branch of one child becomes one of another
        if (const TarnRef branch = parent->getChildWithName((name + "~a").c_str());
            !branch.is_null() && !child.is_null()) {
          if (const TarnRef other = anyChild(parent); !other.is_null()) {
            modify(other)->moveChild("a", branch);
          }
        }
        return;
      case 11:
        if (const TarnRef leaf = parent->getChildWithName(value.c_str()); !leaf.is_null()) {
          modify(leaf)->setValue(nullptr, anyValue());
        }
        return;
      case 12:
        if (any(6) == 0) modify(parent)->deleteChildren();
        return;
      case 13:  // the value is exchanged for one of another type
        if (const TarnRef above = child; !above.is_null()) {
          modify(above)->setNode("a", TarnValue::CreateValue(anyValue()));
        }
        return;
      default:
        return modify(parent)->setValue(value.c_str(), anyValue());
    }
  }

  void compare() {
    for (const char* name : {"one", "two"}) {
      const TarnRef parent = node(name);
      ASSERT_THAT(TarnValueIndex::Check(parent), IsEmpty()) << name << '\n' << picture();
      for (const char* below : kIndexed) {
        for (std::uint32_t op = 0; op < 8; ++op) {
          const std::string text(anyValue().getText());
          const auto query = QueryFor(below, op, text);
          std::string used;
          ASSERT_EQ(FindBySelection(parent, query, &used), FindByAsking(parent, query))
              << name << ' ' << below << ' ' << op << ' ' << text << '\n'
              << picture();
          EXPECT_EQ(used, text.empty() ? "" : below);
        }
        compareCollected(parent, below);
      }
      compareJoined(parent);
    }
  }

  // Of up to four conditions, joined in any way, in pages.
  void compareJoined(const TarnRef& parent) {
    const auto query = TarnQuery::Create();
    for (unsigned i = 1 + any(4); i > 0; --i) {
      const char* const paths[] = {"a", "a~b", "Count", "Inner~a", "b", ""};
      const std::string text = any(6) == 0 ? "*" : std::string(anyValue().getText());
      modify(query)->addElement(
          Element::Create(paths[any(6)], static_cast<Element::OperatorType>(any(9)), text.c_str(),
                          static_cast<Element::LogicType>(any(3))));
    }
    const Found expected = FindByAsking(parent, query);
    ASSERT_EQ(FindBySelection(parent, query), expected) << picture();
    const std::size_t limit = 1 + any(3);
    Found paged;
    std::string behind;
    for (bool isAtEnd = false; !isAtEnd;) {
      TarnSelection page(parent, query);
      page.limitTo(limit);
      if (!behind.empty()) page.startBehind(behind);
      for (const auto& [name, child] : page) paged.emplace_back(name, child);
      behind = page.getLastName();
      isAtEnd = page.isAtEnd();
    }
    ASSERT_EQ(paged, expected) << picture();
  }

  void compareCollected(const TarnRef& parent, const char* below) {
    TarnData wanted = anyValue();
    Found expected, collected;
    for (const auto& [name, child] : parent->children()) {
      TarnData value(wanted.getType());
      if (child->get(below, value) && value.compare(wanted) == 0)
        expected.emplace_back(name, child);
    }
    const auto collector = TarnCollector::CollectChildrenWithValue(parent, below, &wanted);
    for (const auto& [name, child] : collector->children()) collected.emplace_back(name, child);
    ASSERT_EQ(collected, expected) << below << " = " << wanted.getString() << '\n' << picture();
  }

  std::mt19937 random_;
};

TEST_F(ValueIndexPropertyTest, AgreesWithTheValuesAfterEveryTransaction) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  random_.seed(seed);
  for (const char* parent : kParents) manager().set(parent, TarnObject::Create());
  for (const char* below : kIndexed) {
    ASSERT_TRUE(TarnValueIndex::Declare(node("one"), below));
    ASSERT_TRUE(TarnValueIndex::Declare(node("two"), below));
  }
  for (int round = 0; round < 400; ++round) {
    const unsigned changes = any(4) == 0 ? 1 + any(8) : 1;
    try {
      TarnTransaction transaction(manager());
      for (unsigned i = 0; i < changes; ++i) change();
      if (any(10) == 0) transaction.rollback();
    } catch (const TarnException& error) {  // a circle, a value for a node that has none
      ASSERT_LT(error.getErrorID(), 100U) << error.getError();
    }
    compare();
    if (HasFatalFailure()) return;
    if (round % 100 == 99) reopen();
  }
}

// ---- what is found

TEST_F(ValueIndexTest, FindsByEveryComparisonAndInPages) {
  constexpr int kChildren = 3000;
  manager().transaction([&] {
    for (int i = 0; i < kChildren; ++i) {
      manager().set("p~c" + std::to_string(i) + "~v", "Value" + std::to_string(i % 10));
    }
  });
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
  EXPECT_FALSE(TarnValueIndex::Declare(node("p"), "v"));
  EXPECT_THAT(TarnValueIndex::List(node("p")), ElementsAre("v"));
  EXPECT_EQ(node("p")->getNumChildren(), static_cast<unsigned long>(kChildren));
  for (std::uint32_t op = 0; op < 8; ++op) {
    const auto query = QueryFor("v", op, op == Element::Contains ? "e7" : "value7");
    const Found expected = FindByAsking(node("p"), query);
    EXPECT_EQ(FindBySelection(node("p"), query), expected) << op;
    Found paged;
    std::string behind;
    for (bool isAtEnd = false; !isAtEnd;) {
      TarnSelection page(node("p"), query);
      page.limitTo(70);
      if (!behind.empty()) page.startBehind(behind);
      const std::size_t before = paged.size();
      for (const auto& [name, child] : page) paged.emplace_back(name, child);
      EXPECT_TRUE(paged.size() - before == 70 || page.isAtEnd()) << op;
      EXPECT_THAT(page.getIndexesUsed(), ElementsAre("v"));
      behind = page.getLastName();
      isAtEnd = page.isAtEnd();
    }
    EXPECT_EQ(paged, expected) << op;
  }
}

TEST_F(ValueIndexTest, HelpsWithConditionsOneOfWhichMustHold) {
  for (int i = 0; i < 40; ++i) {
    const std::string child = "p~c" + std::to_string(i);
    manager().set(child + "~v", std::to_string(i % 4));
    manager().set(child + "~w", std::to_string(i % 3));
    manager().set(child + "~u", std::to_string(i % 5));
  }
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "u"));
  const auto condition = [](const char* path, const char* value, std::uint32_t logic) {
    return Element::Create(path, Element::Equal, value, static_cast<Element::LogicType>(logic));
  };
  struct Case {
    std::vector<xcptref<Element>> elements;
    std::vector<std::string> used;
    std::uint64_t looked;
  };
  const std::vector<std::string> v{"v"}, both{"u", "v"}, none;
  const Case cases[] = {
      {{condition("v", "1", 0), condition("w", "2", 0)}, v, 10},
      {{condition("w", "2", 0), condition("v", "1", 0)}, v, 10},
      {{condition("w", "2", 1), condition("w", "0", 0), condition("v", "1", 0)}, v, 10},
      {{condition("v", "1", 1), condition("w", "2", 0)}, none, 40},  // v or w
      {{condition("v", "1", 7), condition("w", "2", 0)}, v, 10},     // w does not count
      {{condition("v", "*", 0), condition("w", "2", 0)}, none, 40},
      {{condition("w", "2", 0)}, none, 40},
      {{condition("v", "1", 1), condition("v", "2", 1), condition("v", "1", 0)}, v, 30},
      {{condition("v", "1", 1), condition("u", "2", 0)}, both, 18},
      {{condition("v", "1", 1), condition("u", "2", 0), condition("w", "2", 0)}, both, 18},
      {{condition("v", "1", 1), condition("u", "2", 0), condition("u", "1", 0)}, {"u"}, 8},
      {{condition("w", "1", 0), condition("u", "2", 1), condition("v", "3", 0)}, both, 18},
      {{condition("w", "1", 1), condition("u", "2", 1), condition("v", "3", 0)}, none, 40},
      {{condition("v", "1", 1), condition("w", "", 0)}, v, 10},  // what is never true
      {{condition("v", "1", 0), condition("w", "", 0)}, none, 0},
  };
  for (const Case& test : cases) {
    const auto query = TarnQuery::Create();
    for (const auto& element : test.elements) modify(query)->addElement(element);
    SCOPED_TRACE(testing::Message() << "case " << &test - cases);
    TarnSelection selection(node("p"), query);
    Found found;
    for (const auto& [name, child] : selection) found.emplace_back(name, child);
    EXPECT_EQ(found, FindByAsking(node("p"), query));
    EXPECT_EQ(selection.getIndexesUsed(), test.used);
    EXPECT_EQ(selection.getNumLooked(), test.looked);
  }
}

// The index does not know yet what the transaction has changed, so it is not asked.
TEST_F(ValueIndexTest, ATransactionFindsWhatItHasChangedItself) {
  manager().set("p~c~v", "old");
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
  {
    TarnTransaction transaction(manager());
    EXPECT_EQ(find("p", "v", Element::Equal, "old"), "c ");
    manager().set("p~c~v", "new");
    EXPECT_THAT(FindBySelection(node("p"), QueryFor("v", Element::Equal, "old")), IsEmpty());
    EXPECT_THAT(FindBySelection(node("p"), QueryFor("v", Element::Equal, "new")), SizeIs(1));
    transaction.rollback();
  }
  EXPECT_EQ(find("p", "v", Element::Equal, "old"), "c ");
  EXPECT_EQ(find("p", "v", Element::Equal, "new"), "");
}

// ---- what keeps it

TEST_F(ValueIndexTest, FollowsWholeBranches) {
  for (int i = 0; i < 20; ++i) manager().set("p~c" + std::to_string(i) + "~v", i % 2);
  manager().set("q~c3~v", 1);
  manager().set("q~d~v", 1);
  manager().set("top", TarnObject::Create());
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
  manager().mergeBranch("q", "p", true);
  EXPECT_THAT(TarnValueIndex::Check(node("p")), IsEmpty());
  EXPECT_EQ(find("p", "v", Element::Equal, "1"), "c1 c11 c13 c15 c17 c19 c3 c5 c7 c9 d ");

  // As text, into an indexed node; the text itself has no index.
  const XString file = node("p")->exportToTempFile();
  const TarnRef copy = manager().importFromFile(file);
  std::remove(file);
  EXPECT_THAT(TarnValueIndex::List(copy), IsEmpty());
  EXPECT_THAT(TarnValueIndex::List(node("p")->deepClone()), IsEmpty());
  manager().transaction([&] {
    auto children = copy;
    TarnRef heir = node("p");
    modify(heir)->deleteChildren();
    modify(children)->bequeathChildren(heir);
  });
  EXPECT_THAT(TarnValueIndex::Check(node("p")), IsEmpty());
  EXPECT_EQ(find("p", "v", Element::Equal, "1"), "c1 c11 c13 c15 c17 c19 c3 c5 c7 c9 d ");

  // Moved with its index.
  modify(node("top"))->moveChild("p", node("p"));
  manager().set("top~p~c0~v", 1);
  EXPECT_THAT(TarnValueIndex::Check(node("top~p")), IsEmpty());
  EXPECT_EQ(find("top~p", "v", Element::Equal, "0"), "c10 c12 c14 c16 c18 c2 c4 c6 c8 ");
  reopen();
  EXPECT_THAT(TarnValueIndex::Check(node("top~p")), IsEmpty());
}

TEST_F(ValueIndexTest, CollectionsKeepItWhileTheyAreBalanced) {
  for (int i = 0; i < 30; ++i) manager().set("p~c" + std::to_string(i) + "~v", i % 3);
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
  for (const bool isOneTransaction : {false, true}) {
    SCOPED_TRACE(isOneTransaction);
    if (isOneTransaction) {
      manager().transaction(
          [&] { TarnCollection::Balance(manager(), manager().getRoot(), "p", nullptr); });
    } else {
      TarnCollection::Balance(manager(), manager().getRoot(), "p", nullptr);
    }
    EXPECT_THAT(TarnValueIndex::List(node("p")), ElementsAre("v"));
    EXPECT_THAT(TarnValueIndex::Check(node("p")), IsEmpty());
    EXPECT_EQ(find("p", "v", Element::Equal, "1"), "c1 c10 c13 c16 c19 c22 c25 c28 c4 c7 ");
  }
  EXPECT_TRUE(TarnValueIndex::Drop(node("p"), "v"));
  EXPECT_FALSE(TarnValueIndex::Drop(node("p"), "v"));
  EXPECT_THAT(TarnValueIndex::List(node("p")), IsEmpty());
  manager().set("p~c1~v", 2);
}

// Declared, changed and dropped in any order before the commit.
TEST_F(ValueIndexTest, IsFilledWhenItsTransactionCommits) {
  manager().set("p~c~v", "one");
  manager().set("empty", TarnObject::Create());
  manager().transaction([&] {
    manager().set("p~c~v", "two");
    ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
    ASSERT_TRUE(TarnValueIndex::Declare(node("empty"), "v"));
    ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "gone"));
    manager().set("p~c~v", "three");
    manager().set("p~d~v", "three");
    manager().set("empty~e~v", "three");
    ASSERT_TRUE(TarnValueIndex::Drop(node("p"), "gone"));
  });
  EXPECT_THAT(TarnValueIndex::Check(node("p")), IsEmpty());
  EXPECT_EQ(find("p", "v", Element::Equal, "three"), "c d ");
  EXPECT_EQ(find("empty", "v", Element::Equal, "three"), "e ");
  EXPECT_THAT(TarnValueIndex::List(node("p")), ElementsAre("v"));
}

TEST_F(ValueIndexTest, RefusesWhatCannotBeIndexed) {
  manager().set("p~c~v", 1);
  EXPECT_THAT([&] { TarnValueIndex::Declare(node("p"), ""); }, ThrowsTarn(0, HasSubstr("1 to 8")));
  EXPECT_THAT([&] { TarnValueIndex::Declare(node("p"), "1~2~3~4~5~6~7~8~9"); },
              ThrowsTarn(0, HasSubstr("1~2~3")));
  EXPECT_THAT([&] { TarnValueIndex::Declare(TarnObject::Create(), "v"); },
              ThrowsTarn(0, HasSubstr("not stored")));
  EXPECT_THAT(TarnValueIndex::List(node("p")), IsEmpty());
}

// ---- damage

TEST_F(ValueIndexTest, AWrongEntryIsFoundAndRebuilt) {
  for (int i = 0; i < 5; ++i) manager().set("a~p~c" + std::to_string(i) + "~v", i);
  ASSERT_TRUE(TarnValueIndex::Declare(node("a~p"), "v"));
  std::vector<std::string> faults;
  const auto check = [&] {
    faults.clear();
    goods::check_options options;
    options.full = true;
    options.found = [&](const goods::check_finding& fault) {
      faults.push_back(fault.path + " " + fault.text);
    };
    return manager().check(options).faults;
  };
  EXPECT_EQ(check(), 0U);
  const auto trees = node("a~p")->getChildren()->getValueIndexes();
  const auto tree =
      goods::checked_cast<goods::B_tree>(goods::to_reference(trees->find("v")->target.word()));
  const auto entry = tree->at(2);
  goods::modify(tree)->remove(
      goods::ref<goods::set_member>::trusted(goods::to_reference(entry->member.word())));
  goods::modify(tree)->insert(goods::set_member::create(node("a~p~c0"), entry->name));
  EXPECT_EQ(check(), 2U);
  EXPECT_THAT(faults, ElementsAre(HasSubstr("a~p misses \"c2\" in the index of \"v\""),
                                  HasSubstr("a~p has a wrong entry \"c2\"")));
  EXPECT_TRUE(TarnValueIndex::Rebuild(node("a~p"), "v"));
  EXPECT_EQ(check(), 0U);
  EXPECT_FALSE(TarnValueIndex::Rebuild(node("a~p"), "other"));
}

// ---- several threads and sessions

TEST_F(ValueIndexTest, ThreadsOfSeveralSessionsKeepOneIndex) {
  constexpr int kThreads = 4, kRounds = 60;
  for (int i = 0; i < 8; ++i) manager().set("p~c" + std::to_string(i) + "~v", 0);
  manager().set("q", TarnObject::Create());
  TarnManager other;  // opened before there is an index
  other.connect(configuration().c_str());
  { const TarnAttachment attachment(other); }
  ASSERT_TRUE(TarnValueIndex::Declare(node("p"), "v"));
  const auto work = [&](TarnManager& session, int seed) {
    const TarnAttachment attachment(session);
    std::mt19937 random(seed);
    for (int i = 0; i < kRounds; ++i) {
      const std::string name = "c" + std::to_string(random() % 8);
      const int value = static_cast<int>(random() % 3);
      session.transaction([&] {
        const TarnRef p = session.getObject("p"), q = session.getObject("q");
        const TarnRef child = p->getChildWithName(name.c_str());
        switch (random() % 5) {
          case 0:
            modify(p)->deleteChild(name.c_str());
            break;
          case 1:
            if (!child.is_null()) modify(q)->moveChild(name.c_str(), child);
            break;
          case 2:
            if (const TarnRef away = q->getChildWithName(name.c_str()); !away.is_null()) {
              modify(p)->moveChild(name.c_str(), away);
            }
            break;
          default:
            session.set("p~" + name + "~v", value);
        }
      });
      session.set("p~" + name + "~v", value);
    }
  };
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] { work(i % 2 == 0 ? manager() : other, i); });
  }
  threads.clear();
  EXPECT_THAT(TarnValueIndex::Check(node("p")), IsEmpty());
  for (const char* value : {"0", "1", "2"}) {
    const auto query = QueryFor("v", Element::Equal, value);
    EXPECT_EQ(FindBySelection(node("p"), query), FindByAsking(node("p"), query));
  }
}

}  // namespace
}  // namespace tarns
