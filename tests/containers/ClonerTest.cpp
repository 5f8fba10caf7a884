// Copies and merges of branches with nodes of every kind in them.
#include <gmock/gmock.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnCloner.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "bundle_check.h"
#include "examples/Machine.h"
#include "support/branch_picture.h"
#include "support/random_tree.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {

// Interrupts a balance.
class Interrupter : public TarnObject {
  TARN_CLASS(Interrupter, TarnObject)

 public:
  static inline int stepsLeft = 0;
  void touch() override {
    if (--stepsLeft < 0) throw std::runtime_error("interrupted");
  }
};
TARN_REGISTER(Interrupter, TarnObject);

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> LinesOf(const std::vector<TarnMergeChange>& changes) {
  std::vector<std::string> lines;
  for (const auto& [path, effect] : changes) lines.push_back(path + ": " + ToText(effect));
  return lines;
}

class ClonerTest : public session_test {
 protected:
  TarnRef at(const std::string& path) { return manager().getObject(path); }
  void removeAll() {
    while (manager().getNumChildren("") > 0) manager().deleteBranch(manager().getChildName("", 0));
  }
  // "a~b=1 a~c": values and nodes.
  void grow(const std::string& tree) {
    std::istringstream words(tree);
    for (std::string word; words >> word;) {
      const std::size_t sign = word.find('=');
      if (sign == std::string::npos) {
        manager().set(word);
      } else if (const std::string value = word.substr(sign + 1); value[0] == '"') {
        manager().set(word.substr(0, sign), value.substr(1));
      } else {
        manager().set(word.substr(0, sign), std::stoi(value));
      }
    }
  }
  void copyTo(const std::string& from, const char* to, std::size_t batch) {
    TarnCloner({.batchSize = batch}).copyInBatches(at(from), manager().getRoot(), to);
  }
};

TEST_F(ClonerTest, ACopyIsWhatTheBranchIsHoweverItIsMade) {
  for (std::uint64_t number = 0; number < 60; ++number) {
    SCOPED_TRACE(testing::Message() << "tree " << number);
    removeAll();
    manager().set("top");
    manager().transaction([&] { random_tree(at("top"), number, random_tree::links::any); });
    manager().set("whole", at("top")->deepClone());
    for (const std::size_t batch : {1, 3, 1000}) {
      copyTo("top", ("by " + std::to_string(batch)).c_str(), batch);
    }
    manager().transaction([&] { copyTo("top", "within", 2); });
    EXPECT_EQ(manager().getNumChildren(""), 6U) << "nothing is left of making them";
    if (number % 10 == 0) reopen();
    const branch_picture top(at("top"));
    for (const char* copy : {"whole", "by 1", "by 3", "by 1000", "within"}) {
      EXPECT_EQ(branch_picture(at(copy)).differences(top), "") << copy;
      EXPECT_NE(at(copy), at("top"));
    }
  }
}

TEST_F(ClonerTest, WhatLeavesTheBranchKeepsItsTargetAndWhatDoesNotIsCopied) {
  grow("top~a top~z=1 outside=5");
  const xcptref<Machine> press = Machine::Create(), drill = Machine::Create();
  manager().set("top~press", press);
  manager().set("drill", drill);
  modify(press)->setFeeder(drill);
  modify(at("top~z"))->addChild("press", press);  // which becomes its place
  modify(at("top~a"))->addChild("out", at("outside"));
  modify(manager().getRoot())->becomeParentOf("outside");
  modify(at("top")->getChildren())->link("top", at("top"));
  modify(at("top")->getChildren())->link("nothing", nullptr);
  for (const std::size_t batch : {1, 2, 1000}) {
    SCOPED_TRACE(batch);
    copyTo("top", "copy", batch);
    const xcptref<Machine> copied(at("copy~z~press"));
    EXPECT_NE(copied, press);
    EXPECT_EQ(at("copy~press"), copied) << "shared in the copy as well";
    EXPECT_EQ(copied->getFeeder(), drill);
    EXPECT_EQ(at("copy~a~out"), at("outside"));
    EXPECT_EQ(at("outside")->getParent(), TarnRef(manager().getRoot()));
    EXPECT_EQ(at("copy~top"), at("copy"));
    EXPECT_EQ(at("copy")->getNumAbstractChildren(), 4U) << "an entry of nothing is left out";
  }
}

