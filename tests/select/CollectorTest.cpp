// Collectors: which children they take, and what they leave as it is.
#include <gmock/gmock.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/select/TarnCollector.h>

#include <string>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> NamesIn(const xcptref<TarnCollector>& collector) {
  return names_of(TarnRef(collector));
}

class CollectorTest : public node_test {
 protected:
  TarnRef addItems(std::initializer_list<const char*> names) {
    TarnRef parent = add("parent");
    for (const char* name : names) modify(parent)->addChild(name, TarnObject::Create());
    return parent;
  }
};

INSTANTIATE_NODE_TEST(CollectorTest);

TEST_P(CollectorTest, ComparesNamesAsElements) {
  const TarnRef parent = addItems({"Item_0", "Item_1", "Item_2", "Item_10", "Other"});
  const struct {
    goods::ref<TarnCollector> (*collect)(TarnRef parent, const char* name);
    std::vector<std::string> expected;
  } cases[] = {
      {TarnCollector::CollectChildrenIfEqual, {"Item_2"}},
      {TarnCollector::CollectChildrenIfNotEqual, {"Item_0", "Item_1", "Item_10", "Other"}},
      {TarnCollector::CollectChildrenIfLess, {"Item_0", "Item_1"}},
      {TarnCollector::CollectChildrenIfLessOrEqual, {"Item_0", "Item_1", "Item_2"}},
      {TarnCollector::CollectChildrenIfGreater, {"Item_10", "Other"}},
      {TarnCollector::CollectChildrenIfGreaterOrEqual, {"Item_10", "Item_2", "Other"}},
  };
  for (const auto& test : cases) {
    const xcptref<TarnCollector> found = test.collect(parent, "Item_2");
    EXPECT_EQ(NamesIn(found), test.expected);
  }
}

TEST_P(CollectorTest, TakesTheElementsOfOneName) {
  const TarnRef parent =
      addItems({"Item", "Item_0", "Item_7", "Item_4294967295", "Item_4294967296", "Item_-1",
                "Item_x", "Item_x_1", "Items_1", "Other_1", "lib_dev"});
  EXPECT_THAT(NamesIn(TarnCollector::CollectChildrenWithBaseName(parent, "Item")),
              ElementsAre("Item_0", "Item_4294967295", "Item_7"));
  EXPECT_THAT(NamesIn(TarnCollector::CollectChildrenWithBaseName(parent, "Item_x")),
              ElementsAre("Item_x_1"));
  // By name, such a mixture cannot be ordered.
  EXPECT_THAT([&] { TarnCollector::CollectChildrenIfLess(parent, "Item_2"); },
              ThrowsTarn(0, HasSubstr("is not an integer")));
}

TEST_P(CollectorTest, ComparesValues) {
  const TarnRef parent = add("parent");
  for (int i = 0; i < 6; ++i) {
    modify(root())->setValue(("parent~c" + std::to_string(i) + "~in~v").c_str(), i % 3);
  }
  modify(parent)->addChild("none", TarnObject::Create());
  TarnData one(1);
  const auto found = TarnCollector::CollectChildrenWithValue(parent, "in~v", &one);
  EXPECT_THAT(NamesIn(found), ElementsAre("c1", "c4"));
  EXPECT_THAT(NamesIn(TarnCollector::CollectChildrenWithValue(parent, "in~v", "2")),
              ElementsAre("c2", "c5"));
  TarnData* const nothing = nullptr;
  EXPECT_THAT(NamesIn(TarnCollector::CollectChildrenWithValue(parent, "in~v", nothing)), IsEmpty());
  EXPECT_THAT([&] { modify(found)->collectChildrenIfEqual(parent); },
              ThrowsTarn(0, HasSubstr("nothing to compare with")));
}

// Compares by the length of the name; `arg` is the length.
int CompareLengths(TarnRef node, const void* arg) {
  return static_cast<int>(node->getName().getLength()) - *static_cast<const int*>(arg);
}

