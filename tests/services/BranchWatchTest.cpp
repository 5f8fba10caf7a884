// What a lasting watch of a branch tells.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/services/TarnBranchWatch.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace {

using namespace std::chrono_literals;
using namespace tarns;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = TarnBranchChange::Kind;

constexpr auto kLong = 20s;

class BranchWatchTest : public session_test {
 protected:
  BranchWatchTest() {
    manager().set("a~number", 1);
    manager().set("a~text", "one");
    manager().set("b~c~d", 1);
  }

  // What the watch tells until it tells of `last`, which is changed for this, as "kind path".
  std::vector<std::string> told(TarnBranchWatch& watch, const std::string& last) {
    manager().set(last, ++marker_);
    std::vector<std::string> all;
    while (true) {
      const auto change = watch.next(kLong);
      if (!change) return {"nothing more"};
      if (change->path == last) return all;
      all.push_back(std::string(NameOf(change->kind)) + " " + change->path +
                    (change->from.empty() ? "" : " from " + change->from));
    }
  }

 private:
  int marker_ = 0;
};

TEST_F(BranchWatchTest, TellsWhatEachCommitChanges) {
  struct Case {
    const char* what;
    std::function<void(TarnManager&)> change;
    std::vector<std::string> told;
  };
  const Case cases[] = {
      {"values",
       [](TarnManager& m) {
         m.set("a~number", 2);
         m.set("a~text", "two");
         m.set("a~number", 3);
       },
       {"changed a~number", "changed a~text", "changed a~number"}},
      {"new nodes, each of them",
       [](TarnManager& m) { m.set("a~x~y", 1); },
       {"added a~x", "added a~x~y"}},
      {"the first child of a value, which stays as it was",
       [](TarnManager& m) { m.set("b~c~d~e", 2); },
       {"added b~c~d~e"}},
      {"moves within the branch",
       [](TarnManager& m) { m.moveBranch("a~x", "b~x"); },
       {"moved b~x from a~x"}},
      {"another name",
       [](TarnManager& m) { modify(m.getObject("b~x~y"))->setName("z"); },
       {"moved b~x~z from b~x~y"}},
      {"a move to a place that is made for it",
       [](TarnManager& m) {
         TarnTransaction transaction(m);
         m.moveBranch("b~x", "f~g~x");
       },
       {"moved f~g~x from b~x", "added f", "added f~g"}},
      {"removal, told of the uppermost",
       [](TarnManager& m) { m.deleteBranch("f"); },
       {"removed f"}},
      {"one commit",
       [](TarnManager& m) {
         TarnTransaction transaction(m);
         m.set("a~number", 9);
         m.deleteBranch("a~text");
         m.set("a~new", 1);
       },
       {"removed a~text", "added a~new", "changed a~number"}},
      {"a node in the place of another",
       [](TarnManager& m) { m.set("a~new", TarnObject::Create()); },
       {"removed a~new", "added a~new"}},
      {"the root's own children", [](TarnManager& m) { m.set("top", 1); }, {"added top"}},
      {"nothing", [](TarnManager& m) { m.getObject("a"); }, {}},
  };
  manager().set("marker", 0);
  TarnBranchWatch watch(manager(), "");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    c.change(manager());
    EXPECT_EQ(told(watch, "marker"), c.told);
  }
}

