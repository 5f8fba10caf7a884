// Several replicas that change at random, with exports that are lost, late, doubled and out of
// order. TARNS_SYNC_CHANGES says how many changes each side makes, TARNS_SYNC_SEED where chance
// begins.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "containers/SyncSite.h"

namespace tarns {
namespace {

using Outcome = BundleImport::Outcome;

std::uint64_t Setting(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

class SyncPropertyTest : public testing::Test {
 protected:
  struct Options {
    std::size_t sites, changesEach, names;
    bool mayBeSetBack;
  };
  // What was done last to a name, by the stamp that decides: the text, nothing when deleted.
  using Stamp = std::tuple<std::uint64_t, std::string>;  // revision, replica
  using Last = std::pair<Stamp, std::string>;

  void run(const Options& options, std::uint64_t seed) {
    SCOPED_TRACE(testing::Message() << "TARNS_SYNC_SEED=" << seed);
    options_ = options;
    random_.seed(seed);
    last_.clear();
    kept_.clear();
    mail_.clear();
    sites_.clear();
    unmarked_.assign(options.sites, {});
    for (std::size_t i = 0; i < options.sites; ++i) sites_.push_back(std::make_unique<SyncSite>());
    // Who has no partner yet remembers no deletions, so no revision of one decides anything.
    ExchangeAll(sites_);
    for (auto& site : sites_) site->save();
    for (std::size_t i = 0; i < options.changesEach * options.sites; ++i) {
      change(i % options.sites);
      if (below(12) == 0) post();
      if (below(12) == 0) deliver();
      if (options.mayBeSetBack && below(40) == 0) any().save();
      if (options.mayBeSetBack && below(150) == 0) any().setBack();
    }
    for (std::size_t i = 0; i < sites_.size(); ++i) settleUnmarked(i);
    noteKept();
    while (!mail_.empty()) deliver();
    ExchangeAll(sites_);
    if (options.mayBeSetBack) dropThoseThatAreNoMore();
    verify();
  }

 private:
  std::size_t below(std::size_t bound) { return random_() % bound; }
  SyncSite& any() { return *sites_[below(sites_.size())]; }

  void change(std::size_t which) {
    SyncSite& site = *sites_[which];
    const std::string label = std::to_string(random_());
    if (options_.mayBeSetBack && below(10) == 0) return site.create("kept" + label, label);
    const std::string name = "n" + std::to_string(below(options_.names));
    if (!site.has(name)) {
      site.create(name, label);
      return note(which, name);
    }
    switch (below(8)) {
      case 0:
      case 1:
        site.remove(name);
        return note(which, name);
      case 2:
        if (const std::string other = name + "r"; !site.has(other)) {
          site.in([&] { modify(site.bundle())->renameBundledChild(name.c_str(), other.c_str()); });
          note(which, name);
          return note(which, other);
        }
        return;
      case 3:
        site.in([&] { site.manager().set(SyncSite::PathOf(name) + "~more~" + label, 1); });
        break;
      case 4:
        site.in([&] { site.manager().deleteBranch(SyncSite::PathOf(name).c_str()); });
        break;
      default:
        site.change(name, label);
    }
    if (below(2) == 0 && site.has(name)) {
      site.in([&] { modify(site.bundle())->markChanged(name.c_str()); });
      note(which, name);
    } else {
      unmarked_[which].insert(name);
    }
  }

  // Remembers what has just got a revision.
  void note(std::size_t which, const std::string& name) {
    unmarked_[which].insert(name);  // it may have got its values since
    noteLast(which, name);
  }
  void noteLast(std::size_t which, const std::string& name) {
    SyncSite& site = *sites_[which];
    const auto revision = site.in([&] { return site.bundle()->getRevisionOf(name.c_str()); });
    if (revision == 0) return;  // came and went unnoticed
    const Stamp stamp{revision, site.replica()};
    Last& last = last_[name];
    if (stamp >= last.first) last = {stamp, site.text(name)};
  }
  void settleUnmarked(std::size_t which) {
    sites_[which]->notice();
    for (const std::string& name : unmarked_[which]) noteLast(which, name);
    unmarked_[which].clear();
  }

  // What a site has that nobody has ever deleted.
  void noteKept() {
    for (auto& site : sites_) {
      for (const auto& [name, text] : site->contents()) {
        if (name.starts_with("kept")) kept_[name] = text;
      }
    }
  }

  // One that was set back to before it had its name: nobody can tell it from one that is silent.
  void dropThoseThatAreNoMore() {
    std::set<std::string> present;
    for (auto& site : sites_) present.insert(site->replica());
    for (auto& site : sites_) {
      for (const BundlePartner& partner : site->partners()) {
        if (present.contains(partner.replica)) continue;
        site->in([&] { BundleSync(site->bundle()).dropPartner(partner.replica); });
      }
    }
    ExchangeAll(sites_);
  }

  void post() {
    const std::size_t from = below(sites_.size()), to = below(sites_.size());
    if (from == to) return;
    settleUnmarked(from);
    mail_.push_back({to, sites_[from]->exportTo(*sites_[to])});
  }
  // One of those that are under way: kept for another time, too, or lost, now and then.
  void deliver() {
    if (mail_.empty()) return;
    const std::size_t i = below(mail_.size());
    const Letter letter = mail_[i];
    if (below(4) != 0) mail_.erase(mail_.begin() + static_cast<std::ptrdiff_t>(i));
    if (below(5) == 0) return;
    settleUnmarked(letter.to);
    const BundleImport result = sites_[letter.to]->import(letter.text);
    if (options_.mayBeSetBack) return;
    EXPECT_NE(result.outcome, Outcome::kPartnerSetBack);
    EXPECT_NE(result.outcome, Outcome::kSetBack);
  }

  void verify() {
    const auto expected = sites_[0]->contents();
    for (auto& site : sites_) {
      EXPECT_EQ(site->contents(), expected);
      EXPECT_EQ(site->notice(), 0U);
      EXPECT_EQ(site->deletions(), 0U);
    }
    for (const auto& [name, text] : kept_) {
      const auto found = expected.find(name);
      EXPECT_EQ(found == expected.end() ? std::string() : found->second, text) << name;
    }
    if (options_.mayBeSetBack) return;  // what a site has lost of its own, nobody has to have
    for (const auto& [name, last] : last_) {
      const auto found = expected.find(name);
      EXPECT_EQ(found == expected.end() ? std::string() : found->second, last.second) << name;
    }
  }

  struct Letter {
    std::size_t to;
    std::string text;
  };
  Options options_{};
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<SyncSite>> sites_;
  std::vector<std::set<std::string>> unmarked_;  // of each site: changed without a word
  std::vector<Letter> mail_;
  std::map<std::string, Last> last_;
  std::map<std::string, std::string> kept_;
};

TEST_F(SyncPropertyTest, TwoBundlesBecomeEqualAndLoseNothing) {
  const std::uint64_t changes = Setting("TARNS_SYNC_CHANGES", 300);
  const std::uint64_t seed = Setting("TARNS_SYNC_SEED", std::random_device()());
  const std::size_t names = std::max<std::uint64_t>(200, changes / 5);
  run({.sites = 2, .changesEach = changes, .names = names, .mayBeSetBack = false}, seed);
}

TEST_F(SyncPropertyTest, ManyBundlesBecomeEqualAndLoseNothing) {
  const std::uint64_t seed = Setting("TARNS_SYNC_SEED", std::random_device()());
  for (std::uint64_t i = 0; i < 6; ++i) {
    run({.sites = 3 + i % 2, .changesEach = 60, .names = 12, .mayBeSetBack = false}, seed + i);
    if (HasFailure()) return;
  }
}

TEST_F(SyncPropertyTest, BundlesBecomeEqualWhereDatabasesAreSetBack) {
  const std::uint64_t seed = Setting("TARNS_SYNC_SEED", std::random_device()());
  for (std::uint64_t i = 0; i < 6; ++i) {
    run({.sites = 2 + i % 3, .changesEach = 150, .names = 12, .mayBeSetBack = true}, seed + i);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace tarns