TEST_F(ClonerTest, CopiesBundlesThatLiveOnSeparately) {
  constexpr int kObjects = 1500;
  const auto bundle = TarnBundle::Create("Machine");
  manager().set("b", bundle);
  manager().transaction([&] {
    for (int i = 0; i < kObjects; ++i) {
      modify(xcptref<Machine>(modify(bundle)->newChild(std::to_string(i).c_str())))->setSpeed(i);
    }
    for (int i = 0; i < kObjects; i += 7) {
      modify(bundle)->deleteBundledChild(std::to_string(i).c_str());
    }
  });
  const auto names = VerifyBundle(bundle);
  for (const std::size_t batch : {100, 100'000}) {
    copyTo("b", "copy", batch);
    const xcptref<TarnBundle> copy(at("copy"));
    EXPECT_EQ(VerifyBundle(copy), names);
    EXPECT_EQ(manager().getSint32("copy~BundledChildren~11~Speed"), 11);
    modify(copy)->deleteBundledChild("11");
    modify(copy)->newChild("new");
    modify(bundle)->newChild("other");
    EXPECT_EQ(VerifyBundle(copy).size(), names.size());
    EXPECT_EQ(VerifyBundle(bundle).size(), names.size() + 1);
    modify(bundle)->deleteBundledChild("other");
  }
}

TEST_F(ClonerTest, CopiesAndMergesACollectionThatIsBalancing) {
  const auto names = [this](const char* path) {
    std::map<std::string, int> found;
    for (const auto& [name, child] : at(path)->children()) ++found[name];
    return found;
  };
  grow("c~0=0 c~1=1 c~2=2 c~3=3 c~4=4 c~5=5");
  const auto expected = names("c");
  Interrupter::stepsLeft = 3;
  EXPECT_ANY_THROW(
      TarnCollection::Balance(manager(), manager().getRoot(), "c", Interrupter::Create()));
  ASSERT_TRUE(xcptref<TarnCollection>(at("c"))->isBalancing());
  for (const std::size_t batch : {1, 1000}) {
    copyTo("c", "copy", batch);
    EXPECT_FALSE(xcptref<TarnCollection>(at("copy"))->isBalancing());
    EXPECT_EQ(names("copy"), expected);
  }
  grow("plain~own=7 plain~1=8");
  manager().mergeBranch("c", "plain", {.rule = TarnMergeRule::kKeep, .keepsSource = true});
  EXPECT_EQ(names("plain").size(), 7U);
  EXPECT_EQ(manager().getSint32("plain~1"), 8);
  EXPECT_EQ(manager().getSint32("plain~5"), 5);
  EXPECT_TRUE(xcptref<TarnCollection>(at("c"))->isBalancing());
}

TEST_F(ClonerTest, ACopyInBatchesIsThereAsAWholeOrNotAtAll) {
  std::string tree;
  for (int i = 0; i < 50; ++i) tree += "from~n" + std::to_string(i) + "~v=1 ";
  grow(tree + "to~old=1 other=2");
  const std::string before = picture("to") + picture("from");
  const std::string unfinished = TarnCloner::NameOfUnfinished("to");
  const auto copy = [&](const std::function<void(std::uint64_t)>& progress) {
    manager().copyBranch("from", "to", {.batchSize = 10, .progress = progress});
  };
  // What throws leaves nothing.
  EXPECT_THROW(copy([&](std::uint64_t done) {
                 EXPECT_EQ(manager().getNumChildren("to"), 1U) << done;
                 EXPECT_FALSE(at(unfinished).is_null());
                 if (done > 30) throw std::runtime_error("enough");
               }),
               std::runtime_error);
  EXPECT_EQ(picture("to") + picture("from"), before);
  EXPECT_EQ(manager().getNumChildren(""), 3U);
  // What a crash has left is taken away by the next one.
  grow("x~left=1");
  manager().moveBranch("x", unfinished);
  std::uint64_t last = 0;
  copy([&](std::uint64_t done) {
    EXPECT_GT(done, last);
    last = done;
  });
  EXPECT_EQ(last, 101U);
  EXPECT_EQ(branch_picture(at("to")).differences(branch_picture(at("from"))), "");
  EXPECT_EQ(manager().getNumChildren(""), 3U);
  // Of two at a time the earlier one fails.
  bool isFirst = true;
  EXPECT_THAT(
      [&] {
        copy([&](std::uint64_t) {
          if (!std::exchange(isFirst, false)) return;
          manager().copyBranch("other", "to", TarnCloneOptions{});
        });
      },
      ThrowsTarn(0, HasSubstr("was removed")));
  EXPECT_EQ(manager().getSint32("to"), 2);
  EXPECT_EQ(manager().getNumChildren(""), 3U);
}

TEST_F(ClonerTest, ABranchIsCopiedIntoItselfInBatches) {
  for (int i = 0; i < 20; ++i) manager().set("a~b~" + std::to_string(i), i);
  const std::string before = picture("a~b");
  manager().copyBranch("a", "a~b~e~f", {.batchSize = 3});
  EXPECT_EQ(picture("a~b~e~f~b"), before + " e{}");
  EXPECT_EQ(at("a~b~e~f~b~e~f"), nullptr);
}

TEST_F(ClonerTest, MergesByRulesAndTellsBefore) {
  const auto choose = [](const TarnMergeMeeting& meeting) {
    TarnData source, target;
    if (meeting.source->get(nullptr, source) && meeting.target->get(nullptr, target)) {
      return source.getSint64() > target.getSint64() ? TarnMergeRule::kReplace
                                                     : TarnMergeRule::kKeep;
    }
    return TarnMergeRule::kKeep;
  };
  const auto rule = [](TarnMergeRule wanted) { return TarnCloneOptions{.rule = wanted}; };
  const TarnCloneOptions keep = rule(TarnMergeRule::kKeep), replace = rule(TarnMergeRule::kReplace),
                         values = rule(TarnMergeRule::kMergeValues), larger{.choose = choose};
  struct Case {
    const char* tree;
    TarnCloneOptions options;
    std::vector<std::string> report;
    const char* after;  // of t
  };
  const Case cases[] = {
      {"s~a=1 t~b=2", keep, {": kept", "a: added"}, "a=1 b=2"},
      {"s~a=1 t~a=2", keep, {": kept", "a: kept"}, "a=2"},
      {"s~a=1 t~a=2", replace, {": kept", "a: taken over"}, "a=1"},
      {"s~a=1 t~a=\"x", replace, {": kept", "a: replaced"}, "a=1"},
      {"s~a=12 t~a=\"x", values, {": kept", "a: taken over"}, "a=12"},
      {"s~a=\"17 t~a=3", values, {": kept", "a: taken over"}, "a=17"},
      {"s~a=1 t~a", values, {": kept", "a: replaced"}, "a=1"},
      {"s~a~b=1 t~a=4", values, {": kept", "a: kept", "a~b: added"}, "a=4{b=1}"},
      {"s~a=5 s~b=1 t~a=4 t~b=2", larger, {": kept", "a: taken over", "b: kept"}, "a=5 b=2"},
      {"s~a~x=1 s~a~y=2 t~a=\"v t~a~x=3 t~a~z=4",
       replace,
       {": kept", "a: replaced", "a~x: taken over", "a~y: added"},
       "a{x=1 y=2 z=4}"},
      {"s~a=1 u~w=2", keep, {": added"}, "a=1"},
  };
  for (const bool keepsSource : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.tree << " -> " << c.after << " copying " << keepsSource);
      removeAll();
      grow(c.tree);
      TarnCloneOptions options = c.options;
      options.keepsSource = keepsSource;
      std::vector<TarnMergeChange> changes;
      options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
      options.changesNothing = true;
      const branch_picture before(manager().getRoot());
      const std::string source = picture("s");
      manager().mergeBranch("s", "t", options);
      EXPECT_EQ(LinesOf(changes), c.report);
      EXPECT_EQ(branch_picture(manager().getRoot()).differences(before), "");
      changes.clear();
      options.changesNothing = false;
      manager().mergeBranch("s", "t", options);
      EXPECT_EQ(LinesOf(changes), c.report);
      EXPECT_EQ(picture("t"), c.after);
      if (keepsSource) {
        EXPECT_EQ(picture("s"), source);
      } else {
        EXPECT_TRUE(at("s").is_null());
      }
    }
  }
}

