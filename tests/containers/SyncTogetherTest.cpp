// Exchanges while others change the bundle, exchange, too, or are killed.
#include <gmock/gmock.h>
#include <tarns/containers/BundleExportFilter.h>
#include <tarns/containers/BundleSync.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include "containers/SyncSite.h"
#include "support/killed_process.h"
#include "support/run_in_sessions.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

using testing::AnyOf;
using Outcome = BundleImport::Outcome;

// Texts on their way, of which each may be lost or read by several.
class Mail {
 public:
  void post(std::string text) {
    const std::lock_guard guard(lock_);
    newest_ = std::move(text);
  }
  std::string take() {
    const std::lock_guard guard(lock_);
    return newest_;
  }

 private:
  std::mutex lock_;
  std::string newest_;
};

// Two sessions of one site change the bundle and export it, a third one imports what the other
// site, which does both, says meanwhile.
TEST(SyncTogetherTest, SessionsExchangeOneBundleAtATime) {
  constexpr int kRounds = 60;
  SyncSite a, b;
  Mail toA, toB;
  std::atomic<int> busy = 2;
  std::set<std::string> expected[3];
  const auto took = [](const xcptref<SyncedBundle>& bundle, const std::string& text) {
    const auto result = BundleSync(bundle).import(text);
    EXPECT_THAT(result.outcome, AnyOf(Outcome::kImported, Outcome::kAlreadyKnown));
  };
  // Creates objects and deletes some, all with names of its own.
  const auto work = [&](TarnManager& session, int who, Mail& mail) {
    std::minstd_rand random(static_cast<unsigned>(who) + 1);
    const xcptref<SyncedBundle> bundle(session.getObject("b"));
    for (int round = 0; round < kRounds; ++round) {
      const std::string name = std::to_string(who) + "-" + std::to_string(round);
      modify(bundle)->newChild(name.c_str());
      session.set(SyncSite::PathOf(name) + "~Label", round);
      expected[who].insert(name);
      if (random() % 3 == 0) {
        const std::string gone = *expected[who].begin();
        EXPECT_TRUE(modify(bundle)->deleteBundledChild(gone.c_str()));
        expected[who].erase(gone);
      }
      if (random() % 4 == 0) mail.post(BundleSync(bundle).exportSince(0));
    }
  };
  std::thread other([&] {
    b.in([&] {
      const auto import = [&] {
        if (const std::string text = toB.take(); !text.empty()) took(b.bundle(), text);
      };
      std::thread reader([&] {
        b.in([&] {
          while (busy > 0) import();
        });
      });
      work(b.manager(), 2, toA);
      reader.join();
    });
  });
  run_in_sessions(a.manager(), 3, [&](int who, TarnManager& session) {
    if (who < 2) {
      work(session, who, toB);
      --busy;
      return;
    }
    while (busy > 0) {
      if (const std::string text = toA.take(); !text.empty()) {
        took(xcptref<SyncedBundle>(session.getObject("b")), text);
      }
    }
  });
  other.join();
  SyncSite* sites[] = {&a, &b};
  ExchangeAll(sites);
  std::set<std::string> all, found;
  for (const auto& names : expected) all.insert(names.begin(), names.end());
  for (const auto& [name, text] : a.contents()) found.insert(name);
  EXPECT_EQ(found, all);
  EXPECT_EQ(a.contents(), b.contents());
  EXPECT_EQ(a.deletions() + b.deletions() + a.notice() + b.notice(), 0U);
}

// Has another thread do something when the first object is about to be exported.
class Meanwhile : public BundleExportFilter {
 public:
  Meanwhile(SyncSite& site, std::function<void()> work) : site_(site), work_(std::move(work)) {}
  bool shouldExport(xcptref<TarnObject> object) override {
    if (work_) std::thread([this] { site_.in(std::exchange(work_, nullptr)); }).join();
    return BundleExportFilter::shouldExport(object);
  }

