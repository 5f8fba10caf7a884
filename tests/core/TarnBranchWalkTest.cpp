#include <goods/cache_manager.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnValue.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <random>
#include <set>

#include "support/node_test.h"

namespace tarns {
namespace {

using Lines = std::vector<std::string>;

std::string LineOf(const std::string& path, const std::string& type, bool hasValue,
                   const TarnData& value, unsigned long numChildren, bool isLast, bool isCircle) {
  return path + ": " + type + (hasValue ? "=" + std::string(value.getText()) : "") + " " +
         std::to_string(numChildren) + (isLast ? " last" : "") + (isCircle ? " circle" : "");
}

Lines WalkOf(const TarnRef& node) {
  Lines lines;
  TarnBranchWalk walk(node);
  while (const TarnBranchWalk::Step* step = walk.next()) {
    lines.push_back(LineOf(walk.path(), step->cls->name(), step->hasValue, step->value,
                           step->numChildren, step->isLast, step->isCircle));
  }
  return lines;
}

// The same by way of children(), one node at a time.
void AddExpected(const std::string& path, std::vector<TarnRef>& above, Lines& lines) {
  const TarnRef node = above.back();
  std::size_t left = node->getNumAbstractChildren();
  for (const auto& [name, child] : node->children()) {
    const bool isCircle = std::find(above.begin(), above.end(), child) != above.end();
    TarnData value;
    const bool hasValue = child->get("", value);
    lines.push_back(LineOf(joined(path, name), child->getType(), hasValue, value,
                           child->getNumAbstractChildren(), --left == 0, isCircle));
    if (isCircle) continue;
    above.push_back(child);
    AddExpected(joined(path, name), above, lines);
    above.pop_back();
  }
}

Lines ExpectedOf(const TarnRef& node) {
  Lines lines;
  std::vector<TarnRef> above{node};
  AddExpected("", above, lines);
  return lines;
}

class TarnBranchWalkTest : public node_test {};
INSTANTIATE_NODE_TEST(TarnBranchWalkTest);

TEST_P(TarnBranchWalkTest, MeetsWhatChildrenOfEachNodeGive) {
  const TarnRef top = add("top");
  atomically([&] {
    auto node = modify(top);
    const TarnData values[] = {true, 1.5, std::int8_t{-3}, std::uint64_t{5}, "text", ""};
    for (std::size_t i = 0; i < std::size(values); ++i) {
      node->setValue(("mixed~v" + std::to_string(i)).c_str(), values[i]);
    }
    // Values with children, nodes between values, more of a kind than a page or a batch holds.
    node->setValue("value", "own");
    node->setValue("value~below", "its child's");
    for (int i = 0; i < 1500; ++i) node->setValue(("flat~" + std::to_string(i)).c_str(), i);
    for (int i = 0; i < 400; ++i) {
      node->setValue(("nodes~" + std::to_string(i) + "~text").c_str(), std::string(i, 'x').c_str());
    }
    node->setValue("nodes~39", TarnData());
    node->addChild("empty", TarnObject::Create());
    node->addChild("twice", TarnValue::CreateValue(1));
    node->addChild("twice", TarnValue::CreateValue(2));
    // A node that is listed in two places, and one that is listed below itself.
    const TarnRef nodes = node->getChildWithName("nodes~7");
    node->addChild("other way", nodes);
    modify(nodes)->addChild("up", top);
    std::string deep = "deep";
    for (int i = 0; i < 40; ++i) node->setValue((deep += "~d").c_str(), TarnData());
  });
  reload();
  const TarnRef reloaded = root()->getChildWithName("top");
  const Lines expected = ExpectedOf(reloaded);
  EXPECT_GT(expected.size(), 2300U);
  reload();
  const TarnRef again = root()->getChildWithName("top");
  EXPECT_EQ(WalkOf(again), expected);
  EXPECT_EQ(WalkOf(again), expected) << "with everything in memory";
  if (is_stored()) {
    stored().session().atomically([&] { EXPECT_EQ(WalkOf(again), expected); });
  }
  EXPECT_EQ(WalkOf(again->getChildWithName("empty")), Lines());
  modify(again->getChildWithName("nodes~7"))->deleteChild("up");  // undoes the circle
}

TEST_P(TarnBranchWalkTest, PassesOverWhatItIsToldTo) {
  atomically([&] {
    for (int i = 0; i < 100; ++i) {
      for (int j = 0; j < 30; ++j) {
        const std::string path = std::to_string(1000 + i) + "~" + std::to_string(100 + j);
        modify(root())->setValue((path + "~leaf").c_str(), i * j);
      }
    }
  });
  reload();
  std::mt19937 random(7);
  for (int round = 0; round < 3; ++round) {
    Lines met, expected;
    for (int i = 0; i < 100; ++i) expected.push_back(std::to_string(1000 + i));
    TarnBranchWalk walk(root());
    while (const TarnBranchWalk::Step* step = walk.next()) {
      if (step->depth == 1) met.push_back(step->name);
      // At different depths and at different places within a batch.
      if (step->depth == 1 ? round == 0 || random() % 2 == 0 : random() % 10 == 0) {
        walk.skipChildren();
      }
      EXPECT_TRUE(round != 0 || step->depth == 1) << walk.path();
    }
    EXPECT_EQ(met, expected);
    EXPECT_EQ(walk.next(), nullptr);
  }
}

// Ranges that follow each other are together what the whole walk is.
TEST_P(TarnBranchWalkTest, GoesThroughRanges) {
  atomically([&] {
    for (int i = 0; i < 2'000; ++i) {
      modify(root())->setValue((std::to_string(i) + "~2~1").c_str(), i);
      if (i % 9 == 0) modify(root())->addChild("500", TarnValue::CreateValue(i));
    }
  });
  reload();
  const auto add = [](TarnBranchWalk walk, Lines& paths) {
    while (walk.next() != nullptr) paths.push_back(walk.path());
  };
  Lines all;
  add(TarnBranchWalk(root()), all);
  EXPECT_EQ(all.size(), 6'222U);
  // Among names and beside them, before the first and behind the last.
  const Lines cuts[] = {{"1"},     {"500"}, {"5000"},
                        {"", "!"}, {"~"},   {"0", "1", "2", "20", "200", "2x"}};
  for (const Lines& between : cuts) {
    Lines paths;
    std::string from;
    for (const std::string& to : between) {
      if (!to.empty()) add(TarnBranchWalk(root(), {from, to}), paths);
      from = to;
    }
    add(TarnBranchWalk(root(), {from, ""}), paths);
    EXPECT_EQ(paths, all) << testing::PrintToString(between);
  }
  Lines none;
  add(TarnBranchWalk(root(), {"500", "500"}), none);
  add(TarnBranchWalk(root(), {"7", "3"}), none);
  EXPECT_EQ(none, Lines());
}

TEST_P(TarnBranchWalkTest, GoesOnWhereTheLoopChangesTheTree) {
  constexpr int kNodes = 150;
  const auto name = [](int i) { return std::to_string(2000 + i); };
  atomically([&] {
    for (int i = 0; i < kNodes; ++i) {
      for (const char* below : {"~a", "~b~c"})
        modify(root())->setValue((name(i) + below).c_str(), i);
    }
  });
  // Of each node all but the next to come is removed, nodes are added behind the walk and before
  // it.
  std::set<std::string> met;
  TarnBranchWalk walk(root());
  while (const TarnBranchWalk::Step* step = walk.next()) {
    if (step->depth != 1 || step->name.size() > 4) continue;
    EXPECT_TRUE(met.insert(step->name).second) << step->name;
    const int i = std::stoi(step->name) - 2000;
    modify(root())->deleteChild(name(i).c_str());
    modify(root())->setValue((name(i) + "x~new").c_str(), i);
    modify(root())->setValue((name(i - 1) + "x~new").c_str(), i);
  }
  EXPECT_EQ(met.size(), std::size_t{kNodes});
  for (const std::string& one : names_of(root())) EXPECT_EQ(one.size(), 5U) << one;
}

// Longer than a batch, so that the walk comes back to what is not in the tree any more.
TEST_P(TarnBranchWalkTest, GoesToTheEndOfABranchThatIsTakenAway) {
  constexpr int kNodes = 200;
  atomically([&] {
    for (int i = 0; i < kNodes; ++i)
      modify(root())->setValue(("c~" + std::to_string(i)).c_str(), i);
    modify(root())->setValue("d", 1);
  });
  int met = 0;
  bool isAtEnd = false;
  TarnBranchWalk walk(root());
  while (const TarnBranchWalk::Step* step = walk.next()) {
    if (step->depth == 2 && ++met == 3) modify(root())->deleteChild("c");
    isAtEnd = step->name == "d";
  }
  EXPECT_EQ(met, kNodes);
  EXPECT_TRUE(isAtEnd);
}

TEST_P(TarnBranchWalkTest, MeetsEachOfManyOfOneNameOnce) {
  constexpr int kNodes = 200;
  atomically([&] {
    for (int i = 0; i < kNodes; ++i) modify(root())->addChild("x", TarnValue::CreateValue(i));
  });
  std::set<int> met;
  TarnBranchWalk walk(root());
  while (const TarnBranchWalk::Step* step = walk.next()) {
    EXPECT_TRUE(met.insert(step->value.getSint32()).second) << step->value.getSint32();
    if (met.size() % 2 == 0) modify(root())->deleteChild(TarnRef(step->node));
  }
  EXPECT_EQ(met.size(), std::size_t{kNodes});
}

TEST_P(TarnBranchWalkTest, PagesThroughNames) {
  Lines all;
  atomically([&] {
    for (int i = 0; i < 5000; ++i) all.push_back("n" + std::to_string(10'000 + i));
    for (const std::string& name : all) modify(root())->setValue(name.c_str(), 1);
    modify(root())->addChild("n10003", TarnObject::Create());  // a second one of that name
  });
  reload();
  all.insert(all.begin() + 3, "n10003");
  constexpr std::size_t kNoLimit = ~std::size_t{0};
  EXPECT_EQ(root()->getChildNames("", kNoLimit), all);
  EXPECT_EQ(root()->getChildNames("", 0), Lines());
  EXPECT_EQ(root()->getChildNames("", 4097), Lines(all.begin(), all.begin() + 4097));
  struct Case {
    const char* after;
    std::ptrdiff_t first;
  };
  for (const Case& c :
       {Case{"a", 0}, {"n10002", 3}, {"n10003", 5}, {"n10003x", 5}, {"n14999", 5001}}) {
    SCOPED_TRACE(c.after);
    EXPECT_EQ(root()->getChildNames(c.after, kNoLimit), Lines(all.begin() + c.first, all.end()));
    const Lines some = root()->getChildNames(c.after, 2);
    EXPECT_EQ(some, Lines(all.begin() + c.first, std::min(all.begin() + c.first + 2, all.end())));
  }
  XStringList listed;
  root()->getChildNames(listed);
  EXPECT_EQ(listed.getCount(), all.size());
  EXPECT_EQ(add("leaf")->getChildNames("", kNoLimit), Lines());
}

}  // namespace
}  // namespace tarns