TEST_F(BranchWatchTest, APathMeansWhateverIsThere) {
  TarnBranchWatch watch(manager(), "m~n");
  struct Step {
    std::function<void(TarnManager&)> change;
    std::vector<std::string> told;
  };
  const Step steps[] = {
      {[](TarnManager& m) { m.set("m", TarnData()); }, {}},  // leads there
      {[](TarnManager& m) { m.set("m~o", 1); }, {}},         // beside it
      {[](TarnManager& m) { m.set("m~n~x", 1); }, {"added m~n", "added m~n~x"}},
      {[](TarnManager& m) { m.moveBranch("m~n", "m~p"); }, {"removed m~n"}},
      {[](TarnManager& m) { m.moveBranch("a", "m~n"); },
       {"added m~n", "added m~n~number", "added m~n~text"}},
      {[](TarnManager& m) { m.moveBranch("m~n~text", "elsewhere"); }, {"removed m~n~text"}},
      {[](TarnManager& m) { m.deleteBranch("m"); }, {"removed m~n"}},
      {[](TarnManager& m) { m.set("m~n", 5); }, {"added m~n"}},
      {[](TarnManager& m) { m.set("m~n", 6); }, {"changed m~n"}},
  };
  for (const Step& step : steps) {
    step.change(manager());
    for (const std::string& expected : step.told) {
      const auto change = watch.next(kLong);
      ASSERT_TRUE(change) << expected;
      EXPECT_EQ(std::string(NameOf(change->kind)) + " " + change->path, expected);
    }
  }
  EXPECT_FALSE(watch.next(0ms));
}

TEST_F(BranchWatchTest, SeesTheCommitsOfAllSessionsInOrder) {
  TarnBranchWatch watch(manager(), "a");
  constexpr int kEach = 300;
  std::vector<std::jthread> writers;
  for (int w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      TarnManager other;
      other.connect(configuration().c_str());
      const TarnAttachment attachment(other);
      for (int i = 0; i < kEach; ++i) other.set(w == 0 ? "a~number" : "a~text", i);
    });
  }
  int numbers = 0, texts = 0;
  std::uint64_t version = 0;
  while (numbers + texts < 2 * kEach) {
    const auto change = watch.next(kLong);
    ASSERT_TRUE(change) << numbers << " and " << texts;
    ASSERT_EQ(change->kind, Kind::Changed);
    EXPECT_GE(change->version, version);
    version = change->version;
    ++(change->path == "a~number" ? numbers : texts);
  }
  EXPECT_EQ(numbers, kEach);
}

// Which the session has not taken in when the watch begins.
TEST_F(BranchWatchTest, TellsNothingOfWhatWasCommittedBefore) {
  TarnManager other;
  other.connect(configuration().c_str());
  for (int i = 0; i < 20; ++i) {
    std::jthread([&] {
      const TarnAttachment attachment(other);
      other.set("a~number", i);
    }).join();
    TarnBranchWatch watch(manager(), "a");
    EXPECT_THAT(told(watch, "a~text"), IsEmpty());
  }
}

// Also when many are looked at together.
TEST_F(BranchWatchTest, ValuesBearTheVersionsOfTheirCommits) {
  TarnBranchWatch watch(manager(), "a");
  const std::uint64_t id = manager().getObjectID("a~number");
  std::vector<std::uint64_t> versions;
  for (int i = 0; i < 500; ++i) {
    manager().set("a~number", 1000 + i);
    versions.push_back(manager().getVersion(id));
  }
  for (const std::uint64_t version : versions) {
    const auto change = watch.next(kLong);
    ASSERT_TRUE(change);
    ASSERT_EQ(change->version, version);
  }
}

TEST_F(BranchWatchTest, SaysWhenAReceiverWasTooSlow) {
  TarnBranchWatch::Options options;
  options.capacity = 10;
  TarnBranchWatch watch(manager(), "a", options);
  for (int i = 0; i < 25; ++i) manager().set("a~number", i + 10);
  std::optional<TarnBranchChange> change;
  int losses = 0, changes = 0;
  while ((change = watch.next(losses == 0 ? kLong : 500ms))) {
    change->kind == Kind::Lost ? ++losses : ++changes;
  }
  EXPECT_GE(losses, 1);  // as many as it took; each in the place of ten
  EXPECT_LT(changes, 25);
  manager().set("a~last", 1);
  change = watch.next(kLong);
  ASSERT_TRUE(change);
  EXPECT_EQ(change->path, "a~last");
}