 private:
  SyncSite& site_;
  std::function<void()> work_;
};

class SyncMeanwhileTest : public TwoSitesTest {};

// Otherwise "off" and "on" would be exported under one version, which counts as equal for good.
TEST_F(SyncMeanwhileTest, WhatIsChangedDuringAnExportAndBackIsNotTakenForUnchanged) {
  for (const char* name : {"before", "x"}) a().create(name, "new");
  exchange();
  a().change("x", "off");
  a().notice();
  Meanwhile filter(a(), [&] { a().manager().set(SyncSite::PathOf("x") + "~Label", "on"); });
  const auto exported = a().in([&] { return BundleSync(a().bundle()).exportSince(0, &filter); });
  b().import(exported);
  EXPECT_EQ(a().contents(), b().contents());
  a().change("x", "off");
  a().import(b().exportFor(a()));  // which acknowledges "x"
  exchange();
  expectEqual();
}

class SyncKillTest : public session_test {
 protected:
  xcptref<SyncedBundle> bundle() { return xcptref<SyncedBundle>(manager().getObject("synced")); }
  // What there is, by name.
  static std::map<std::string, int> ValuesIn(const xcptref<SyncedBundle>& bundle) {
    std::map<std::string, int> values;
    const TarnRef objects = bundle->getChildWithName(TarnBundle::kBundledChildren);
    if (objects.is_null()) return values;
    for (const auto& [name, object] : objects->children()) {
      values[name] = object->getSint32("value", -1);
    }
    return values;
  }
};

// An import is there as a whole or not at all, and one that is repeated makes it whole.
TEST_F(SyncKillTest, AnImportThatIsKilledIsDoneOrNot) {
  std::minstd_rand random(std::random_device{}());
  SyncSite origin;
  origin.in([&] { origin.manager().set("synced", SyncedBundle::Create("TarnObject")); });
  manager().set("synced", SyncedBundle::Create("TarnObject"));
  const auto theirs = [&] { return xcptref<SyncedBundle>(origin.manager().getObject("synced")); };
  unsigned done = 0;
  for (int cycle = 0; cycle < 12; ++cycle) {
    SCOPED_TRACE(testing::Message() << "cycle " << cycle);
    const auto before = ValuesIn(bundle());
    std::string text;
    std::map<std::string, int> after;
    origin.in([&] {
      origin.manager().transaction([&] {
        for (int i = 0; i < 150; ++i) {
          const std::string name = std::to_string(random() % 300);
          if (modify(theirs())->deleteBundledChild(name.c_str()) && i % 2 == 0) continue;
          modify(modify(theirs())->newChild(name.c_str()))->setValue("value", TarnData(cycle));
        }
      });
      text = BundleSync(theirs()).exportSince(0);
      after = ValuesIn(theirs());
    });
    std::ofstream(configuration() + ".export", std::ios::binary) << text;
    close();
    {
      killed_process importer({PROGRAM_CONTAINER_WRITER, configuration(), "import"});
      ASSERT_EQ(importer.next_line(std::chrono::seconds(20)), "0");
      importer.kill_after(std::chrono::microseconds(random() % 80'000));
    }
    open();
    const auto now = ValuesIn(bundle());
    if (now == after) ++done;
    EXPECT_THAT(now, AnyOf(before, after));
    EXPECT_EQ(BundleSync(bundle()).noticeChanges(), 0U);
    EXPECT_THAT(BundleSync(bundle()).import(text).outcome,
                now == after && before != after ? Outcome::kAlreadyKnown : Outcome::kImported);
    EXPECT_EQ(ValuesIn(bundle()), after);
    BundleSync back(bundle());
    const std::string answer = back.exportSince(0);
    origin.in([&] { BundleSync(theirs()).import(answer); });
  }
  RecordProperty("done", static_cast<int>(done));
}

}  // namespace
}  // namespace tarns
