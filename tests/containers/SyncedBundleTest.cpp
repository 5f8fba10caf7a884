// Bundles that are kept equal with bundles in other databases, case by case.
#include <gmock/gmock.h>
#include <tarns/containers/BundleExportFilter.h>
#include <tarns/containers/SyncedBundleDeletion.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <functional>

#include "containers/SyncSite.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Kind = BundleConflict::Kind;
using Outcome = BundleImport::Outcome;

class SyncedBundleTest : public TwoSitesTest {};

TEST_F(SyncedBundleTest, GivesEverythingThatHappensARevision) {
  a().in([&] {
    const auto bundle = a().bundle();
    EXPECT_EQ(bundle->getReplica(), "");
    modify(bundle)->newChild("x");
    EXPECT_EQ(bundle->getRevisionOf("x"), 1U);
    modify(bundle)->newChild("y");
    EXPECT_TRUE(modify(bundle)->markChanged("x"));
    EXPECT_EQ(bundle->getRevisionOf("x"), 3U);
    EXPECT_FALSE(modify(bundle)->markChanged("absent"));
    EXPECT_TRUE(modify(bundle)->renameBundledChild("y", "z"));
    EXPECT_EQ(bundle->getRevision(), 5U);
    EXPECT_EQ(bundle->getRevisionOf("y"), 0U);
    EXPECT_TRUE(modify(bundle)->deleteBundledChild("z"));
    EXPECT_FALSE(modify(bundle)->deleteBundledChild("z"));
    EXPECT_EQ(bundle->getRevision(), 6U);
    EXPECT_EQ(bundle->getNumDeletions(), 0U) << "nobody needs them";
    EXPECT_THAT([&] { modify(bundle)->newChild("x"); }, ThrowsTarn(0, HasSubstr("\"x\"")));
    modify(bundle)->newChild("y");
    EXPECT_THAT([&] { modify(bundle)->renameBundledChild("y", "x"); },
                ThrowsTarn(0, HasSubstr("one object of each name")));
    EXPECT_EQ(bundle->getRevision(), 7U);
  });
  EXPECT_EQ(SyncedBundleDeletion::self_class.getNumDataMembers(), 1U);
}

// By path, through the object's own members and children, and past the bundle.
TEST_F(SyncedBundleTest, NoticesWhatHappensWithoutIt) {
  const std::vector<std::function<void(TarnManager&)>> changes = {
      [](TarnManager& m) { m.set("b~BundledChildren~x~Count", 8); },
      [](TarnManager& m) { m.set("b~BundledChildren~x~Label", "new"); },
      [](TarnManager& m) { m.set("b~BundledChildren~x~Label", "other"); },
      [](TarnManager& m) { m.set("b~BundledChildren~x~key~number", 2); },
      [](TarnManager& m) { m.set("b~BundledChildren~x~some~deep~value", "v"); },
      [](TarnManager& m) { m.deleteBranch("b~BundledChildren~x~some"); },
      [](TarnManager& m) { m.deleteBranch("b~BundledChildren~x"); },
      [](TarnManager& m) { m.set("b~BundledChildren~x", TarnObject::CreateOfType("Drawer")); },
  };
  a().create("x", "old");
  EXPECT_EQ(a().notice(), 1U) << "the label that it got";
  EXPECT_EQ(a().notice(), 0U);
  exchange();
  for (std::size_t i = 0; i < changes.size(); ++i) {
    SCOPED_TRACE(i);
    const auto before = a().in([&] { return a().bundle()->getRevision(); });
    a().in([&] { changes[i](a().manager()); });
    EXPECT_EQ(a().notice(), 1U);
    EXPECT_EQ(a().in([&] { return a().bundle()->getRevision(); }), before + 1);
    EXPECT_EQ(a().notice(), 0U);
    b().import(a().exportFor(b()));
    expectEqual();
  }
  a().in([&] {
    modify(a().manager().getObject("b~BundledChildren"))->addChild("x", TarnObject::Create());
  });
  EXPECT_THAT([&] { a().notice(); }, ThrowsTarn(0, HasSubstr("several objects called \"x\"")));
}