TEST_F(ClonerTest, APreviewTellsOfABranchThatIsMergedIntoItsParent) {
  grow("t~s~a=1 t~s~s=2 t~a=3");
  std::vector<TarnMergeChange> changes;
  TarnCloneOptions options{.rule = TarnMergeRule::kReplace, .changesNothing = true};
  options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  manager().mergeBranch("t~s", "t", options);
  EXPECT_THAT(LinesOf(changes), ElementsAre(": kept", "a: taken over", "s: added"));
  EXPECT_EQ(picture("t"), "a=3 s{a=1 s=2}");
  EXPECT_THAT(LinesOf(TarnCloner().preview(at("t~s"), manager().getRoot(), "new")),
              ElementsAre(": added"));
}

TEST_F(ClonerTest, ValuesAreMergedMemberByMemberWhereTheySaySomething) {
  const xcptref<Machine> there = Machine::Create(), comes = Machine::Create(),
                         feeder = Machine::Create();
  manager().set("t~m", there);
  manager().set("s~m", comes);
  modify(there)->setLabel("press");
  modify(there)->setFeeder(feeder);
  modify(there)->setSpeed(1);
  modify(comes)->setSpeed(2);
  manager().mergeBranch("s", "t", {.rule = TarnMergeRule::kMergeValues});
  EXPECT_EQ(at("t~m"), TarnRef(there));
  EXPECT_EQ(there->getSpeed(), 2);
  EXPECT_EQ(there->getLabel(), "press") << "the other has none";
  EXPECT_EQ(there->getFeeder(), feeder);
}