TEST_P(CollectorTest, ComparesWithWhatItWasMadeWith) {
  const TarnRef parent = addItems({"a", "bb", "cc", "ddd"});
  const int two = 2, three = 3;
  const xcptref<TarnCollector> collector = TarnCollector::Create(CompareLengths, &two);
  for (const auto& [name, child] : parent->children()) {
    modify(collector)->addIfEqual(name.c_str(), child, &three);
  }
  EXPECT_THAT(NamesIn(collector), ElementsAre("bb", "cc"));
  EXPECT_THAT([&] { modify(collector)->collectChildrenIfEqual(collector); },
              ThrowsTarn(0, HasSubstr("its own children")));
  modify(collector)->collectChildrenIfGreater(parent);  // adds to what is there
  EXPECT_THAT(NamesIn(collector), ElementsAre("bb", "cc", "ddd"));
}

// A node that knows how to compare others with itself.
class Judge : public TarnObject {
  TARN_CLASS(Judge, TarnObject)

 public:
  int compareWith(TarnRef node, const void* arg) {
    return node->getSint32("v", 0) - getSint32("v") - *static_cast<const int*>(arg);
  }
};
TARN_REGISTER(Judge, TarnObject);

TEST_P(CollectorTest, AsksAMemberOfAnotherNode) {
  const TarnRef parent = add("parent");
  for (int i = 0; i < 5; ++i) {
    modify(parent)->setValue(("c" + std::to_string(i) + "~v").c_str(), i);
  }
  const xcptref<Judge> judge = Judge::Create();
  modify(judge)->setValue("v", 1);
  const int more = 1;
  const auto access = modify(judge);
  const xcptref<TarnCollector> collector(
      new TarnCollector(static_cast<TarnObject*>(&*access),
                        static_cast<TarnCollector::MemberCompare>(&Judge::compareWith), &more));
  modify(collector)->collectChildrenIfLessOrEqual(parent);
  EXPECT_THAT(NamesIn(collector), ElementsAre("c0", "c1", "c2"));
}

TEST_P(CollectorTest, LeavesWhatItListsWhereItIs) {
  const TarnRef parent = addItems({"Item_0", "Item_1", "Item_2"});
  const xcptref<TarnCollector> found = TarnCollector::CollectChildrenIfLess(parent, "Item_2");
  const TarnRef first = parent->getChildWithName("Item_0");
  EXPECT_EQ(found->getChildWithName("Item_0"), first);
  EXPECT_EQ(first->getParent(), parent);
  const TarnRef orphan = TarnObject::Create();
  modify(found)->addChild("new", orphan);
  EXPECT_EQ(orphan->getParent(), TarnRef(found));
  EXPECT_THAT([&] { modify(found)->addChild("a~b", first); }, ThrowsTarn(0, HasSubstr("~")));

  modify(parent)->deleteChild("Item_1");
  found->deleteFrom(parent);  // Item_1 and new are not there
  EXPECT_THAT(names_of(parent), ElementsAre("Item_2"));
  EXPECT_FALSE(first->hasParent());
  EXPECT_THAT(NamesIn(found), ElementsAre("Item_0", "Item_1", "new"));
  found->deleteFrom(*modify(parent));
  EXPECT_THAT(names_of(parent), ElementsAre("Item_2"));
}

TEST_P(CollectorTest, IsStoredWithWhatItListsOnly) {
  const TarnRef parent = addItems({"Item_0", "Item_1"});
  modify(root())->addChild("found", TarnCollector::CollectChildrenIfEqual(parent, "Item_1"));
  reload();
  const xcptref<TarnCollector> found(root()->getChildWithName("found"));
  EXPECT_THAT(NamesIn(found), ElementsAre("Item_1"));
  EXPECT_EQ(path_of(found->getChildWithName("Item_1")), "parent~Item_1");
  if (!is_stored()) return;
  EXPECT_THAT([&] { modify(found)->collectChildrenIfEqual(root()->getChildWithName("parent")); },
              ThrowsTarn(0, HasSubstr("nothing to compare with")));
}

}  // namespace
}  // namespace tarns