TEST_F(SyncedBundleTest, ForgetsADeletionWhenAllPartnersHaveIt) {
  for (const char* name : {"x", "y"}) a().create(name, name);
  exchange();
  EXPECT_THAT(a().partners(), SizeIs(1));
  a().remove("x");
  EXPECT_EQ(a().deletions(), 1U);
  b().import(a().exportFor(b()));
  EXPECT_FALSE(b().has("x"));
  EXPECT_EQ(a().deletions(), 1U) << "no answer yet";
  a().import(b().exportFor(a()));
  EXPECT_EQ(a().deletions(), 0U);
  a().in([&] { BundleSync(a().bundle()).addPartner("00000000000000ff"); });
  a().remove("y");
  exchange();
  EXPECT_EQ(a().deletions(), 1U) << "the third one has not heard";
  EXPECT_TRUE(a().in([&] { return a().bundle()->isDeletionRemembered("y"); }));
  a().in([&] {
    BundleSync sync(a().bundle());
    EXPECT_THAT([&] { sync.acknowledge("00000000000000ff", 1000); },
                ThrowsTarn(0, HasSubstr("1000")));
    EXPECT_THAT([&] { sync.acknowledge("00000000000000fe", 1); }, ThrowsTarn(0, HasSubstr("fe")));
    EXPECT_TRUE(sync.dropPartner("00000000000000ff"));
    EXPECT_FALSE(sync.dropPartner("00000000000000ff"));
  });
  EXPECT_EQ(a().deletions(), 0U);
  exchange();
  EXPECT_EQ(b().deletions(), 0U);
  expectEqual();
}

// Deletions of before anybody was known, and of while a partner was dropped.
TEST_F(SyncedBundleTest, DeletesWithPartnersThatItDidNotKnow) {
  for (const char* name : {"x", "y", "z"}) a().create(name, name);
  b().import(a().exportSince(0));
  a().remove("x");
  EXPECT_EQ(a().deletions(), 0U);
  exchange();
  EXPECT_FALSE(b().has("x"));
  expectEqual();
  a().in([&] { BundleSync(a().bundle()).dropPartner(b().replica()); });
  a().remove("y");
  b().change("z", "changed meanwhile");
  EXPECT_EQ(a().deletions(), 0U);
  const auto result = a().import(b().exportSince(0));
  EXPECT_EQ(result.outcome, Outcome::kImported);
  EXPECT_FALSE(a().has("y")) << "it was deleted, and not created there";
  exchange();
  EXPECT_FALSE(b().has("y"));
  EXPECT_TRUE(b().has("z"));
  expectEqual();
}