// In a copying merge references lead to what became of their targets.
TEST_F(ClonerTest, ReferencesOfMergedNodesStayWithin) {
  const xcptref<Machine> press = Machine::Create(), drill = Machine::Create(),
                         there = Machine::Create(), owned = Machine::Create();
  manager().set("s~a~press", press);
  manager().set("s~drill", drill);
  manager().set("t~drill", there);
  modify(press)->setFeeder(drill);
  modify(drill)->setFeeder(owned);
  modify(owned)->setSpeed(3);
  modify(at("s~a"))->addChild("zz", drill);
  modify(at("s"))->becomeParentOf("drill");
  manager().mergeBranch("s", "t", {.keepsSource = true});
  EXPECT_EQ(xcptref<Machine>(at("t~a~press"))->getFeeder(), there);
  EXPECT_EQ(at("t~a~zz"), TarnRef(there));
  EXPECT_EQ(there->getParent(), at("t"));
  EXPECT_NE(there->getFeeder(), owned) << "what only a member leads to is copied";
  EXPECT_EQ(there->getFeeder()->getSpeed(), 3);
  EXPECT_EQ(press->getFeeder(), drill) << "the source stays as it is";
  EXPECT_EQ(drill->getFeeder(), owned);
}

TEST_F(ClonerTest, EntriesOfNothingAreNoChildren) {
  for (const bool keepsSource : {false, true}) {
    removeAll();
    grow("s~a=1 s~b=2 t~a=3");
    for (const char* path : {"s", "t"}) {
      for (const char* name : {"0 before", "gone", "zz"}) {
        modify(at(path)->getChildren())->link(name, nullptr);
      }
    }
    manager().set("s~gone", 4);
    modify(at("s")->getChildren())->link("zz", nullptr);
    manager().mergeBranch("s", "t", {.keepsSource = keepsSource});
    EXPECT_EQ(manager().getSint32("t~a"), 1);
    EXPECT_EQ(manager().getSint32("t~b"), 2);
    EXPECT_EQ(manager().getSint32("t~gone"), 4);
  }
}

TEST_F(ClonerTest, MergesSeveralChildrenOfOneName) {
  grow("s~a~x=1 t~b=1");
  for (const int value : {2, 3}) {
    const TarnRef child = TarnObject::Create();
    modify(child)->setValue("x", TarnData(value));
    modify(child)->setValue(std::to_string(value).c_str(), TarnData(value));
    modify(at("s"))->addChild("a", child);
  }
  std::vector<TarnMergeChange> changes;
  TarnCloneOptions options{.changesNothing = true};
  options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  manager().mergeBranch("s", "t", options);
  const auto before = LinesOf(changes);
  changes.clear();
  options.changesNothing = false;
  manager().mergeBranch("s", "t", options);
  EXPECT_EQ(LinesOf(changes), before);
  EXPECT_EQ(picture("t"), "a{2=2 3=3 x=3} b=1");
}

TEST_F(ClonerTest, MergesDeepBranches) {
  std::string path = "d";
  for (int i = 0; i < 20'000; ++i) path += "~d";
  for (const char* top : {"s~", "t~"}) manager().set(top + path + "~v", *top == 's' ? 1 : 2);
  manager().set("s~" + path + "~new", 3);
  manager().mergeBranch("s", "t", {.keepsSource = true});
  EXPECT_EQ(manager().getSint32("t~" + path + "~v"), 1);
  EXPECT_EQ(manager().getSint32("t~" + path + "~new"), 3);
  manager().mergeBranch("s", "t", true);
  EXPECT_TRUE(at("s").is_null());
  EXPECT_EQ(manager().getSint32("t~" + path + "~new"), 3);
}

}  // namespace
}  // namespace tarns
