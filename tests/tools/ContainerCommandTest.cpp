// The commands about nodes with very many children.
#include <gmock/gmock.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <string>

#include "support/run_program.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class ContainerCommandTest : public testing::Test {
 protected:
  ContainerCommandTest() { EXPECT_EQ(run({"init"}).status, 0); }

  program_result run(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND, "-d", directory_.file("db")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(all);
  }
  // Runs `work(manager)` in a session of the test's own.
  template <class Work>
  void inSession(const Work& work) {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect((directory_.file("db") + "/tarns.conf").c_str());
    const TarnAttachment attachment(manager);
    work(manager);
  }

  scratch_directory directory_;
};

TEST_F(ContainerCommandTest, BundleTellsWhatItHolds) {
  inSession([](TarnManager& manager) {
    manager.set("empty", TarnBundle::Create("TarnObject"));
    manager.set("b", TarnBundle::Create("TarnSint64Value"));
    const xcptref<TarnBundle> bundle(manager.getObject("b"));
    manager.transaction([&] {
      for (int i = 0; i < 1003; ++i) modify(bundle)->newChild(std::to_string(i).c_str());
    });
  });
  program_result result = run({"bundle", "b"});
  EXPECT_EQ(result.status, 0) << result.err;
  for (const char* part : {"TarnSint64Value", "1003", "BLOCK", "0000", "0997"}) {
    EXPECT_THAT(result.out, HasSubstr(part));
  }
  EXPECT_EQ(run({"--format", "json", "bundle", "b"}).out,
            "{\n  \"class\": \"TarnSint64Value\",\n  \"objects\": 1003,\n  \"blocks\": [\n"
            "    {\"name\": \"0000\", \"used\": 1000, \"free\": 0},\n"
            "    {\"name\": \"0997\", \"used\": 3, \"free\": 997}\n  ]\n}\n");
  EXPECT_EQ(run({"--format", "json", "bundle", "empty"}).out,
            "{\n  \"class\": \"TarnObject\",\n  \"objects\": 0,\n  \"blocks\": []\n}\n");
  EXPECT_EQ(run({"ls", "b~BundledChildren", "--limit", "2"}).out, "0\n1\n");
  EXPECT_EQ(run({"bundle", "absent"}).status, 1);
  EXPECT_EQ(run({"--format", "raw", "bundle", "b"}).status, 2);
  result = run({"bundle", "b~Blocks"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("TarnBundle"));
}

TEST_F(ContainerCommandTest, BalanceMakesACollectionAndKeepsWhatItHolds) {
  inSession([](TarnManager& manager) {
    manager.transaction([&] {
      for (int i = 0; i < 300; ++i) manager.set("m~c~" + std::to_string(i), i);
    });
  });
  EXPECT_EQ(run({"balance", "m~c"}).out, "300 children, height 2\n");
  EXPECT_EQ(run({"get", "m~c~299", "m~c~0"}).out, "299\n0\n");
  EXPECT_THAT(run({"stat", "m~c"}).out, HasSubstr("TarnCollection"));
  EXPECT_EQ(run({"balance", "m~c"}).out, "300 children, height 2\n");
  EXPECT_EQ(run({"balance", "m~absent"}).status, 1);
  EXPECT_EQ(run({"balance", ""}).status, 2);
  EXPECT_EQ(run({"check", "--full"}).status, 0);
}

TEST_F(ContainerCommandTest, BalanceLeavesAloneWhatACollectionDoesNotReplace) {
  inSession([](TarnManager& manager) {
    manager.set("b", TarnBundle::Create("TarnObject"));
    modify(xcptref<TarnBundle>(manager.getObject("b")))->newChild("x");
    manager.set("v", "hello");
    manager.set("v~x", 1);
  });
  for (const char* path : {"b", "v"}) {
    const program_result result = run({"balance", path});
    EXPECT_EQ(result.status, 2) << path;
    EXPECT_THAT(result.err, HasSubstr("plain nodes and collections"));
  }
  EXPECT_EQ(run({"balance", "b~BundledChildren"}).status, 3);
  EXPECT_EQ(run({"get", "v", "v~x"}).out, "hello\n1\n");
  EXPECT_EQ(run({"bundle", "b"}).status, 0);
}

// A balance that was interrupted: another value in the collection's place takes over all children.
TEST_F(ContainerCommandTest, SetKeepsTheChildrenOfACollectionThatIsBalancing) {
  for (const bool isResumed : {false, true}) {
    inSession([](TarnManager& manager) {
      manager.transaction([&] {
        manager.set("c", xcptref<TarnCollection>(new TarnCollection(TarnObject::Create())));
        manager.set("c~new", 1);
        modify(xcptref<TarnCollection>(manager.getObject("c"))->getOld())
            ->setValue("old", TarnData(2));
      });
    });
    if (isResumed) {
      EXPECT_EQ(run({"balance", "c"}).out, "2 children, height 1\n");
    }
    EXPECT_EQ(run({"set", "--type", "String", "c", "x"}).status, 0);
    EXPECT_EQ(run({"get", "c", "c~new", "c~old"}).out, "x\n1\n2\n");
    EXPECT_EQ(run({"rm", "c"}).status, 0);
  }
}

TEST_F(ContainerCommandTest, ImportInBatchesKeepsTheChildrenOfACollectionThatIsBalancing) {
  inSession([](TarnManager& manager) {
    manager.set("old~3~x", 3);
    manager.set("old~4", 4);
    manager.set("c", TarnRef(new TarnCollection(manager.getObject("old"))));
    manager.set("c~1", 1);
  });
  const std::string file = directory_.file("c.txt");
  ASSERT_EQ(run({"export", "c", file}).status, 0);
  const program_result result = run({"import", file, "d", "--batch", "2"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(run({"ls", "d"}).out, "1\n3\n4\n");
  EXPECT_EQ(run({"get", "d~3~x", "d~4"}).out, "3\n4\n");
  EXPECT_EQ(run({"check", "--full"}).status, 0);
}

TEST_F(ContainerCommandTest, IndexesAreDeclaredUsedAndGivenUp) {
  inSession([](TarnManager& manager) {
    for (int i = 0; i < 50; ++i) manager.set("p~c" + std::to_string(i) + "~v", i % 10);
  });
  const std::vector<std::string> find{"find", "p", "--where", "v = 7", "--explain"};
  program_result result = run(find);
  EXPECT_EQ(result.out, "p~c17\np~c27\np~c37\np~c47\np~c7\n");
  EXPECT_THAT(result.err, HasSubstr("looked at 50 children of \"p\""));
  EXPECT_EQ(run({"index", "add", "p", "v"}).status, 0);
  EXPECT_EQ(run({"index", "add", "p", "v"}).status, 2);
  EXPECT_EQ(run({"index", "ls", "p"}).out, "v\n");
  EXPECT_EQ(run({"--format", "json", "index", "ls", "p"}).out, "[\"v\"]\n");
  result = run(find);
  EXPECT_EQ(result.out, "p~c17\np~c27\np~c37\np~c47\np~c7\n");
  EXPECT_THAT(result.err, HasSubstr("looked at 5 entries of the index of \"v\" of \"p\""));
  EXPECT_EQ(run({"set", "p~c8~v", "7"}).status, 0);
  EXPECT_THAT(run(find).out, HasSubstr("p~c8\n"));
  EXPECT_EQ(run({"check", "--full"}).status, 0);
  EXPECT_EQ(run({"index", "rebuild", "p", "v"}).status, 0);
  EXPECT_EQ(run({"index", "drop", "p", "v"}).status, 0);
  EXPECT_EQ(run({"index", "drop", "p", "v"}).status, 1);
  EXPECT_EQ(run({"index", "ls", "p"}).out, "");
}

}  // namespace
}  // namespace tarns
