// Synchronised bundles at three sites and more: who may conclude what from whom.
#include <gmock/gmock.h>
#include <tarns/containers/BundleExportFilter.h>

#include <array>
#include <memory>
#include <set>
#include <vector>

#include "containers/SyncSite.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Kind = BundleConflict::Kind;
using Outcome = BundleImport::Outcome;

// Keeps objects back whose names are in the set.
class Without : public BundleExportFilter {
 public:
  explicit Without(std::set<std::string, std::less<>> hidden) : hidden_(std::move(hidden)) {}
  bool shouldExport(xcptref<TarnObject> child) override {
    return !hidden_.contains(child->getName().view());
  }

 private:
  std::set<std::string, std::less<>> hidden_;
};

BundleImport Send(SyncSite& from, SyncSite& to) { return to.import(from.exportTo(to)); }

class SyncPartnersTest : public testing::Test {
 protected:
  SyncPartnersTest() {
    for (int i = 0; i < 3; ++i) sites_.push_back(std::make_unique<SyncSite>());
  }
  SyncSite& a() { return *sites_[0]; }
  SyncSite& b() { return *sites_[1]; }
  SyncSite& c() { return *sites_[2]; }
  void exchange() { ExchangeAll(sites_); }
  void exchange(SyncSite& one, SyncSite& other) {
    std::array<SyncSite*, 2> both = {&one, &other};
    ExchangeAll(both);
  }
  void expectEqual() {
    for (SyncSite* site : {&b(), &c()}) EXPECT_EQ(site->contents(), a().contents());
    for (auto& site : sites_) EXPECT_EQ(site->notice(), 0U);
  }
  std::vector<std::string> namesAt(SyncSite& site) {
    std::vector<std::string> names;
    for (const auto& [name, text] : site.contents()) names.push_back(name);
    return names;
  }

 private:
  std::vector<std::unique_ptr<SyncSite>> sites_;
};

// --- Exports that are not for everybody ---

TEST_F(SyncPartnersTest, RefusesWhatLeavesOutWhatAnotherOneHas) {
  a().create("x", "");
  exchange();
  a().create("y", "");
  Send(a(), b());
  b().create("z", "");
  const std::string forA = b().exportFor(a());
  EXPECT_EQ(c().import(forA).outcome, Outcome::kNotForUs);
  EXPECT_FALSE(c().has("z"));
  EXPECT_EQ(a().import(forA).outcome, Outcome::kImported);
  exchange();
  EXPECT_THAT(namesAt(c()), UnorderedElementsAre("x", "y", "z"));
  expectEqual();
}

// --- Set back ---