TEST_F(SyncedBundleTest, SettlesConflictsInOneWayOnBothSidesAndReportsThem) {
  struct Side {
    const char* change;  // "" creates nothing, "-" deletes, otherwise the label
    int extra;           // revisions before, which decide
  };
  struct Case {
    bool isThereBefore;
    Side left, right;
    Kind kindAtRight;
    const char* kept;
  };
  const Case cases[] = {
      {true, {"left", 5}, {"right", 0}, Kind::kBothChanged, "left"},
      {true, {"left", 0}, {"right", 5}, Kind::kBothChanged, "right"},
      {true, {"-", 5}, {"right", 0}, Kind::kChangedHereDeletedThere, "-"},
      {true, {"-", 0}, {"right", 5}, Kind::kChangedHereDeletedThere, "right"},
      {true, {"left", 5}, {"-", 0}, Kind::kDeletedHereChangedThere, "left"},
      {false, {"left", 5}, {"right", 0}, Kind::kBothCreated, "left"},
      {false, {"left", 0}, {"right", 5}, Kind::kBothCreated, "right"},
  };
  int number = 0;
  const auto apply = [](SyncSite& site, const std::string& name, const Side& side) {
    site.create("spare", "");
    for (int i = 0; i < side.extra; ++i) {
      site.in([&] { modify(site.bundle())->markChanged("spare"); });
    }
    site.remove("spare");
    if (std::string_view(side.change) == "-") {
      site.remove(name);
    } else if (site.has(name)) {
      site.change(name, side.change);
    } else {
      site.create(name, side.change);
    }
  };
  exchange();
  for (const Case& c : cases) {
    SCOPED_TRACE(number);
    const std::string name = "case" + std::to_string(number++);
    if (c.isThereBefore) a().create(name, "before");
    exchange();
    apply(a(), name, c.left);
    apply(b(), name, c.right);
    const std::string left = a().text(name), right = b().text(name);
    const std::string fromA = a().exportFor(b()), fromB = b().exportFor(a());
    const auto atRight = b().import(fromA);
    const auto atLeft = a().import(fromB);
    // "spare" was created and deleted on both sides; what is left of that is no conflict.
    const auto named = [&](const BundleImport& result) {
      return result.conflicts.empty() ? BundleConflict{} : result.conflicts.front();
    };
    ASSERT_THAT(atRight.conflicts, SizeIs(1));
    ASSERT_THAT(atLeft.conflicts, SizeIs(1));
    EXPECT_EQ(named(atRight).name, name);
    EXPECT_EQ(named(atRight).kind, c.kindAtRight);
    const bool isLeftKept = c.kept == std::string_view(c.left.change);
    EXPECT_EQ(named(atRight).isTheirsKept, isLeftKept);
    EXPECT_EQ(named(atLeft).isTheirsKept, !isLeftKept);
    EXPECT_EQ(named(atRight).lost, isLeftKept ? right : left);
    EXPECT_EQ(named(atLeft).lost, isLeftKept ? right : left);
    EXPECT_EQ(a().text(name), isLeftKept ? left : right);
    expectEqual();
    exchange();
    expectEqual();
  }
}

// As sites have it that settled one conflict by different names of the same replica.
TEST_F(SyncedBundleTest, SettlesOneVersionWithTwoContents) {
  for (const bool isTheirsKept : {false, true}) {
    const std::string name = isTheirsKept ? "x" : "y", told = isTheirsKept ? "zzz" : "aaa";
    a().create(name, "mine");
    exchange();
    a().create("new with " + name, "");
    std::string text = a().exportSince(0);
    const std::string block = "Drawer " + name + "\n      Count 7\n      Label ";
    ASSERT_THAT(text, HasSubstr(block + "mine"));
    ReplaceAll(text, block + "mine", block + told);
    const auto result = b().import(WithChecksum(text));
    ASSERT_THAT(result.conflicts, SizeIs(1));
    EXPECT_EQ(result.conflicts.front().name, name);
    EXPECT_EQ(result.conflicts.front().isTheirsKept, isTheirsKept);
    EXPECT_THAT(result.conflicts.front().lost, HasSubstr(isTheirsKept ? "mine" : told));
    EXPECT_THAT(a().import(b().exportFor(a())).conflicts, IsEmpty());
    EXPECT_THAT(a().text(name), HasSubstr(isTheirsKept ? told : "mine"));
    exchange();
    expectEqual();
    EXPECT_EQ(a().notice() + b().notice(), 0U);
  }
}

TEST_F(SyncedBundleTest, TakesTheSameChangeOnBothSidesForNoConflict) {
  for (const char* name : {"x", "y"}) a().create(name, "before");
  exchange();
  for (SyncSite* site : {&a(), &b()}) {
    site->change("x", "the same");
    site->remove("y");
    site->create("z", "the same, too");
  }
  EXPECT_THAT(b().import(a().exportFor(b())).conflicts, IsEmpty());
  EXPECT_THAT(a().import(b().exportFor(a())).conflicts, IsEmpty());
  expectEqual();
}

