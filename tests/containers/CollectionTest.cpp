// Collections, and balancing them one thread at a time.
#include <gmock/gmock.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "support/replaced_rows.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {

// Counts how often it is touched, and throws at a chosen time.
class TouchCounter : public TarnObject {
  TARN_CLASS(TouchCounter, TarnObject)

 public:
  static inline int touched = 0;
  static inline int fails = -1;  // when it has been touched so often

  void touch() override {
    if (touched == fails) throw std::runtime_error("interrupted");
    ++touched;
  }
};
TARN_REGISTER(TouchCounter, TarnObject);

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class CollectionTest : public session_test {
 protected:
  CollectionTest() {
    TouchCounter::touched = 0;
    TouchCounter::fails = -1;
  }
  // A plain node "c" with children called 0, 1, ... of these values.
  void addPlain(int count) {
    manager().transaction([&] {
      manager().set("c");
      for (int i = 0; i < count; ++i) manager().set("c~" + std::to_string(i), i);
    });
  }
  void balance(const TarnRef& progress = nullptr) {
    TarnCollection::Balance(manager(), manager().getRoot(), "c", progress);
  }
  xcptref<TarnCollection> collection() { return xcptref<TarnCollection>(manager().getObject("c")); }
  // Names of the children in the indexes of both nodes, and how often each is there. Checks that
  // listings have the same.
  std::map<std::string, int> places() {
    std::map<std::string, int> places, listed, named;
    const auto add = [&](const goods::held_entry& entry) { return ++places[entry.name] > 0; };
    goods::B_tree::iterate(collection()->getChildren(), add);
    if (const TarnRef old = collection()->getOld(); !old.is_null()) {
      goods::B_tree::iterate(old->getChildren(), add);
    }
    std::string before;
    for (const auto& [name, child] : collection()->children()) {
      ++listed[name];
      EXPECT_LE(before, name);
      before = name;
    }
    for (const std::string& name : collection()->getChildNames({}, 100'000)) ++named[name];
    EXPECT_EQ(listed, places);
    EXPECT_EQ(named, places);
    return places;
  }
  // A balance that is interrupted after so many steps.
  void balanceSteps(int steps) {
    TouchCounter::fails = TouchCounter::touched + steps;
    EXPECT_ANY_THROW(balance(TouchCounter::Create()));
    TouchCounter::fails = -1;
  }
};

TEST(OptimalHeightTest, FollowsItsWrappingLimit) {
  struct Case {
    unsigned long children, height;
  };
  const Case cases[] = {
      {0, 0}, {1, 1}, {292, 1}, {293, 2}, {85264, 2}, {2974982400, 2}, {2974982401, 4}, {~0UL, 4},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TarnCollection::GetOptimalHeightFor(c.children), c.height) << c.children;
  }
}

TEST_F(CollectionTest, CountsChildrenAndHasAHeight) {
  manager().set("c", TarnCollection::Create());
  EXPECT_EQ(collection()->getNumChildren(), 0U);
  EXPECT_EQ(collection()->getHeight(), 0U);
  EXPECT_EQ(collection()->getOptimalHeight(), 0U);
  addPlain(292);
  EXPECT_EQ(manager().getNumChildren("c"), 292U);
  EXPECT_EQ(collection()->getHeight(), 1U);
  EXPECT_EQ(collection()->getOptimalHeight(), 1U);
  manager().set("c~one more", 1);
  EXPECT_EQ(collection()->getOptimalHeight(), 2U);
  EXPECT_EQ(collection()->getHeight(), 2U);
  manager().set("c", 12);
  EXPECT_EQ(manager().getUint32("c"), 12U) << "it is a value, too";
}

TEST_F(CollectionTest, BalancingKeepsChildrenAndTheirOrder) {
  addPlain(700);
  const TarnRef seven = manager().getObject("c~7");
  modify(manager().getObject("c"))->addChild("7", TarnValue::CreateValue(TarnData("second")));
  manager().set("d", TarnRef(TarnObject::Create()));
  modify(manager().getObject("c"))->addChild("guest", manager().getObject("d"));
  modify(manager().getRoot())->becomeParentOf("d");
  const auto progress = TouchCounter::Create();
  balance(progress);
  EXPECT_EQ(TouchCounter::touched, 1 + 702 + 1);
  ASSERT_TRUE(manager().getObject("c").isA<TarnCollection>());
  EXPECT_FALSE(collection()->isBalancing());
  EXPECT_EQ(collection()->getNumChildren(), 702U);
  EXPECT_EQ(collection()->getPageN(), 146);
  EXPECT_EQ(manager().getObject("c~7"), seven);
  EXPECT_EQ(seven->getParent(), manager().getObject("c"));
  EXPECT_EQ(manager().getObject("d")->getParentName(), XString("")) << "the root has no name";
  EXPECT_EQ(manager().getObject("c~guest"), manager().getObject("d"));
  const auto first = collection()->getIterTo("7");
  auto second = first;
  second.next(nullptr);
  EXPECT_STREQ(second.get(nullptr)->getXString(nullptr), "second");
  reopen();
  for (int i = 0; i < 700; ++i) ASSERT_EQ(manager().getSint32("c~" + std::to_string(i), -1), i);
}

TEST_F(CollectionTest, InterruptedItFindsDeletesCountsAndAddsInBothNodes) {
  addPlain(20);
  balanceSteps(6);  // the collection, and five children: 0, 1, 10, 11, 12
  ASSERT_TRUE(collection()->isBalancing());
  const std::uint64_t made = manager().getObjectID("c");
  EXPECT_EQ(collection()->getNumAbstractChildren(), 5U);
  EXPECT_EQ(collection()->getNumChildren(), 20U);
  EXPECT_EQ(manager().getSint32("c~11"), 11);
  EXPECT_EQ(manager().getSint32("c~5"), 5);
  EXPECT_EQ(manager().getSint32("c~Old~5"), 5);
  EXPECT_TRUE(manager().getObject("c~Old~11").is_null());
  manager().set("c~5", 500);  // written where it is
  EXPECT_EQ(manager().getSint32("c~Old~5"), 500);
  EXPECT_TRUE(manager().deleteBranch("c~10"));
  EXPECT_TRUE(manager().deleteBranch("c~9"));
  EXPECT_FALSE(modify(collection())->deleteChild("9"));
  manager().set("c~new", 1);
  manager().set("c~8", TarnValue::CreateValue(TarnData("exchanged")));
  EXPECT_EQ(collection()->getNumChildren(), 19U);
  EXPECT_THAT(collection()->getAllChildNames("15", 5), ElementsAre("16", "17", "18", "19", "2"));
  EXPECT_EQ(collection()->getAllChildNames("", 100).size(), 19U);
  for (const auto& [name, nodes] : places()) EXPECT_EQ(nodes, 1) << name;
  reopen();
  balance();
  EXPECT_EQ(manager().getObjectID("c"), made) << "no second collection";
  EXPECT_FALSE(collection()->isBalancing());
  EXPECT_EQ(collection()->getNumChildren(), 19U);
  EXPECT_EQ(manager().getSint32("c~5"), 500);
  EXPECT_STREQ(manager().getXString("c~8"), "exchanged");
}

// More than fit into one batch, some of one name, moved while they are listed.
TEST_F(CollectionTest, ListsEachChildOnceWhileItIsMoved) {
  constexpr int kChildren = 400, kOfOneName = 150;
  addPlain(kChildren);
  manager().transaction([&] {
    for (int i = 0; i < kOfOneName; ++i) {
      modify(manager().getObject("c"))->addChild("5", TarnObject::Create());
    }
  });
  balanceSteps(1 + 100);
  for (const int steps : {0, 50, 200, 2000}) {
    SCOPED_TRACE(testing::Message() << steps << " steps on");
    std::size_t met = 0;
    std::map<std::string, int> found;
    for (const auto& [name, child] : collection()->children()) {
      if (++met == 200 && steps < kChildren) balanceSteps(steps);
      if (met == 200 && steps > kChildren) balance();
      ++found[name];
    }
    EXPECT_EQ(met, static_cast<std::size_t>(kChildren + kOfOneName));
    EXPECT_EQ(found["5"], 1 + kOfOneName);
    EXPECT_EQ(found.size(), static_cast<std::size_t>(kChildren));
    std::vector<std::string> paged;
    while (true) {
      const auto some = manager().getChildNames("c", paged.empty() ? "" : paged.back(), 17);
      if (some.empty()) break;
      EXPECT_LE(some.size(), 17U);
      paged.insert(paged.end(), some.begin(), some.end());
    }
    EXPECT_EQ(std::set<std::string>(paged.begin(), paged.end()).size(), found.size());
  }
  EXPECT_FALSE(collection()->isBalancing());
}

// It stays where it is, and all others are moved.
TEST_F(CollectionTest, AChildThatCannotBeReadKeepsTheBalanceOpen) {
  addPlain(10);
  const auto lost = goods::number_of(manager().getObjectID("c~5"));
  close();
  goods::rewrite_segment(
      directory().file("data0/store.db"), lost,
      [&](goods::segment_builder& builder, const auto&) { builder.remove(goods::slot_of(lost)); });
  open();
  for (int call = 0; call < 2; ++call) {
    EXPECT_THAT([&] { balance(); }, ThrowsTarn(ErrorID::ObjectGone, HasSubstr("")));
    EXPECT_TRUE(collection()->isBalancing());
    EXPECT_EQ(collection()->getNumAbstractChildren(), 9U);
    EXPECT_EQ(collection()->getNumChildren(), 10U);
    for (const auto& [name, nodes] : places()) EXPECT_EQ(nodes, 1) << name;
    for (int i = 0; i < 10; ++i) {
      if (i != 5) {
        EXPECT_EQ(manager().getSint32("c~" + std::to_string(i), -1), i);
      }
    }
    reopen();
  }
}

// Every step is tried as the one that fails.
TEST_F(CollectionTest, AnInterruptionAtAnyStepLeavesEveryChildOnceAndCanBeResumed) {
  constexpr int kChildren = 6;
  for (int steps = 0; steps <= kChildren + 1; ++steps) {
    SCOPED_TRACE(testing::Message() << steps << " steps");
    manager().deleteBranch("c");
    addPlain(kChildren);
    balanceSteps(steps);
    EXPECT_EQ(manager().getObject("c").isA<TarnCollection>(), steps > 0);
    if (steps > 0) {
      const std::map<std::string, int> found = places();
      EXPECT_EQ(found.size(), static_cast<std::size_t>(kChildren));
      for (const auto& [name, nodes] : found) EXPECT_EQ(nodes, 1) << name;
      EXPECT_EQ(collection()->getNumAbstractChildren(),
                static_cast<unsigned long>(std::min(steps - 1, kChildren)));
    }
    balance();
    EXPECT_FALSE(collection()->isBalancing());
    for (int i = 0; i < kChildren; ++i) {
      EXPECT_EQ(manager().getSint32("c~" + std::to_string(i), -1), i);
    }
  }
}

TEST_F(CollectionTest, ABalancedCollectionCanBeBalancedAgain) {
  addPlain(10);
  manager().set("c~Old", "a child of that name");
  balance();
  EXPECT_STREQ(manager().getObject("c~Old")->getXString(nullptr), "a child of that name");
  manager().set("c", 77);
  const std::uint64_t first = manager().getObjectID("c");
  balance();
  EXPECT_NE(manager().getObjectID("c"), first);
  EXPECT_EQ(manager().getUint32("c"), 77U) << "the value is kept";
  EXPECT_EQ(collection()->getNumChildren(), 11U);
  EXPECT_STREQ(manager().getObject("c~Old")->getXString(nullptr), "a child of that name");
}

// All that a plain node with the same children would lose or hand over.
TEST_F(CollectionTest, InterruptedItHandsOverMergesDeletesAndCopiesWhatIsInBothNodes) {
  struct Case {
    const char* what;
    std::function<void()> work;
    const char* at;  // where the six children are afterwards; null: nowhere
  };
  const auto source = [&] { return modify(manager().getObject("c")); };
  const Case cases[] = {
      {"bequeath to one without children",
       [&] {
         TarnRef heir = TarnObject::Create();
         source()->bequeathChildren(heir);
         manager().set("heir", heir);
       },
       "heir"},
      {"bequeath to one with children",
       [&] {
         manager().set("heir~own", 1);
         TarnRef heir = manager().getObject("heir");
         source()->bequeathChildren(heir);
         EXPECT_EQ(manager().getSint32("heir~own"), 1);
       },
       "heir"},
      {"merge into another",
       [&] {
         manager().set("heir~own", 1);
         manager().mergeBranch("c", "heir", false);
       },
       "heir"},
      {"merge as the one that wins",
       [&] {
         manager().set("heir~own", 1);
         manager().mergeBranch("c", "heir", true);
       },
       "heir"},
      {"merge into it one that wins",
       [&] {
         manager().set("other", "a text");
         manager().mergeBranch("other", "c", true);
         EXPECT_STREQ(manager().getXString("c"), "a text");
       },
       "c"},
      {"merge a balancing one into another one",
       [&] {
         manager().transaction([&] {
           for (int i = 0; i < 6; ++i) manager().set("heir~" + std::to_string(10 + i), i);
         });
         TouchCounter::fails = TouchCounter::touched + 3;
         EXPECT_ANY_THROW(TarnCollection::Balance(manager(), manager().getRoot(), "heir",
                                                  TouchCounter::Create()));
         manager().mergeBranch("c", "heir", true);
         for (int i = 0; i < 6; ++i) {
           EXPECT_EQ(manager().getSint32("heir~" + std::to_string(10 + i), -1), i);
         }
       },
       "heir"},
      {"copy the branch", [&] { manager().set("heir", manager().getObject("c")->deepClone()); },
       "heir"},
      {"delete all", [&] { source()->deleteChildren(); }, nullptr},
      {"delete those of a class",
       [&] { EXPECT_EQ(source()->deleteChildrenOfType("TarnSint32Value"), 6U); }, nullptr},
      {"delete one by one",
       [&] {
         for (int i = 0; i < 6; ++i) {
           const TarnRef child = manager().getObject("c~" + std::to_string(i));
           EXPECT_TRUE(i % 2 == 0 ? source()->deleteChild(child)
                                  : source()->findAndDeleteChild(child));
           EXPECT_FALSE(source()->findAndDeleteChild(child));
         }
       },
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    for (const char* path : {"c", "heir", "other"}) manager().deleteBranch(path);
    addPlain(6);
    balanceSteps(3);
    c.work();
    for (int i = 0; i < 6; ++i) {
      const std::string name = "~" + std::to_string(i);
      if (c.at != nullptr) {
        EXPECT_EQ(manager().getSint32(c.at + name, -1), i);
      } else {
        EXPECT_TRUE(manager().getObject("c" + name).is_null());
      }
    }
    if (c.at == nullptr) {
      EXPECT_EQ(collection()->getNumChildren(), 0U);
    }
  }
}

TEST_F(CollectionTest, ACopyHasNoOldNode) {
  addPlain(6);
  balanceSteps(3);
  const xcptref<TarnCollection> copy(collection()->clone());
  EXPECT_FALSE(copy->isBalancing());
  EXPECT_EQ(copy->getNumChildren(), 0U);
  modify(copy)->copyFrom(collection());
  EXPECT_FALSE(copy->isBalancing());
  EXPECT_TRUE(collection()->isBalancing());
  EXPECT_EQ(collection()->getNumChildren(), 6U);
}

TEST_F(CollectionTest, RefusesToReplaceWhatItCannotReplace) {
  struct Case {
    const char* what;
    TarnRef node;
    const char* reason;  // null: is balanced
  };
  const auto value = [](const TarnData& data) { return TarnValue::CreateValue(data); };
  const Case cases[] = {
      {"bundle", TarnBundle::Create("TarnObject"), "\"TarnBundle\""},
      {"class of the application", TouchCounter::Create(), "\"TouchCounter\""},
      {"text", value(TarnData("hello")), "TarnStringValue"},
      {"empty text", value(TarnData("")), "TarnStringValue"},
      {"fraction", value(TarnData(1.5)), "TarnDoubleValue"},
      {"negative number", value(TarnData(std::int32_t{-1})), "TarnSint32Value"},
      {"large number", value(TarnData(std::uint64_t{1} << 40U)), "TarnUint64Value"},
      {"number", value(TarnData(std::uint32_t{7})), nullptr},
      {"number of another type", value(TarnData(std::int64_t{7})), nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    manager().set("c", c.node);
    manager().set("c~x", 1);
    if (c.reason == nullptr) {
      balance();
      EXPECT_EQ(manager().getUint32("c"), 7U);
      EXPECT_TRUE(manager().getObject("c").isA<TarnCollection>());
    } else {
      EXPECT_THAT([&] { balance(); }, ThrowsTarn(0, HasSubstr(c.reason)));
      EXPECT_EQ(manager().getObject("c"), c.node);
    }
    EXPECT_EQ(manager().getSint32("c~x"), 1);
    manager().deleteBranch("c");
  }
}

TEST_F(CollectionTest, RefusesWhatHasItsPlaceElsewhereAndWhatABundleKeeps) {
  manager().set("home~n~x", 1);
  const TarnRef node = manager().getObject("home~n");
  manager().transaction([&] {
    modify(manager().getRoot())->addChild("c", node);
    modify(manager().getObject("home"))->becomeParentOf("n");
  });
  EXPECT_THAT([&] { balance(); }, ThrowsTarn(0, HasSubstr("parent elsewhere")));
  EXPECT_EQ(manager().getObject("c"), node);
  TarnCollection::Balance(manager(), manager().getObject("home"), "n", nullptr);
  EXPECT_TRUE(manager().getObject("home~n").isA<TarnCollection>());

  const auto bundle = TarnBundle::Create("TarnObject");
  manager().set("b", bundle);
  modify(bundle)->newChild("x");
  for (const char* name : {TarnBundle::kBundledChildren, TarnBundle::kBlocks}) {
    EXPECT_THAT([&] { TarnCollection::Balance(manager(), bundle, name, nullptr); },
                ThrowsTarn(0, HasSubstr("bundle")));
  }
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("x"));
}

// One child of a collection that is balancing, still in its old node, is balanced itself.
TEST_F(CollectionTest, BalancesWhatIsStillInAnOldNode) {
  addPlain(6);
  manager().set("c~9~x", 1);
  balanceSteps(3);
  TarnCollection::Balance(manager(), collection(), "9", nullptr);
  EXPECT_TRUE(manager().getObject("c~9").isA<TarnCollection>());
  EXPECT_EQ(manager().getSint32("c~9~x"), 1);
  EXPECT_EQ(collection()->getNumChildren(), 7U);
}

TEST_F(CollectionTest, MovesAnEntryWithoutChild) {
  addPlain(3);
  manager().transaction(
      [&] { modify(manager().getObject("c")->getChildren())->link("1a", nullptr); });
  balance();
  EXPECT_FALSE(collection()->isBalancing());
  EXPECT_EQ(collection()->getNumChildren(), 4U);
  EXPECT_EQ(manager().getSint32("c~2"), 2);
}

TEST_F(CollectionTest, BalancingNothingDoesNothing) {
  for (const char* name : {"c", "", "a~b"}) {
    TarnCollection::Balance(manager(), manager().getRoot(), name, TouchCounter::Create());
  }
  TarnCollection::Balance(manager(), manager().getRoot(), nullptr, nullptr);
  EXPECT_EQ(TouchCounter::touched, 0);
  EXPECT_EQ(manager().getNumChildren(""), 0U);
  EXPECT_THAT([&] { TarnCollection::Balance(manager(), nullptr, "c", nullptr); },
              ThrowsTarn(0, HasSubstr("NULL TarnRef")));
}

TEST_F(CollectionTest, JoinsTheTransactionOfTheCaller) {
  addPlain(30);
  EXPECT_ANY_THROW(manager().transaction([&] {
    balance();
    EXPECT_EQ(manager().getNumChildren("c"), 30U);
    throw std::runtime_error("no");
  }));
  EXPECT_FALSE(manager().getObject("c").isA<TarnCollection>());
  EXPECT_EQ(manager().getNumChildren("c"), 30U);
}

TEST_F(CollectionTest, KeepsWhatMovesThroughTheTextForm) {
  addPlain(12);
  balanceSteps(4);
  std::stringstream text;
  manager().exportTo("c", text);
  PInOut in;
  in.readFrom(text);
  manager().set("copy", manager().importFrom(in));
  EXPECT_EQ(picture("copy"), picture("c"));
  TarnCollection::Balance(manager(), manager().getRoot(), "copy", nullptr);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(manager().getSint32("copy~" + std::to_string(i), -1), i);
}

}  // namespace
}  // namespace tarns