// In each case A, B and C are equal, A has two lives, and B and C know of one of them each.
TEST_F(SyncPartnersTest, LosesNothingWhereOneWasSetBackAmongThree) {
  struct Case {
    const char* what;
    std::function<void(SyncSite&, SyncSite&, SyncSite&)> happens;
    std::vector<std::pair<const char*, const char*>> expected;  // name and label
  };
  const auto createTwo = [](SyncSite& site, const char* name, const char* label) {
    site.create(name, label);
    site.create("filler", "");  // as many revisions in both lives
    site.remove("filler");
  };
  const Case cases[] = {
      {"the first life is known through a third one only",
       [&](SyncSite& a, SyncSite& b, SyncSite& c) {
         createTwo(a, "w", "first");
         Send(a, c);
         Send(c, b);
         a.setBack();
         createTwo(a, "u", "second");
         EXPECT_EQ(Send(a, b).outcome, Outcome::kPartnerSetBack);
         EXPECT_EQ(Send(b, a).outcome, Outcome::kSetBack);
       },
       {{"u", "second"}, {"w", "first"}}},
      {"each of the others knows one life",
       [&](SyncSite& a, SyncSite& b, SyncSite& c) {
         createTwo(a, "w", "first");
         Send(a, b);
         a.setBack();
         createTwo(a, "u", "second");
         Send(a, c);
         EXPECT_EQ(Send(b, a).outcome, Outcome::kSetBack);
         Send(c, a);
         Send(a, b);
       },
       {{"u", "second"}, {"w", "first"}}},
      {"the others meet before it hears of anything",
       [&](SyncSite& a, SyncSite& b, SyncSite& c) {
         createTwo(a, "w", "first");
         Send(a, b);
         a.setBack();
         createTwo(a, "u", "second");
         Send(a, c);
         EXPECT_EQ(Send(b, c).outcome, Outcome::kImported);
         EXPECT_EQ(Send(c, b).outcome, Outcome::kImported);
         EXPECT_EQ(Send(a, c).outcome, Outcome::kPartnerSetBack);
       },
       {{"u", "second"}, {"w", "first"}}},
      {"an object was changed in the first life",
       [&](SyncSite& a, SyncSite& b, SyncSite& c) {
         a.change("z", "first");
         Send(a, b);
         a.setBack();
         createTwo(a, "u", "second");
         Send(a, c);
         EXPECT_EQ(Send(b, a).outcome, Outcome::kSetBack);
         Send(a, c);
         Send(b, a);
         Send(a, c);
       },
       {{"u", "second"}, {"z", "first"}}},
      {"and nothing has happened in the second one",
       [&](SyncSite& a, SyncSite& b, SyncSite&) {
         a.change("z", "first");
         Send(a, b);
         a.setBack();
       },
       {{"z", "first"}}},
      {"deleted in the first life, changed in the second",
       [&](SyncSite& a, SyncSite& b, SyncSite& c) {
         a.remove("z");
         Send(a, b);
         a.setBack();
         createTwo(a, "u", "second");
         a.change("z", "second");
         Send(a, c);
       },
       {{"u", "second"}, {"z", "second"}}},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.what);
    for (const char* name : {"z", "u", "w"}) {
      if (a().has(name)) a().remove(name);
    }
    a().create("z", "before");
    exchange();
    a().save();
    one.happens(a(), b(), c());
    exchange();
    expectEqual();
    for (const auto& [name, label] : one.expected) {
      EXPECT_THAT(a().text(name), HasSubstr(std::string("Label ") + label)) << name;
    }
    exchange();
    for (SyncSite* site : {&a(), &b(), &c()}) {
      EXPECT_THAT(site->partners(), SizeIs(2)) << "those that there are";
      EXPECT_EQ(site->deletions(), 0U);
    }
  }
}

// What it had not touched again is not newer than what others have made of it.
TEST_F(SyncPartnersTest, GivesWhatWasNotTouchedAgainNoNewRank) {
  a().create("x", "old");
  exchange();
  a().change("x", "in both lives");
  a().notice();
  a().save();
  Send(a(), b());
  b().change("x", "on top of it");
  b().notice();
  a().setBack();
  for (int i = 0; i < 20; ++i) a().create("more" + std::to_string(i), "");
  EXPECT_EQ(Send(b(), a()).outcome, Outcome::kSetBack);
  exchange();
  expectEqual();
  EXPECT_THAT(c().text("x"), HasSubstr("on top of it"));
}

// Two sites with the same files: neither of them is told apart from the other by its home.
TEST_F(SyncPartnersTest, TellsTwoSitesWithTheSameFilesApart) {
  a().create("x", "");
  exchange(a(), c());
  b().takeFilesOf(a());
  a().create("ofA", "");
  b().create("ofB", "");
  Send(a(), c());
  EXPECT_EQ(Send(b(), c()).outcome, Outcome::kPartnerSetBack);
  exchange();
  expectEqual();
  EXPECT_THAT(namesAt(c()), UnorderedElementsAre("ofA", "ofB", "x"));
}

// The original of a copy may live, and only read.
TEST_F(SyncPartnersTest, RemembersAnOriginalThatIsHeardOfAgain) {
  a().create("x", "");
  exchange(a(), c());
  b().becomeBackupOf(a());
  b().create("y", "");
  Send(b(), c());
  const auto original = [&] {
    for (const auto& partner : c().partners()) {
      if (partner.replica == a().replica()) return partner;
    }
    ADD_FAILURE() << "the original is no partner";
    return BundlePartner();
  };
  EXPECT_TRUE(original().isReplaced);
  EXPECT_EQ(c().import(a().exportFor(c())).outcome, Outcome::kAlreadyKnown);
  EXPECT_FALSE(original().isReplaced);
  c().remove("x");
  exchange(b(), c());
  EXPECT_EQ(c().deletions(), 1U) << "the original does not know";
  exchange();
  expectEqual();
  EXPECT_EQ(c().deletions(), 0U);
  c().in([&] { BundleSync(c().bundle()).dropPartner(a().replica()); });
}

// --- Filters ---

