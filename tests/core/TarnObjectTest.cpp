#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnObject.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TarnObjectTest : public node_test {};
INSTANTIATE_NODE_TEST(TarnObjectTest);

TEST_P(TarnObjectTest, FindsWhatWasAddedByNameAndByPath) {
  const TarnRef a = add("a");
  const TarnRef b = TarnObject::Create();
  modify(a)->addChild("b", b);
  reload();
  EXPECT_TRUE(root()->hasChild("a"));
  EXPECT_EQ(root()->getChildWithName("")->getChildWithName("a"), root()->getChildWithName("a"));
  const TarnRef found = root()->getChildWithName("a~b");
  ASSERT_FALSE(found.is_null());
  EXPECT_EQ(path_of(found), "a~b");
  EXPECT_EQ(found->getName(), "b");
  EXPECT_EQ(found->getParentName(), "a");
  EXPECT_EQ(found->getParent(), root()->getChildWithName("a"));
  EXPECT_EQ(found->getParent(2), root());
  EXPECT_TRUE(found->getParent(3).is_null());
  EXPECT_EQ(found->getRootParent(), root());
  for (const char* absent : {"b", "a~c", "a~b~c", "a~", "~a", "a~~b", "A", "~"}) {
    EXPECT_TRUE(root()->getChildWithName(absent).is_null()) << absent;
  }
}