TEST_F(SyncedBundleTest, TakesExportsLateTwiceAndOutOfOrder) {
  exchange();
  std::vector<std::string> exports;
  for (int i = 0; i < 4; ++i) {
    a().create("x" + std::to_string(i), "");
    if (i == 2) a().remove("x0");
    exports.push_back(a().exportFor(b()));
  }
  EXPECT_EQ(b().import(exports[1]).outcome, Outcome::kImported);
  EXPECT_EQ(b().import(exports[0]).outcome, Outcome::kAlreadyKnown);
  EXPECT_EQ(b().import(exports[3]).outcome, Outcome::kImported) << "the third one was lost";
  for (const std::string& text : exports) {
    EXPECT_EQ(b().import(text).outcome, Outcome::kAlreadyKnown);
    expectEqual();
  }
  EXPECT_EQ(a().import(exports[3]).outcome, Outcome::kOwn);
}

// An application that exports since the last export, whether that has arrived or not.
TEST_F(SyncedBundleTest, AsksForWhatIsMissing) {
  a().create("x", "");
  const std::string first = a().exportSince(0);
  const auto revision = a().in([&] { return a().bundle()->getRevision(); });
  a().create("y", "");
  const std::string second = a().exportSince(revision);
  EXPECT_THAT(second, Not(HasSubstr("Changed x")));
  EXPECT_EQ(b().import(second).outcome, Outcome::kMissingExport);
  EXPECT_FALSE(b().has("y"));
  EXPECT_TRUE(b().partners().front().lacksExport);
  EXPECT_EQ(b().import(first).outcome, Outcome::kImported);
  EXPECT_EQ(b().import(second).outcome, Outcome::kImported);
  expectEqual();
  exchange();
  // One that was acknowledged and got lost there all the same.
  a().create("z", "");
  a().in([&] { BundleSync(a().bundle()).acknowledge(b().replica(), a().bundle()->getRevision()); });
  a().create("late", "");
  EXPECT_EQ(b().import(a().exportFor(b())).outcome, Outcome::kMissingExport);
  a().import(b().exportFor(a()));
  EXPECT_EQ(b().import(a().exportFor(b())).outcome, Outcome::kImported);
  expectEqual();
}

// The files of one database are put back: it does again, and differently, what others have seen.
TEST_F(SyncedBundleTest, NoticesThatADatabaseWasSetBack) {
  for (const bool isHeardFirst : {true, false}) {
    SCOPED_TRACE(isHeardFirst);
    const std::string tag = isHeardFirst ? "1" : "2";
    a().create("both" + tag, "");
    exchange();
    b().save();
    b().create("lost" + tag, "only a has it then");
    b().change("both" + tag, "of before");
    exchange();
    const std::string known = b().replica();
    b().setBack();
    b().change("both" + tag, "of after");
    b().create("new" + tag, "");
    if (isHeardFirst) {  // what it says is not believed
      EXPECT_EQ(a().import(b().exportFor(a())).outcome, Outcome::kPartnerSetBack);
      EXPECT_FALSE(a().has("new" + tag));
    }
    EXPECT_EQ(b().import(a().exportFor(b())).outcome, Outcome::kSetBack);
    EXPECT_NE(b().replica(), known);
    exchange();
    expectEqual();
    EXPECT_TRUE(b().has("lost" + tag));
    EXPECT_TRUE(a().has("new" + tag));
    EXPECT_THAT(a().partners(), SizeIs(1)) << "the replica that there is no more";
    a().remove("lost" + tag);
    exchange();
    EXPECT_FALSE(b().has("lost" + tag));
    EXPECT_EQ(a().deletions() + b().deletions(), 0U);
  }
}

// A second replica that was made by copying the first one; both go on.
TEST_F(SyncedBundleTest, MakesACopyAnotherReplica) {
  a().create("x", "");
  a().create("y", "");
  a().notice();
  b().becomeBackupOf(a());
  EXPECT_EQ(a().replica(), b().replica());
  b().change("x", "at the copy");
  a().change("y", "at the original");
  exchange();
  EXPECT_NE(a().replica(), b().replica());
  EXPECT_THAT(a().text("x"), HasSubstr("at the copy"));
  EXPECT_THAT(b().text("y"), HasSubstr("at the original"));
  expectEqual();
}