TEST_F(SyncPartnersTest, GivesAllThatWasKeptBackWhenThereIsNoFilter) {
  struct Case {
    const char* what;
    bool isFilteredFirst, isNewBetween;
  };
  for (const Case& one :
       {Case{"the whole one second", true, false}, Case{"with changes in between", true, true},
        Case{"the whole one late", false, true}}) {
    SCOPED_TRACE(one.what);
    const std::string tag = one.what;
    Without filter({"hidden " + tag});
    a().create("hidden " + tag, "");
    a().create("shown " + tag, "");
    const std::string whole = a().exportTo(b());
    const auto filtered = [&] {
      return a().in([&] { return BundleSync(a().bundle()).exportSince(0, &filter); });
    };
    const std::string first = filtered();
    if (one.isNewBetween) a().create("more " + tag, "");
    b().import(one.isNewBetween ? filtered() : first);
    EXPECT_TRUE(b().has("shown " + tag));
    EXPECT_FALSE(b().has("hidden " + tag));
    Send(b(), a());
    EXPECT_TRUE(a().has("hidden " + tag));
    b().import(one.isFilteredFirst ? a().exportFor(b()) : whole);
    EXPECT_TRUE(b().has("hidden " + tag));
    exchange();
    expectEqual();
  }
}

TEST_F(SyncPartnersTest, RemembersDeletionsAndProgressWithAPartnerThatIsAlwaysFiltered) {
  Without filter({"hidden"});
  const auto round = [&] {
    const std::string partner = b().replica();
    auto result = b().import(a().in([&] {
      BundleSync sync(a().bundle());
      return partner.empty() ? sync.exportSince(0, &filter) : sync.exportFor(partner, &filter);
    }));
    EXPECT_EQ(result.outcome, Outcome::kImported);
    Send(b(), a());
    return result;
  };
  for (const char* name : {"hidden", "x", "y"}) a().create(name, "");
  b().create("own", "");
  b().notice();
  a().in([&] { BundleSync(a().bundle()).addPartner(b().replica()); });
  EXPECT_EQ(round().created, 2U);
  a().remove("x");
  const auto result = round();
  EXPECT_EQ(result.deleted, 1U);
  EXPECT_EQ(result.unchanged, 0U) << "only what is new";
  EXPECT_EQ(a().deletions(), 0U);
  EXPECT_THAT(namesAt(b()), UnorderedElementsAre("own", "y"));
}

// Whoever hears from somebody who hears filtered exports concludes as before.
TEST_F(SyncPartnersTest, ForgetsNoDeletionBecauseOfAFilterElsewhere) {
  for (const char* name : {"hidden", "x"}) a().create(name, "");
  exchange(a(), c());
  c().save();
  Without filter({"hidden"});
  b().import(a().in([&] { return BundleSync(a().bundle()).exportSince(0, &filter); }));
  Send(b(), a());
  a().remove("x");
  exchange(a(), c());
  Send(a(), b());
  Send(b(), a());
  EXPECT_EQ(a().deletions(), 0U);
  // One that the deletion was told to, and that has forgotten it.
  c().setBack();
  EXPECT_TRUE(c().has("x"));
  exchange();
  expectEqual();
  EXPECT_THAT(namesAt(c()), UnorderedElementsAre("hidden"));
}

// --- Conflicts that are none ---

TEST_F(SyncPartnersTest, ReportsNoConflictWhereADeletedObjectIsCreatedAnew) {
  b().create("x", "first");
  exchange();
  a().remove("x");
  EXPECT_THAT(Send(a(), b()).conflicts, IsEmpty());
  EXPECT_THAT(Send(b(), a()).conflicts, IsEmpty());
  a().in([&] { BundleSync(a().bundle()).dropPartner(c().replica()); });
  EXPECT_EQ(a().deletions(), 0U) << "forgotten";
  EXPECT_EQ(b().deletions(), 1U) << "and remembered";
  a().create("x", "second");
  EXPECT_THAT(Send(a(), b()).conflicts, IsEmpty());
  EXPECT_THAT(Send(b(), a()).conflicts, IsEmpty());
  EXPECT_THAT(c().import(a().exportSince(0)).conflicts, IsEmpty()) << "which has the first one";
  exchange();
  expectEqual();
  EXPECT_THAT(c().text("x"), HasSubstr("second"));
  // A change that nobody had seen is one.
  a().change("x", "of a");
  b().change("x", "of b");
  EXPECT_THAT(Send(a(), b()).conflicts, SizeIs(1));
}

}  // namespace
}  // namespace tarns