TEST_F(BranchWatchTest, Ends) {
  TarnBranchWatch::Options options;
  options.mostNodes = 3;
  EXPECT_THAT([&] { TarnBranchWatch(manager(), "", options); },
              ThrowsTarn(111, HasSubstr("too many nodes")));
  TarnBranchWatch watch(manager(), "a");
  EXPECT_FALSE(watch.next(0ms));
  std::jthread stopper([&] { watch.stop(); });
  EXPECT_FALSE(watch.next(kLong));
  TarnManager unconnected;
  EXPECT_THAT([&] { TarnBranchWatch(unconnected, ""); }, ThrowsTarn(4, testing::_));
}

TEST_F(BranchWatchTest, EndsWhenTheBranchBecomesTooLarge) {
  struct Case {
    const char* what;
    std::vector<std::string> added;
  };
  const Case cases[] = {{"in one place", {"a~1", "a~2", "a~3", "a~4", "a~5", "a~6"}},
                        {"in several places", {"a~number~1", "a~text~1"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    manager().deleteBranch("a");
    for (const char* path : {"a~number", "a~text", "a~x"}) manager().set(path, 1);
    TarnBranchWatch::Options options;
    options.mostNodes = 5;  // the root, and what is there now
    TarnBranchWatch watch(manager(), "a", options);
    manager().moveBranch("a~x", "a~y");
    EXPECT_THAT(told(watch, "a~number"), ElementsAre("moved a~y from a~x"));
    manager().transaction([&] {
      for (const std::string& path : c.added) manager().set(path, 1);
    });
    EXPECT_THAT([&] { watch.next(kLong); }, ThrowsTarn(111, HasSubstr("too many nodes")));
  }
}

TEST_F(BranchWatchTest, WaitsAsLongAsItIsTold) {
  TarnBranchWatch watch(manager(), "a");
  EXPECT_FALSE(watch.next(std::chrono::milliseconds::min()));
  std::jthread writer([&] {
    const TarnAttachment attachment(manager());
    std::this_thread::sleep_for(50ms);  // so that a wait that does not wait ends before
    manager().set("a~number", 2);
  });
  EXPECT_TRUE(watch.next(std::chrono::milliseconds::max()));
}

TEST_F(BranchWatchTest, NodesInSeveralPlacesHaveTheirChildrenInOne) {
  manager().set("marker", 0);
  TarnBranchWatch watch(manager(), "");
  const TarnRef c = manager().getObject("b~c");
  modify(manager().getObject("a"))->addChild("c", c);  // the place of the parent from now on
  EXPECT_THAT(told(watch, "marker"),
              testing::UnorderedElementsAre("removed b~c~d", "added a~c", "added a~c~d"));
  manager().set("b~c~d", 7);
  EXPECT_THAT(told(watch, "marker"), ElementsAre("changed a~c~d"));
  modify(manager().getObject("b"))->becomeParentOf("c");
  EXPECT_THAT(told(watch, "marker"),
              testing::UnorderedElementsAre("removed a~c~d", "added b~c~d", "changed b"));
  manager().deleteBranch("b");
  EXPECT_THAT(told(watch, "marker"), ElementsAre("removed b"));
}

// As deep as a walk that recurses would not survive on a small stack, and moved as a whole.
TEST_F(BranchWatchTest, DeepBranches) {
  constexpr int kDepth = 20'000;
  manager().transaction([&] {
    TarnRef node = manager().getNoFail("deep");
    for (int i = 0; i < kDepth; ++i) node = modify(node)->getChildWithNameNoFail("x", "TarnObject");
  });
  manager().set("marker", 0);
  TarnBranchWatch watch(manager(), "");
  manager().moveBranch("deep", "a~deeper");
  EXPECT_THAT(told(watch, "marker"), ElementsAre("moved a~deeper from deep"));
  manager().deleteBranch("a~deeper");
  EXPECT_THAT(told(watch, "marker"), ElementsAre("removed a~deeper"));
}

// A picture of the branch that is kept up to date by what the watch tells is what a reader sees in
// the end, whatever several sessions do at once.
TEST_F(BranchWatchTest, WhoTakesInAllChangesKnowsTheBranch) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  const auto pathOf = [](std::minstd_rand& random) {
    std::string path = "w";
    for (unsigned depth = random() % 3 + 1; depth > 0; --depth) {
      path += "~" + std::string(1, static_cast<char>('a' + random() % 4));
    }
    return path;
  };
  manager().set("w~a", 0);
  std::map<std::string, std::uint64_t> known;  // path to node
  TarnBranchWatch watch(manager(), "w");
  known["w"] = manager().getObjectID("w");
  known["w~a"] = manager().getObjectID("w~a");
  std::vector<std::jthread> writers;
  for (unsigned w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      TarnManager other;
      other.connect(configuration().c_str());
      const TarnAttachment attachment(other);
      std::minstd_rand random(seed + w);
      for (int i = 0; i < 400; ++i) {
        const std::string path = pathOf(random), to = pathOf(random);
        try {
          switch (random() % 5) {
            case 0:
              other.deleteBranch(path);
              break;
            case 1:
              other.moveBranch(path, to);
              break;
            case 2:
              other.copyBranch(path, to);
              break;
            default:
              other.set(path, i);
          }
        } catch (const TarnException& error) {  // no such path, or a path into itself
          EXPECT_LT(error.getErrorID(), 100u) << error.what();
        }
      }
    });
  }
  writers.clear();
  manager().set("w~last", 1);

  const auto takeOut = [&](const std::string& path) {
    std::map<std::string, std::uint64_t> branch;
    for (auto one = known.lower_bound(path); one != known.end();) {
      const bool isBelow = one->first == path || one->first.starts_with(path + "~");
      if (!isBelow && !one->first.starts_with(path)) break;
      if (!isBelow) {
        ++one;
        continue;
      }
      branch.emplace(one->first.substr(path.size()), one->second);
      one = known.erase(one);
    }
    return branch;
  };
  std::vector<TarnBranchChange> together;  // of one version
  const auto apply = [&] {
    std::vector<std::pair<std::string, std::map<std::string, std::uint64_t>>> moved;
    // The deepest first: what moves out of a branch that moves or goes is not part of it any more.
    std::ranges::stable_sort(together, std::greater(), [](const TarnBranchChange& c) {
      return (c.from.empty() ? c.path : c.from).size();
    });
    for (const TarnBranchChange& c : together) {
      if (c.kind == Kind::Removed) takeOut(c.path);
      if (c.kind == Kind::Moved) moved.emplace_back(c.path, takeOut(c.from));
    }
    for (const auto& [path, branch] : moved) {
      for (const auto& [below, id] : branch) known[path + below] = id;
    }
    for (const TarnBranchChange& c : together) {
      if (c.kind == Kind::Added) known[c.path] = c.id;
      EXPECT_NE(c.kind, Kind::Lost);
    }
    together.clear();
  };
  for (bool isLast = false; !isLast;) {
    const auto change = watch.next(kLong);
    ASSERT_TRUE(change);
    if (!together.empty() && change->version != together.front().version) apply();
    // What comes with the last node may follow it; not so when it is changed again after that.
    isLast = change->path == "w~last" && change->kind == Kind::Changed;
    if (change->path == "w~last" && !isLast) manager().set("w~last", 2);
    together.push_back(*change);
  }
  apply();

  std::map<std::string, std::uint64_t> seen{{"w", manager().getObjectID("w")}};
  TarnBranchWalk walk(manager().getObject("w"));
  while (const TarnBranchWalk::Step* step = walk.next()) {
    seen["w~" + walk.path()] = TarnObject::GetObjectID(step->node);
  }
  EXPECT_EQ(known, seen);
}

}  // namespace
