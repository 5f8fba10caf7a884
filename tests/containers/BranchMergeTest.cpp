// Merges of branches with nodes of every kind in them.
#include <gmock/gmock.h>
#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValueIndex.h>

#include <string>
#include <vector>

#include "bundle_check.h"
#include "cloner_fixture.h"
#include "support/branch_picture.h"
#include "support/throws_tarn.h"

namespace tarns {

namespace {

using testing::ElementsAre;

std::vector<std::string> LinesOf(const std::vector<TarnMergeChange>& changes) {
  std::vector<std::string> lines;
  for (const auto& [path, effect] : changes) lines.push_back(path + ": " + ToText(effect));
  return lines;
}

class BranchMergeTest : public ClonerFixture {};

TEST_F(BranchMergeTest, MergesByRulesAndTellsBefore) {
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

TEST_F(BranchMergeTest, APreviewTellsOfABranchThatIsMergedIntoItsParent) {
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

// A choice sees what an earlier child of the same name would have made of the value.
TEST_F(BranchMergeTest, APreviewWithAChoiceIsWhatTheMergeDoesToSeveralChildrenOfOneName) {
  TarnCloneOptions options;
  options.choose = [](const TarnMergeMeeting& meeting) {
    TarnData source, target;
    const bool areValues = meeting.source->get(nullptr, source) &&
                           meeting.target->get(nullptr, target) &&
                           source.getSint64() > target.getSint64();
    return areValues ? TarnMergeRule::kReplace : TarnMergeRule::kKeep;
  };
  grow("s~a=6 t~a=4");
  modify(at("s"))->addChild("a", TarnValue::CreateValue(TarnData(std::int32_t{5})));
  const auto preview = LinesOf(TarnCloner(options).preview(at("s"), manager().getRoot(), "t"));
  EXPECT_THAT(preview, ElementsAre(": kept", "a: taken over", "a: kept"));
  std::vector<TarnMergeChange> changes;
  options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  manager().mergeBranch("s", "t", options);
  EXPECT_EQ(LinesOf(changes), preview);
  EXPECT_EQ(picture("t"), "a=6");
}

TEST_F(BranchMergeTest, AMergeIsToldOnceHoweverOftenItIsRepeatedAndAPreviewLocksNothing) {
  grow("s~a=1 s~b=2 t~a=3 t~b=4");
  int deadlocks = 2;
  std::vector<TarnMergeChange> changes;
  TarnCloneOptions options{.changesNothing = true};
  options.choose = [&](const TarnMergeMeeting& meeting) {
    const bool isLast = meeting.path == "b";
    if (isLast && --deadlocks >= 0) goods::throw_error(goods::error_code::deadlock, "as if");
    return TarnMergeRule::kReplace;
  };
  options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  deadlocks = 0;
  manager().mergeBranch("s", "t", options);
  const std::vector<std::string> expected{": kept", "a: taken over", "b: taken over"};
  EXPECT_EQ(LinesOf(changes), expected);

  changes.clear();
  options.report = [&](const TarnMergeChange&) {
    EXPECT_FALSE(goods::cache_manager::require().in_transaction());
  };
  manager().mergeBranch("s", "t", options);
  options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  options.changesNothing = false;
  deadlocks = 2;
  manager().mergeBranch("s", "t", options);
  EXPECT_EQ(LinesOf(changes), expected);
  EXPECT_EQ(picture(), "t{a=1 b=2}");
}

TEST_F(BranchMergeTest, ABundleIsMergedAsAWholeOrNotAtAll) {
  const auto grown = [&](const char* path, int first) {
    auto bundle = TarnBundle::Create("Machine");
    manager().set(path, bundle);
    manager().transaction([&] {
      for (int i = first; i < first + 3; ++i) modify(bundle)->newChild(std::to_string(i).c_str());
    });
    return bundle;
  };
  for (const bool keepsSource : {false, true}) {
    for (const auto rule :
         {TarnMergeRule::kKeep, TarnMergeRule::kMergeValues, TarnMergeRule::kReplace}) {
      SCOPED_TRACE(testing::Message() << int(rule) << " copying " << keepsSource);
      const bool isReplaced = rule == TarnMergeRule::kReplace;
      removeAll();
      grown("s~b", 0);
      const auto there = grown("t~b", 2);
      const TarnCloneOptions options{.rule = rule, .keepsSource = keepsSource};
      const std::vector<std::string> expected{": kept", isReplaced ? "b: replaced" : "b: kept"};
      EXPECT_EQ(LinesOf(TarnCloner(options).preview(at("s"), manager().getRoot(), "t")), expected);
      manager().mergeBranch("s", "t", options);
      const xcptref<TarnBundle> merged(at("t~b"));
      EXPECT_EQ(merged == there, !isReplaced);
      EXPECT_THAT(VerifyBundle(merged),
                  isReplaced ? ElementsAre("0", "1", "2") : ElementsAre("2", "3", "4"));
      if (keepsSource) {
        EXPECT_EQ(VerifyBundle(xcptref<TarnBundle>(at("s~b"))).size(), 3U);
      }
      modify(merged)->newChild("new");
      EXPECT_EQ(VerifyBundle(merged).size(), 4U);
    }
  }
}

TEST_F(BranchMergeTest, MergesCollectionsThatAreBalancing) {
  addBalancing("c");
  grow("plain~own=7 plain~1=8");
  manager().mergeBranch("c", "plain", {.rule = TarnMergeRule::kKeep, .keepsSource = true});
  EXPECT_EQ(namesOf("plain").size(), 7U);
  EXPECT_EQ(picture("plain"), "0=0 1=8 2=2 3=3 4=4 5=5 own=7");
  EXPECT_TRUE(xcptref<TarnCollection>(at("c"))->isBalancing());
  // One that is balancing itself goes on with its own old node.
  for (const auto rule : {TarnMergeRule::kReplace, TarnMergeRule::kMergeValues}) {
    const auto there = addBalancing("t");
    const TarnRef old = there->getOld(), child = at("t~4");
    manager().set("s", xcptref<TarnCollection>(new TarnCollection(nullptr)));
    grow("s~4=40 s~new~x=1 s~5=50 s~1=10");
    manager().mergeBranch("s", "t", {.rule = rule, .keepsSource = true});
    EXPECT_EQ(there->getOld(), old);
    EXPECT_EQ(at("t~4"), child);
    EXPECT_EQ(there->getNumChildren(), 7U);
    EXPECT_EQ(picture("t"), "0=0 1=10 2=2 3=3 4=40 5=50 new{x=1}");
  }
}

// A child that wins brings its value; the children stay where they are, and so do their indexes.
TEST_F(BranchMergeTest, ANodeThatGivesWayHandsOnItsValueIndexes) {
  for (const bool keepsSource : {false, true}) {
    removeAll();
    grow("s~a=1 s~a~y~v=3 t~a=\"text t~a~x~v=2");
    TarnValueIndex::Declare(at("t~a"), "v");
    manager().mergeBranch("s", "t", {.keepsSource = keepsSource});
    EXPECT_EQ(picture("t"), "a=1{x{v=2} y{v=3}}");
    EXPECT_THAT(TarnValueIndex::List(at("t~a")), ElementsAre("v"));
    EXPECT_THAT(TarnValueIndex::Check(at("t~a")), testing::IsEmpty());
  }
}

TEST_F(BranchMergeTest, ValuesAreMergedMemberByMemberWhereTheySaySomething) {
  for (const bool keepsSource : {false, true}) {
    removeAll();
    const auto there = addMachine("t~m"), comes = addMachine("s~m"), feeder = Machine::Create();
    modify(there)->setLabel("press");
    modify(there)->setFeeder(feeder);
    modify(there)->setSpeed(1);
    modify(comes)->setSpeed(2);
    manager().mergeBranch("s", "t",
                          {.rule = TarnMergeRule::kMergeValues, .keepsSource = keepsSource});
    EXPECT_EQ(at("t~m"), TarnRef(there));
    EXPECT_EQ(there->getSpeed(), 2);
    EXPECT_EQ(there->getLabel(), "press") << "the other has none";
    EXPECT_EQ(there->getFeeder(), feeder);
  }
}

// References lead to what became of their targets.
TEST_F(BranchMergeTest, ReferencesOfMergedNodesStayWithin) {
  for (const bool keepsSource : {false, true}) {
    SCOPED_TRACE(keepsSource);
    removeAll();
    const auto press = addMachine("s~a~press"), drill = addMachine("s~drill"),
               there = addMachine("t~drill"), owned = Machine::Create();
    addMachine("s~lathe");
    addMachine("t~lathe");
    modify(press)->setFeeder(drill);
    modify(machineAt("s~lathe"))->setFeeder(drill);
    modify(drill)->setFeeder(owned);
    modify(owned)->setSpeed(3);
    modify(at("s~a"))->addChild("zz", drill);
    modify(at("s"))->becomeParentOf("drill");
    manager().mergeBranch("s", "t", {.keepsSource = keepsSource});
    EXPECT_EQ(machineAt("t~lathe")->getFeeder(), there);
    EXPECT_EQ(there->getParent(), at("t"));
    EXPECT_EQ(there->getFeeder() == owned, !keepsSource) << "what only a member leads to";
    EXPECT_EQ(there->getFeeder()->getSpeed(), 3);
    EXPECT_EQ(press->getFeeder(), drill) << "the source, or what has moved, stays as it is";
    EXPECT_EQ(drill->getFeeder(), owned);
    if (!keepsSource) continue;
    EXPECT_EQ(machineAt("t~a~press")->getFeeder(), there);
    EXPECT_EQ(at("t~a~zz"), TarnRef(there));
  }
}

// Where the member cannot lead to what became of its target, it leads to that.
TEST_F(BranchMergeTest, AReferenceTakesNoNodeOfAnotherClass) {
  modify(addMachine("s~press"))->setFeeder(addMachine("s~drill"));
  grow("t~drill=5");
  manager().mergeBranch("s", "t", {.rule = TarnMergeRule::kKeep, .keepsSource = true});
  EXPECT_EQ(machineAt("t~press")->getFeeder(), machineAt("s~drill"));
}

TEST_F(BranchMergeTest, EntriesOfNothingAreNoChildren) {
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

TEST_F(BranchMergeTest, MergesSeveralChildrenOfOneName) {
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

TEST_F(BranchMergeTest, MergesDeepBranches) {
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