class OnlyNamed : public BundleExportFilter {
 public:
  explicit OnlyNamed(std::string name) : name_(std::move(name)) {}
  bool shouldExport(xcptref<TarnObject> child) override { return child->getName() == name_; }

 private:
  std::string name_;
};

TEST_F(SyncedBundleTest, ExportsWhatTheFilterTakes) {
  for (const char* name : {"x", "y"}) a().create(name, "");
  OnlyNamed filter("x");
  const auto exported = [&] {
    return a().in([&] { return BundleSync(a().bundle()).exportSince(0, &filter); });
  };
  b().create("own", "");
  b().import(exported());
  EXPECT_TRUE(b().has("x"));
  EXPECT_FALSE(b().has("y"));
  a().import(b().exportFor(a()));
  EXPECT_TRUE(a().has("y")) << "b has never had it, and so has not deleted it";
  EXPECT_TRUE(a().has("own"));
  a().remove("x");
  b().import(exported());
  EXPECT_FALSE(b().has("x"));
  EXPECT_TRUE(b().has("own"));
}

TEST_F(SyncedBundleTest, KeepsBranchesThatReferToThemselves) {
  for (SyncSite* site : {&a(), &b()}) {
    site->in([&] { site->manager().set("links", SyncedBundle::Create("TarnObject")); });
  }
  const auto bundleOf = [](SyncSite& site) {
    return xcptref<SyncedBundle>(site.manager().getObject("links"));
  };
  a().in([&] {
    const TarnRef object = modify(bundleOf(a()))->newChild("x");
    const TarnRef child = modify(object)->getChildWithNameNoFail("child", "TarnObject");
    modify(child)->addChild("up", object);
  });
  for (int round = 0; round < 2; ++round) {
    const std::string text = a().in([&] { return BundleSync(bundleOf(a())).exportSince(0); });
    b().in([&] {
      BundleSync(bundleOf(b())).import(text);
      const TarnRef object = bundleOf(b())->getBundledChildWithName("x");
      EXPECT_EQ(object->getChildWithName("child~up"), object);
      EXPECT_EQ(BundleSync(bundleOf(b())).noticeChanges(), 0U);
    });
    a().in([&] { a().manager().set("links~BundledChildren~x~more", 1); });
  }
}

TEST(SyncVersionTest, ComparesLikeSetsOfChanges) {
  const auto parsed = [](const char* text) { return SyncVersion::Parse(text); };
  const char* one = "0000000000000001:5 0000000000000002:7";
  EXPECT_EQ(parsed(one)->str(), one);
  EXPECT_EQ(parsed("")->str(), "");
  for (const char* bad :
       {" ", "1:5", "0000000000000001", "0000000000000001:", "0000000000000001:5 ",
        "0000000000000000:5", "0000000000000001:0", "0000000000000001:-5",
        "0000000000000002:7 0000000000000001:5", "0000000000000001:5  0000000000000002:7",
        "0000000000000001:4611686018427387905", "000000000000000g:5"}) {
    EXPECT_FALSE(parsed(bad)) << bad;
  }
  using Order = SyncVersion::Order;
  SyncVersion left(1, 5), right(1, 5);
  EXPECT_EQ(left.compare(right), Order::kEqual);
  right.add(2, 3);
  EXPECT_EQ(left.compare(right), Order::kBefore);
  EXPECT_EQ(right.compare(left), Order::kAfter);
  left.add(1, 9);
  EXPECT_EQ(left.compare(right), Order::kConcurrent);
  EXPECT_GT(left.stamp(), right.stamp());
  right.join(left);
  EXPECT_EQ(right.compare(left), Order::kAfter);
  right.cutBack(1, 4);
  EXPECT_EQ(right.str(), "0000000000000001:4 0000000000000002:3");
  right.cutBack(1, 0);
  EXPECT_EQ(right.of(1), 0U);
}