TEST_P(TarnObjectTest, RefusesNamesThatCannotBeOnes) {
  const TarnRef a = add("a");
  const TarnRef child = TarnObject::Create();
  struct Case {
    const char* name;
    const char* message;
  };
  const std::string tooLong(65'536, 'n');
  const Case cases[] = {
      {nullptr, "Cannot add a TarnObject to \"a\" because no child name was specified."},
      {"", "Cannot add a TarnObject to \"a\" because no child name was specified."},
      {"b~c", "The name \"b~c\" cannot contain the character~"},
      {tooLong.c_str(), "65536 bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_THAT([&] { modify(a)->addChild(c.name, child); }, ThrowsTarn(0, HasSubstr(c.message)));
  }
  EXPECT_THAT([&] { modify(a)->addChild("b", nullptr); },
              ThrowsTarn(0, "NULL TarnRef write dereference"));
  EXPECT_EQ(a->getNumChildren(), 0U);
  EXPECT_FALSE(child->hasParent());
}

TEST_P(TarnObjectTest, RefusesNullWhereANodeIsNeeded) {
  add("a");
  const auto before = picture_of(root());
  TarnRef null;
  const std::vector<std::function<void(TarnObject&)>> calls = {
      [&](TarnObject& node) { node.addChild("n", null); },
      [&](TarnObject& node) { node.addUniqueChild("n", null); },
      [&](TarnObject& node) { node.addUniqueToParents("n", TarnObject::Create(), null); },
      [&](TarnObject& node) { node.addUniqueToParents("n", null, TarnObject::Create()); },
      [&](TarnObject& node) { node.addChildrenTo(null); },
      [&](TarnObject& node) { node.bequeathChildren(null); },
      [&](TarnObject& node) { node.moveChild("n", null); },
      [&](TarnObject& node) { node.copyFrom(null); },
      [&](TarnObject& node) { node.setNode("", null); },
      [&](TarnObject& node) { node.setNode("a", null); },
      [&](TarnObject& node) { node.set("x~y", nullptr); },
      [&](TarnObject& node) { node.getChildrenOfType("TarnObject", nullptr); },
      [&](TarnObject& node) { modify(node.getChildren())->insert("n", null); },
  };
  for (std::size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_THAT([&] { calls[i](*modify(root())); }, ThrowsTarn(0, HasSubstr("NULL TarnRef")));
    EXPECT_EQ(picture_of(root()), before);
  }
  EXPECT_FALSE(modify(root())->deleteChild(null) || modify(root())->findAndDeleteChild(null));
  EXPECT_EQ(modify(root())->deleteChildrenWithValue("a", static_cast<const TarnData*>(nullptr)),
            0U);
}

TEST_P(TarnObjectTest, TakesNamesOfAnyBytesUpToTheLimit) {
  const std::string longest(65'535, 'n');
  const std::vector<std::string> names = {longest,    " ",          "\xff\xfe",
                                          "\n\t\x01", "Zo\xc3\xab", "\"'"};
  for (const std::string& name : names) {
    modify(root())->setValue(name.c_str(), TarnData(name.substr(0, 10)));
  }
  reload();
  for (const std::string& name : names) {
    EXPECT_EQ(root()->getXString(name.c_str()), name.substr(0, 10));
    EXPECT_EQ(root()->getChildWithName(name.c_str())->getName(), name);
  }
  EXPECT_THAT(names_of(root()),
              ElementsAre("\n\t\x01", " ", "\"'", "Zo\xc3\xab", longest, "\xff\xfe"));
}

TEST_P(TarnObjectTest, KeepsChildrenOfOneNameInTheOrderOfAdding) {
  for (int i = 0; i < 3; ++i) {
    modify(root())->addChild("x", TarnValue::CreateValue(TarnData(i)));
  }
  reload();
  EXPECT_EQ(root()->getSint32("x"), 0);
  EXPECT_EQ(root()->getChildren()->getNumWithName("x"), 3U);
  EXPECT_TRUE(modify(root())->deleteChild("x"));
  EXPECT_EQ(root()->getSint32("x"), 1);
}

TEST_P(TarnObjectTest, DeletesAnEntryAndOrphansItsChild) {
  const TarnRef a = add("a");
  EXPECT_TRUE(a->hasParent());
  EXPECT_TRUE(modify(root())->deleteChild("a"));
  EXPECT_FALSE(a->hasParent());
  EXPECT_EQ(a->getName(), "");
  EXPECT_FALSE(modify(root())->deleteChild("a"));
  EXPECT_FALSE(root()->hasChild("a"));
  EXPECT_THAT([&] { modify(root())->deleteChild("a~b"); },
              ThrowsTarn(6,
                         "An internal program occurred: deleteChild(\"a~b\") called.  Record this "
                         "error and report this to your program vendor."));
  EXPECT_THAT([&] { root()->deleteBranch("a"); },
              ThrowsTarn(6,
                         "An internal program occurred: deleteBranch(\"a\") called.  Record this "
                         "error and report this to your program vendor."));
}

TEST_P(TarnObjectTest, DeletesBranchesByPath) {
  modify(root())->setValue("a~b~c", TarnData(1));
  modify(root())->setValue("a~d", TarnData(2));
  EXPECT_FALSE(root()->deleteBranch("a~x"));
  EXPECT_FALSE(root()->deleteBranch("x~b"));
  EXPECT_TRUE(root()->deleteBranch("a~b"));
  reload();
  EXPECT_THAT(names_of(root()->getChildWithName("a")), ElementsAre("d"));
}

TEST_P(TarnObjectTest, DeletesSelectedChildren) {
  const auto fill = [&] {
    modify(root())->deleteChildren();
    for (const char* name : {"a", "b", "c", "d"}) add(name);
    modify(root())->setValue("b~kind", TarnData("old"));
    modify(root())->setValue("d~kind", TarnData("old"));
    modify(root())->setValue("v", TarnData(7));
  };
  fill();
  EXPECT_EQ(modify(root())->deleteChildrenWithValue("kind", "old"), 2U);
  EXPECT_THAT(names_of(root()), ElementsAre("a", "c", "v"));
  fill();
  const TarnData seven(std::int64_t{7});
  EXPECT_EQ(modify(root())->deleteChildrenWithValue(nullptr, &seven), 1U);
  EXPECT_THAT(names_of(root()), ElementsAre("a", "b", "c", "d"));
  fill();
  EXPECT_EQ(modify(root())->deleteChildrenOfType("TarnObject"), 4U);
  EXPECT_THAT(names_of(root()), ElementsAre("v"));
  fill();
  EXPECT_EQ(modify(root())->deleteChildrenWithNames({"a", "nobody", "v"}), 2U);
  EXPECT_THAT(names_of(root()), ElementsAre("b", "c", "d"));
  const TarnRef c = root()->getChildWithName("c");
  EXPECT_TRUE(modify(root())->deleteChild(c));
  EXPECT_FALSE(c->hasParent());
  const char* wanted = "d";
  EXPECT_EQ(modify(root())->deleteChildrenIf(
                [](const char* name, TarnRef, const void* arg) {
                  return std::string(name) == static_cast<const char*>(arg);
                },
                wanted),
            1U);
  EXPECT_THAT(names_of(root()), ElementsAre("b"));
}

TEST_P(TarnObjectTest, SharesAChildBetweenTwoParents) {
  const TarnRef a = add("a");
  const TarnRef b = add("b");
  modify(a)->addChild("item", TarnObject::Create());
  modify(b)->addChild("item_0", TarnObject::Create());
  const TarnRef child = TarnObject::Create();
  EXPECT_EQ(modify(a)->addUniqueToParents("item", child, b), "item_1");
  EXPECT_EQ(a->getChildWithName("item_1"), child);
  EXPECT_EQ(b->getChildWithName("item_1"), child);
  EXPECT_EQ(child->getParent(), a);
  EXPECT_EQ(modify(a)->addUniqueToParents("once", TarnObject::Create(), a), "once");
  EXPECT_EQ(a->getChildren()->getNumWithName("once"), 1U);
  EXPECT_TRUE(modify(a)->deleteChild("item_1"));
  EXPECT_FALSE(child->hasParent());
  EXPECT_EQ(b->getChildWithName("item_1"), child) << "lives on where it is still listed";
  EXPECT_TRUE(modify(b)->becomeParentOf("item_1"));
  EXPECT_EQ(path_of(child), "b~item_1");
  modify(a)->addChild("again", child);
  EXPECT_EQ(path_of(child), "a~again");
  EXPECT_TRUE(modify(b)->findAndDeleteChild(child));
  EXPECT_EQ(path_of(child), "a~again") << "the link that went was not the one to the parent";
}

TEST_P(TarnObjectTest, NeverMakesANodeItsOwnAncestor) {
  const TarnRef a = add("a");
  const TarnRef b = TarnObject::Create();
  modify(a)->addChild("b", b);
  modify(b)->addChild("up", a);
  EXPECT_EQ(path_of(a), "a");
  EXPECT_EQ(b->getChildWithName("up~b~up"), a);
  modify(a)->addChild("self", a);
  EXPECT_EQ(path_of(a), "a");
  EXPECT_FALSE(modify(b)->becomeParentOf("up"));
  EXPECT_THAT([&] { modify(b)->moveChild("x", a); },
              ThrowsTarn(0, "The node \"a\" cannot be placed below itself, at \"a~b\"."));
  EXPECT_THAT([&] { modify(a)->moveChild("x", a); }, ThrowsTarn(0, HasSubstr("below itself")));
  TarnRef heir = b;
  EXPECT_THAT([&] { modify(a)->bequeathChildren(heir); }, ThrowsTarn(0, HasSubstr("below itself")));
  EXPECT_THAT(names_of(a), ElementsAre("b", "self"));
  modify(b)->deleteChildren();  // undoes the circle, which transient nodes would keep alive
  modify(a)->deleteChild("self");
}

TEST_P(TarnObjectTest, MovesAChildInPlaceOfAnother) {
  const TarnRef a = add("a");
  const TarnRef b = add("b");
  modify(root())->setValue("a~x", TarnData(1));
  modify(root())->setValue("b~y", TarnData(2));
  const TarnRef x = root()->getChildWithName("a~x");
  const TarnRef y = root()->getChildWithName("b~y");
  modify(b)->moveChild("y", x);
  EXPECT_EQ(path_of(x), "b~y");
  EXPECT_FALSE(y->hasParent());
  EXPECT_THAT(names_of(a), IsEmpty());
  EXPECT_THAT(names_of(b), ElementsAre("y"));
  modify(b)->moveChild("y", x);
  EXPECT_EQ(path_of(x), "b~y") << "moving to where it is changes nothing";
  modify(b)->moveChild("z", x);
  root()->getChildWithName("b")->addChildrenTo(a);
  modify(a)->moveChild("z", x);
  EXPECT_EQ(path_of(x), "a~z") << "takes over an entry that was a mere link";
  EXPECT_THAT(names_of(b), IsEmpty());
  modify(b)->moveChild("z", x);
  reload();
  EXPECT_EQ(root()->getSint32("b~z"), 1);
  EXPECT_FALSE(root()->getChildWithName("b")->hasChild("y"));
}

TEST_P(TarnObjectTest, RenamesByRelinking) {
  modify(root())->setValue("b", TarnData(5));
  add("c");
  const TarnRef b = root()->getChildWithName("b");
  modify(b)->setName("z");
  EXPECT_THAT(names_of(root()), ElementsAre("c", "z"));
  EXPECT_EQ(b->getName(), "z");
  EXPECT_EQ(b->getParent(), root());
  EXPECT_EQ(root()->getSint32("z"), 5);
  EXPECT_EQ(b->compareName("z"), 0);
  EXPECT_EQ(b->compareName("Z"), 1);
  EXPECT_EQ(b->compareName("Z", false), 0);
  EXPECT_EQ(b->compareName("zz"), -1);
  EXPECT_THAT([&] { modify(b)->setName("p~q"); }, ThrowsTarn(0, HasSubstr("\"p~q\"")));
  EXPECT_THAT([&] { modify(TarnObject::Create())->setName("n"); },
              ThrowsTarn(0, HasSubstr("\"n\"")));
  EXPECT_EQ(b->getName(), "z");
}

TEST_P(TarnObjectTest, HandsChildrenOver) {
  const TarnRef a = add("a");
  modify(root())->setValue("a~x", TarnData(1));
  modify(root())->setValue("a~y", TarnData(2));
  TarnRef heir = add("heir");
  modify(a)->bequeathChildren(heir);
  EXPECT_EQ(a->getNumChildren(), 0U);
  EXPECT_EQ(path_of(root()->getChildWithName("heir~x")), "heir~x");
  modify(root())->setValue("a~z", TarnData(3));
  modify(root())->setValue("home~guest", TarnData(4));
  root()->getChildWithName("home")->addChildrenTo(a);
  modify(a)->bequeathChildren(heir);
  reload();
  EXPECT_THAT(names_of(root()->getChildWithName("heir")), ElementsAre("guest", "x", "y", "z"));
  EXPECT_EQ(path_of(root()->getChildWithName("heir~guest")), "home~guest");
  EXPECT_EQ(path_of(root()->getChildWithName("heir~z")), "heir~z");
  EXPECT_EQ(root()->getChildWithName("a")->getNumChildren(), 0U);
}

TEST_P(TarnObjectTest, FindsAncestors) {
  modify(root())->setValue("a~b~c", TarnData(1));
  const TarnRef c = root()->getChildWithName("a~b~c");
  EXPECT_EQ(path_of(c->getAncestorWithName("a")), "a");
  EXPECT_TRUE(c->getAncestorWithName("c").is_null());
  EXPECT_EQ(path_of(c->getAncestorOfType("TarnObject")), "a~b");
  EXPECT_TRUE(c->getAncestorOfType("TarnValue").is_null());
}

TEST_P(TarnObjectTest, ListsChildrenByTypeAndPlace) {
  modify(root())->setValue("n", TarnData(1));
  modify(root())->setValue("s", TarnData("text"));
  modify(root())->setValue("t", TarnData("text"));
  EXPECT_EQ(root()->getChildOfType("TarnStringValue")->getName(), "s");
  EXPECT_TRUE(root()->getChildOfType("TarnValue").is_null()) << "types are exact";
  EXPECT_EQ(root()->getNumChildrenOfType("TarnStringValue"), 2U);
  const auto list = TarnObjects::Create(nullptr, 2);
  EXPECT_EQ(root()->getChildrenOfType("TarnStringValue", list), 2U);
  EXPECT_EQ(list->count(), 2U);
  EXPECT_EQ(path_of(list->getWithName("t")), "t") << "a list adopts nobody";
  EXPECT_EQ(root()->getChildName(0), "n");
  EXPECT_EQ(root()->getChildName(2), "t");
  EXPECT_EQ(root()->getChildName(3), "");
  const TarnRef other = add("other");
  root()->addChildrenTo(other);
  EXPECT_EQ(path_of(other->getChildWithName("t")), "t");
  modify(other)->deleteChild("other");  // undoes the circle
}

TEST_P(TarnObjectTest, MeetsEachOfManyChildrenOfOneNameOnce) {
  constexpr int kChildren = 400;
  struct Case {
    int every, first;  // the children that are kept: one in so many, and the first so many
  };
  for (const auto& [every, first] : {Case{2, 0}, {1000, 0}, {1000, 128}, {1000, 300}, {1, 0}}) {
    SCOPED_TRACE(testing::Message() << every << ", " << first);
    const TarnRef node = TarnObject::Create();
    modify(root())->setNode("node", node);
    const auto fill = [&] {
      atomically([&] {
        for (int i = 0; i < kChildren; ++i) {
          modify(node)->addChild("x", TarnValue::CreateValue(TarnData(i)));
        }
      });
    };
    const auto isKept = [every = every, first = first](int i) {
      return i < first || i % every == every - 1;
    };
    std::vector<int> met, expected;
    for (int i = 0; i < kChildren; ++i) expected.push_back(i);
    fill();
    atomically([&] {
      met.clear();
      for (const auto& [name, child] : node->children()) {
        met.push_back(child->getSint32(nullptr));
        if (!isKept(met.back())) modify(node)->deleteChild(child);
      }
    });
    EXPECT_EQ(met, expected);
    modify(node)->deleteChildren();
    fill();
    atomically([&] {
      met.clear();
      modify(node)->deleteChildrenIf([&](const char*, const TarnRef& child) {
        met.push_back(child->getSint32(nullptr));
        return !isKept(met.back());
      });
    });
    EXPECT_EQ(met, expected);
    EXPECT_EQ(node->getNumAbstractChildren(),
              static_cast<unsigned long>(std::ranges::count_if(expected, isKept)));
  }
}

TEST_P(TarnObjectTest, GoesOnAmongChildrenOfOneName) {
  for (int i = 0; i < 5; ++i) modify(root())->addChild("x", TarnValue::CreateValue(TarnData(i)));
  add("y");
  const auto valueAt = [](const TarnIterator& at) { return at.get(nullptr)->getSint32(nullptr); };
  const auto remove = [&](const TarnIterator& at) {
    modify(root()->getChildren())->removeEntry(at.getEntry());
  };
  TarnIterator at = root()->getIterTo("x");
  at.next(nullptr);
  at.next(nullptr);
  EXPECT_EQ(valueAt(at), 2);
  remove(at);
  TarnIterator backwards = at;
  at.next(nullptr);
  EXPECT_EQ(valueAt(at), 3);
  backwards.back(nullptr);
  EXPECT_EQ(valueAt(backwards), 1);
  at.next(nullptr);
  at.back(nullptr);
  remove(at);
  at.next(nullptr);
  EXPECT_EQ(valueAt(at), 4);
  at.next(nullptr);
  XString name;
  at.copyName(name);
  EXPECT_EQ(name, "y");
  at.back(nullptr);
  remove(at);
  at.back(nullptr);
  EXPECT_EQ(valueAt(at), 1);
}

TEST_P(TarnObjectTest, AnswersFromTheStateOfTheMoment) {
  const TarnRef a = add("a");
  const TarnRef heir = add("heir");
  atomically([&] {
    const auto held = *a;
    modify(a)->addChild("n", TarnValue::CreateValue(TarnData(1)));
    XString name;
    EXPECT_EQ(held->getNumAbstractChildren(), 1U);
    EXPECT_FALSE(held->getFirstAbstractChild(&name).is_null());
    EXPECT_EQ(name, "n");
    EXPECT_EQ(held->getLastAbstractChild(nullptr), held->getFirstAbstractChild(nullptr));
    EXPECT_FALSE(held->getIterTo("n").isNull() || held->getIterToOrAfter("a").isNull());
    EXPECT_EQ(held->getNumChildrenOfType("TarnSint32Value"), 1U);
    EXPECT_FALSE(held->getChildOfType("TarnSint32Value").is_null());
    XStringList names;
    held->getChildNames(names);
    EXPECT_EQ(names, XStringList({"n"}));
    EXPECT_EQ(names_of(a), names_of(held->getSelf()));
    TarnRef to = heir;
    modify(a)->bequeathChildren(to);
    int met = 0;
    for (const TarnChild& child : held->children()) met += child.name.empty() ? 0 : 1;
    held->iterateChildren([&](const char*, const TarnRef&) { ++met; });
    EXPECT_EQ(met, 0) << "the heir's children are not met";
    EXPECT_TRUE(held->getChildren().is_null());
  });
}

TEST_P(TarnObjectTest, CallsMemberFunctionsForChildren) {
  class Counter : public TarnObject {
   public:
    void count(const char* name, TarnRef child, const void* arg) {
      seen += std::string(name) + child->getXString(nullptr).getText();
      seen += static_cast<const char*>(arg);
    }
    bool isSecond(const char* name, TarnRef, const void*) { return std::string_view(name) == "b"; }
    std::string seen;
  };
  for (const char* name : {"a", "b", "c"}) modify(root())->setValue(name, TarnData(name));
  xcptref<Counter> counter(new Counter);
  auto target = modify(counter);
  root()->iterateChildren(&*target, static_cast<TarnObject::ChildMember>(&Counter::count), ";");
  EXPECT_EQ(target->seen, "aa;bb;cc;");
  EXPECT_EQ(modify(root())->deleteChildrenIf(
                &*target, static_cast<TarnObject::ChildTestMember>(&Counter::isSecond), nullptr),
            1U);
  EXPECT_THAT(names_of(root()), ElementsAre("a", "c"));
}

TEST_P(TarnObjectTest, TellsNames) {
  const TarnRef a = add("a");
  Buffer name;
  a->getName(name);
  EXPECT_EQ(name.view(), "a");
  XStringList names;
  a->addNameTo(names);
  root()->addNameTo(names);
  EXPECT_EQ(names, XStringList({"a", ""}));
  EXPECT_STREQ(a->getClass().name(), "TarnObject");
  TarnIterator at = root()->getIterTo("a");
  at.nullify();
  EXPECT_TRUE(at.isNull());
}

TEST_P(TarnObjectTest, DeletesChildrenByValue) {
  modify(root())->setValue("a~done", TarnData(true));
  modify(root())->setValue("b~done", TarnData(false));
  modify(root())->setValue("c~done", TarnData("False"));
  add("d");
  const TarnData no(false);
  EXPECT_EQ(modify(root())->deleteChildrenWithValue("done", &no), 1U);
  EXPECT_THAT(names_of(root()), ElementsAre("a", "c", "d"));
  EXPECT_EQ(modify(root())->deleteChildrenWithValue("done", "False"), 2U)
      << "a text that is not empty equals true";
  EXPECT_THAT(names_of(root()), ElementsAre("d"));
}

TEST_P(TarnObjectTest, MakesChildrenOnDemand) {
  const TarnRef value = modify(root())->getChildWithNameNoFail("a~b~n", "TarnSint32Value");
  EXPECT_EQ(path_of(value), "a~b~n");
  EXPECT_STREQ(value->getType(), "TarnSint32Value");
  EXPECT_EQ(modify(root())->getChildWithNameNoFail("a~b~n", "TarnObject"), value);
  EXPECT_TRUE(modify(root())->getChildWithNameNoFail("a~b~m", "NoSuchClass").is_null());
  const auto before = picture_of(root());
  EXPECT_TRUE(modify(root())->getChildWithNameNoFail("x~y", "NoSuchClass").is_null());
  for (const char* path : {"x~", "x~~y", "~x"}) {
    EXPECT_THAT([&] { modify(root())->getChildWithNameNoFail(path, "TarnObject"); },
                ThrowsTarn(0, HasSubstr("no child name")));
  }
  EXPECT_EQ(picture_of(root()), before) << "what fails makes no branches";
}

TEST_P(TarnObjectTest, WalksChildrenInBatchesWhileTheyChange) {
  constexpr int kChildren = 1000;
  atomically([&] {
    for (int i = 0; i < kChildren; ++i) add(("c" + std::to_string(10'000 + i)).c_str());
  });
  reload();
  int met = 0;
  std::string before;
  for (const auto& [name, child] : root()->children()) {
    EXPECT_LT(before, name);
    before = name;
    if (++met % 10 == 0) {
      EXPECT_TRUE(modify(root())->deleteChild(name.c_str()));
    }
  }
  EXPECT_EQ(met, kChildren);
  EXPECT_EQ(root()->getNumAbstractChildren(), kChildren * 9U / 10);
  std::vector<std::string> names;
  root()->iterateChildren(
      [](const char* name, TarnRef, const void* arg) {
        static_cast<std::vector<std::string>*>(const_cast<void*>(arg))->emplace_back(name);
      },
      &names);
  EXPECT_EQ(names, names_of(root()));
}

TEST_P(TarnObjectTest, IteratesForwardAndBackward) {
  for (const char* name : {"b", "d", "d", "f"}) add(name);
  XString name;
  TarnIterator at = root()->getIterToFirstAbstractChild();
  EXPECT_TRUE(at.isAtTop());
  EXPECT_FALSE(at.isAtBottom());
  EXPECT_EQ(at.next(&name), root()->getChildWithName("b"));
  EXPECT_EQ(name, "b");
  const TarnIterator firstD = at;
  at.next(&name);
  EXPECT_NE(at, firstD) << "equal names are different places";
  at.back(nullptr);
  EXPECT_EQ(at, firstD);
  EXPECT_EQ(root()->getIterTo("d"), firstD);
  EXPECT_TRUE(root()->getIterTo("c").isNull());
  EXPECT_EQ(root()->getIterToOrAfter("c"), firstD);
  EXPECT_TRUE(root()->getIterToOrAfter("g").isNull());
  at = root()->getIterToLastAbstractChild();
  EXPECT_TRUE(at.isAtBottom());
  at.next(&name);
  EXPECT_EQ(name, "f");
  EXPECT_TRUE(at.isNull());
  EXPECT_TRUE(at.next(&name).is_null());
  EXPECT_EQ(name.getText(), nullptr);
  at = root()->getIterTo("d");
  modify(root())->deleteLinkToChild(at);
  at.copyName(name);
  EXPECT_EQ(name, "d");
  modify(root())->deleteLinkToChild(at);
  at.copyName(name);
  EXPECT_EQ(name, "f");
  EXPECT_THAT(names_of(root()), ElementsAre("b", "f"));
  EXPECT_EQ(TarnIterator(), TarnObject::Create()->getIterToFirstAbstractChild());
}

TEST_P(TarnObjectTest, GoesOnBehindAnEntryThatWasRemoved) {
  for (const char* name : {"a", "b", "c"}) add(name);
  TarnIterator at = root()->getIterTo("b");
  const TarnRef b = at.get(nullptr);
  modify(root())->deleteChild("b");
  XString name;
  EXPECT_EQ(at.next(&name), b);
  at.copyName(name);
  EXPECT_EQ(name, "c");
}

}  // namespace
}  // namespace tarns