// Lives that part twice: who hears of both ends one after the other, and in whatever order, comes
// to the same names.
TEST(SyncMarksTest, GivesWhatWasDoneAfterAnEndOneName) {
  const auto marked = [](std::initializer_list<SyncMarks::Mark> list) {
    SyncMarks marks;
    for (const auto& mark : list) marks.add(mark);
    return marks;
  };
  const auto applied = [](const std::vector<SyncEnds>& steps, SyncMarks marks) {
    std::map<ReplicaID, SyncMarks> all = {{1, std::move(marks)}};
    SyncVersion version(1, 14);
    SyncEnds ends, done;
    for (const SyncEnds& step : steps) {
      for (const auto& [replica, first] : step) AddEnd(ends, replica, first);
      ApplyEnds(ends, done, all, [&](ReplicaID replica, std::uint64_t first, ReplicaID name) {
        return version.rename(replica, first, name);
      });
      done = ends;
    }
    return version.stamp();
  };
  const SyncMarks first = marked({{108, 8}, {110, 10}, {111, 11}, {114, 14}});
  const SyncMarks second = marked({{108, 8}, {110, 10}, {212, 12}, {214, 14}});
  using Stamp = std::pair<std::uint64_t, ReplicaID>;
  EXPECT_EQ(applied({{{1, 11}}}, first), Stamp(14, 111));
  EXPECT_EQ(applied({{{1, 11}}}, second), Stamp(14, 212));
  EXPECT_EQ(applied({{{1, 9}}, {{110, 11}}}, first), Stamp(14, 111));
  EXPECT_EQ(applied({{{1, 9}, {110, 11}}}, second), Stamp(14, 212));
  EXPECT_EQ(applied({{{1, 15}}}, first), Stamp(14, 1));
  // Two lives under one name are found to be two, and marks that nobody has drawn end.
  SyncEnds ends = {{1, 9}};
  std::map<ReplicaID, SyncMarks> both = {{1, first}, {110, marked({{110, 10}, {212, 12}})}};
  ApplyEnds(ends, {}, both, [](auto...) { return false; });
  EXPECT_EQ(ends, (SyncEnds{{1, 9}, {110, 11}}));
  EXPECT_EQ(both.at(111).newest().revision, 14U);
  ends = {{1, 1}, {2, 1}, {3, 1}};
  std::map<ReplicaID, SyncMarks> circle = {{1, marked({{2, 5}, {3, 6}})}};
  EXPECT_THAT([&] { ApplyEnds(ends, {}, circle, [](auto...) { return false; }); },
              ThrowsTarn(15, HasSubstr("circle")));
}

TEST(SyncMarksTest, TellsALifeThatGoesOnFromOneThatBeganAgain) {
  using Relation = SyncMarks::Relation;
  SyncMarks first;
  EXPECT_EQ(first.compare(first), Relation::kSame);
  for (std::uint64_t i = 1; i <= 3; ++i) first.add({100 + i, i});
  SyncMarks second = first;
  second.add({200, 10});
  EXPECT_EQ(first.compare(second), Relation::kEarlier);
  EXPECT_EQ(second.compare(first), Relation::kLater);
  first.add({300, 5});
  EXPECT_EQ(first.compare(second), Relation::kApart);
  EXPECT_EQ(first.lastCommon(second), 3U);
  for (std::uint64_t i = 0; i < SyncMarks::kMax; ++i) second.add({1000 + i, 11 + i});
  EXPECT_EQ(first.compare(second), Relation::kEarlier) << "as far as that can be told";
  EXPECT_EQ(SyncMarks::Parse(second.str())->str(), second.str());
  EXPECT_FALSE(SyncMarks::Parse(second.str() + " 0000000000000001:1000"));
  EXPECT_FALSE(SyncMarks::Parse("0000000000000001:5 0000000000000002:5"));
}

}  // namespace
}  // namespace tarns
