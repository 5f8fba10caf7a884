// Nodes and branches by path.
#include <gmock/gmock.h>

#include "examples/Machine.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class ManagerBranchesTest : public session_test {
 protected:
  // Makes values from "a~b=1 c=2"; a piece without "=" is a plain node.
  void grow(std::string_view description) {
    while (!description.empty()) {
      const std::string_view piece = description.substr(0, description.find(' '));
      const std::size_t equals = piece.find('=');
      if (equals == std::string_view::npos) {
        manager().set(piece);
      } else {
        manager().set(piece.substr(0, equals), piece.substr(equals + 1));
      }
      description.remove_prefix(std::min(piece.size() + 1, description.size()));
    }
  }
};

TEST_F(ManagerBranchesTest, FindsNodesByPathAndByIdentifier) {
  grow("a~b=1");
  for (const char* path : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(manager().getObject(path), manager().getRoot());
  }
  EXPECT_TRUE(manager().getObject("a~x").is_null());
  EXPECT_EQ(manager().getObjectID("a~x"), 0U);
  const std::uint64_t id = manager().getObjectID("a~b");
  EXPECT_EQ(manager().getObject(id), manager().getObject("a~b"));
  EXPECT_EQ(manager().getObject(id | 0xABCD'0000'0000'0000), manager().getObject("a~b"));
  EXPECT_EQ(manager().getObject(std::uint64_t{65536}), manager().getRoot());
  struct Case {
    std::uint64_t id;
    unsigned long error;
    const char* message;
  };
  const Case cases[] = {
      {(1ULL << 32) | 70000, 7, "Object ID 1:70000 specifies a non-existent storage."},
      {65535, 14,
       "Object ID 0:65535 is trying to retrieve an object from the class definition domain "
       "[0 .. 65536)."},
  };
  for (const Case& c : cases) {
    EXPECT_THAT([&] { manager().getObject(c.id); }, ThrowsTarn(c.error, c.message));
  }
  EXPECT_THAT([&] { manager().getObject(std::uint64_t{4'000'000'000}); },
              ThrowsTarn(108, testing::_));
}

TEST_F(ManagerBranchesTest, ListsChildren) {
  grow("n~b=1 n~a=2 n~c~d=3");
  EXPECT_EQ(manager().getNumChildren("n"), 3U);
  EXPECT_STREQ(manager().getChildName("n", 1), "b");
  XStringList names;
  manager().getChildNames("n", names);
  EXPECT_EQ(names, XStringList({"a", "b", "c"}));
  EXPECT_EQ(manager().getChildNames("n", "a", 1), std::vector<std::string>{"b"});
  EXPECT_EQ(manager().getChildNames("n~c", "", 9), std::vector<std::string>{"d"});
  EXPECT_EQ(manager().getChildNames("n~a", "", 9), std::vector<std::string>());
  std::string seen;
  for (const auto& [name, child] : manager().children("n")) seen += name;
  EXPECT_EQ(seen, "abc");
  const auto missing = ThrowsTarn(7, "The specified path \"n~x\" does not exist.");
  EXPECT_THAT([&] { manager().getNumChildren("n~x"); }, missing);
  EXPECT_THAT([&] { manager().getChildName("n~x", 0); }, missing);
  EXPECT_THAT([&] { manager().getChildNames("n~x", names); }, missing);
  EXPECT_THAT([&] { manager().getChildNames("n~x", "", 9); }, missing);
}

TEST_F(ManagerBranchesTest, GetNoFailAndAddUniqueMakeWhatIsMissing) {
  const TarnRef made = manager().getNoFail("a~b", "TarnSint16Value");
  EXPECT_EQ(manager().getNoFail("a~b", "TarnObject"), made);
  EXPECT_STREQ(made->getType(), "TarnSint16Value");
  EXPECT_THAT([&] { manager().getNoFail("x~y", "NoSuchClass"); },
              ThrowsTarn(3, HasSubstr("NoSuchClass")));
  EXPECT_STREQ(manager().addUnique("l~log", TarnObject::Create()), "log");
  EXPECT_STREQ(manager().addUnique("l~log", TarnObject::Create()), "log_0");
  EXPECT_EQ(picture(), "a{b=0} l{log{} log_0{}}") << "nothing is left of what failed";
}

TEST_F(ManagerBranchesTest, DeletesCopiesAndMoves) {
  struct Case {
    const char* name;
    std::function<void(TarnManager&)> change;
    const char* after;
  };
  const Case cases[] = {
      {"delete below", [](auto& m) { EXPECT_TRUE(m.deleteBranch("a~b")); }, "a{} d=2"},
      {"delete on top", [](auto& m) { EXPECT_TRUE(m.deleteBranch("a")); }, "d=2"},
      {"delete nothing", [](auto& m) { EXPECT_FALSE(m.deleteBranch("a~x~y")); }, "a{b{c=1}} d=2"},
      {"delete the root", [](auto& m) { EXPECT_FALSE(m.deleteBranch("")); }, "a{b{c=1}} d=2"},
      {"copy", [](auto& m) { m.copyBranch("a", "x~y"); }, "a{b{c=1}} d=2 x{y{b{c=1}}}"},
      {"copy over", [](auto& m) { m.copyBranch("a~b", "d"); }, "a{b{c=1}} d{c=1}"},
      {"copy into itself", [](auto& m) { m.copyBranch("a", "a~b~e"); }, "a{b{c=1 e{b{c=1}}}} d=2"},
      {"copy onto itself", [](auto& m) { m.copyBranch("a", "a"); }, "a{b{c=1}} d=2"},
      {"move", [](auto& m) { m.moveBranch("a~b", "x~y"); }, "a{} d=2 x{y{c=1}}"},
      {"move over", [](auto& m) { m.moveBranch("a~b~c", "d"); }, "a{b{}} d=1"},
      {"rename", [](auto& m) { m.moveBranch("d", "e"); }, "a{b{c=1}} e=2"},
      {"move to where it is", [](auto& m) { m.moveBranch("a~b", "a~b"); }, "a{b{c=1}} d=2"},
      {"move over its parent", [](auto& m) { m.moveBranch("a~b", "a"); }, "a{c=1} d=2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    while (manager().getNumChildren("") > 0) manager().deleteBranch(manager().getChildName("", 0));
    grow("a~b~c=1 d=2");
    c.change(manager());
    EXPECT_EQ(picture(), c.after);
    reopen();
    EXPECT_EQ(picture(), c.after);
  }
}

TEST_F(ManagerBranchesTest, AMoveKeepsTheIdentifierAndACopyDoesNot) {
  grow("a~b=1");
  const std::uint64_t id = manager().getObjectID("a~b");
  manager().moveBranch("a~b", "c");
  manager().copyBranch("c", "d");
  EXPECT_EQ(manager().getObjectID("c"), id);
  EXPECT_NE(manager().getObjectID("d"), id);
}

TEST_F(ManagerBranchesTest, WhatCannotBeMovedStaysWhereItIs) {
  grow("a~b~c=1");
  struct Case {
    const char *from, *to;
    unsigned long error;
    const char* message;
  };
  const Case cases[] = {
      {"x", "y", 7, "The specified path \"x\" does not exist."},
      {"a", "a~b", 0, "lies within the branch itself"},
      {"a", "a~new~parents", 0, "lies within the branch itself"},
      {"a~b", "", 0, "the root"},
      {"", "a", 0, "lies within the branch itself"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.from << " to " << c.to);
    const auto failure = ThrowsTarn(c.error, HasSubstr(c.message));
    EXPECT_THAT([&] { manager().moveBranch(c.from, c.to); }, failure);
    EXPECT_EQ(picture(), "a{b{c=1}}");
    if (*c.to == '\0') continue;  // merging into the root is possible
    EXPECT_THAT([&] { manager().mergeBranch(c.from, c.to, true); }, failure);
    EXPECT_EQ(picture(), "a{b{c=1}}");
  }
  EXPECT_THAT([&] { manager().copyBranch("x", "y"); }, ThrowsTarn(7, testing::_));
}

TEST_F(ManagerBranchesTest, MergesBranches) {
  struct Case {
    const char *name, *tree, *from, *to;
    const char *overwritten, *kept;
  };
  const Case cases[] = {
      {"what is missing comes along", "s~x=1 s~y~z=2 t~w=3", "s", "t", "t{w=3 x=1 y{z=2}}",
       "t{w=3 x=1 y{z=2}}"},
      {"nothing is there", "s~x=1", "s", "t~u", "t{u{x=1}}", "t{u{x=1}}"},
      {"both have a value", "s~x=1 t~x=2 t~y=3", "s", "t", "t{x=1 y=3}", "t{x=2 y=3}"},
      {"at any depth", "s~a~b~x=1 s~a~n=4 t~a~b~x=2", "s", "t", "t{a{b{x=1} n=4}}",
       "t{a{b{x=2} n=4}}"},
      {"a value meets a node", "s~x=1 t~x~y=2", "s", "t", "t{x=1{y=2}}", "t{x{y=2}}"},
      {"a node meets a value", "s~x~y=1 t~x=2", "s", "t", "t{x{y=1}}", "t{x=2{y=1}}"},
      {"into its parent", "t~s~x=1 t~s~s=2 t~x=3", "t~s", "t", "t{s=2 x=1}", "t{s=2 x=3}"},
      {"into the root", "s~x=1 s~s=5 x=2", "s", "", "s=5 x=1", "s=5 x=2"},
  };
  for (const Case& c : cases) {
    for (const bool overwrite : {true, false}) {
      SCOPED_TRACE(testing::Message() << c.name << (overwrite ? ", overwriting" : ", keeping"));
      while (manager().getNumChildren("") > 0) {
        manager().deleteBranch(manager().getChildName("", 0));
      }
      grow(c.tree);
      manager().mergeBranch(c.from, c.to, overwrite);
      EXPECT_EQ(picture(), overwrite ? c.overwritten : c.kept);
    }
  }
}

TEST_F(ManagerBranchesTest, MergesANodeThatIsNotStoredAndBranchesInCircles) {
  const TarnRef loose = TarnObject::Create();
  modify(loose)->setValue("x~y", 1);
  grow("t~x~z=2");
  manager().mergeBranch(loose, "t", false);
  EXPECT_EQ(picture(), "t{x{y=1 z=2}}");
  // Both branches list themselves as a child.
  for (const char* name : {"p", "q"}) {
    manager().set(name);
    const TarnRef node = manager().getObject(name);
    modify(node)->addChild("self", node);
  }
  manager().mergeBranch("p", "q", true);
  EXPECT_TRUE(manager().getObject("p").is_null());
  EXPECT_FALSE(manager().getObject("q~self~self").is_null());
}

TEST_F(ManagerBranchesTest, MovesAndMergesActOnThePlaceThatThePathNames) {
  struct Case {
    const char* name;
    std::function<void(TarnManager&)> change;
    const char* after;
  };
  // n is a child of p2 as b, and only listed by p1 as a.
  const Case cases[] = {
      {"move the entry", [](auto& m) { m.moveBranch("p1~a", "x"); },
       "p1{} p2{b{v=1}} t{v{w=2}} x{v=1}"},
      {"move the place", [](auto& m) { m.moveBranch("p2~b", "x"); },
       "p1{a{v=1}} p2{} t{v{w=2}} x{v=1}"},
      {"merge the entry into nothing", [](auto& m) { m.mergeBranch("p1~a", "x", true); },
       "p1{} p2{b{v=1}} t{v{w=2}} x{v=1}"},
      {"merge the entry", [](auto& m) { m.mergeBranch("p1~a", "t", true); },
       "p1{} p2{b{}} t{v=1{w=2}}"},
      {"replace the entry",
       [](auto& m) {
         m.set("s", 5);
         m.mergeBranch("s", "p1~a", true);
       },
       "p1{a=5{v=1}} p2{b{}} t{v{w=2}}"},
      {"replace the place",
       [](auto& m) {
         m.set("s", 5);
         m.mergeBranch("s", "p2~b", true);
       },
       "p1{a{}} p2{b=5{v=1}} t{v{w=2}}"},
      {"copy onto the entry", [](auto& m) { m.copyBranch("t", "p1~a"); },
       "p1{a{v{w=2}}} p2{b{v=1}} t{v{w=2}}"},
      {"delete the entry", [](auto& m) { m.deleteBranch("p1~a"); }, "p1{} p2{b{v=1}} t{v{w=2}}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    while (manager().getNumChildren("") > 0) manager().deleteBranch(manager().getChildName("", 0));
    grow("p1 p2~b~v=1 t~v~w=2");
    const TarnRef listing = manager().getObject("p1"), n = manager().getObject("p2~b");
    modify(listing)->addChild("a", n);
    modify(manager().getObject("p2"))->becomeParentOf("b");
    ASSERT_EQ(n->getName(), "b");
    c.change(manager());
    EXPECT_EQ(picture(), c.after);
    reopen();
    EXPECT_EQ(picture(), c.after);
  }
}

TEST_F(ManagerBranchesTest, NothingWinsOverTheRoot) {
  grow("v=5 v~c=1 w~d=2");
  const std::string before = picture();
  EXPECT_THAT([&] { manager().mergeBranch("v", "", true); },
              ThrowsTarn(0, HasSubstr("the root stays what it is")));
  EXPECT_EQ(picture(), before);
  manager().mergeBranch("w", "", true);
  EXPECT_EQ(picture(), "d=2 v=5{c=1}");
  manager().mergeBranch("v", "", false);
  EXPECT_EQ(picture(), "c=1 d=2");
  for (const char* from : {"c", ""}) {
    EXPECT_THAT([&] { manager().copyBranch(from, ""); }, ThrowsTarn(0, HasSubstr("the root")));
  }
}

TEST_F(ManagerBranchesTest, BranchesInMembersAreMovedMergedAndReplacedThere) {
  const xcptref<Machine> press = Machine::Create();
  manager().set("press", press);
  manager().set("press~Feeder~Speed", 7);
  manager().moveBranch("press~Feeder", "drill");
  EXPECT_TRUE(press->getFeeder().is_null());
  EXPECT_EQ(manager().getSint32("drill~Speed"), 7);
  manager().set("press~Feeder~Speed", 8);
  const TarnRef feeder = press->getFeeder();
  manager().mergeBranch("drill", "press~Feeder", true);
  EXPECT_EQ(press->getFeeder(), feeder) << "of the same class: members are taken over";
  EXPECT_EQ(press->getFeeder()->getSpeed(), 7);
  manager().set("t", 1);
  EXPECT_THAT([&] { manager().mergeBranch("t", "press~Feeder", true); },
              ThrowsTarn(12, HasSubstr("Machine")));
  EXPECT_EQ(press->getFeeder(), feeder);
  EXPECT_EQ(manager().getSint32("t"), 1);
  manager().mergeBranch("press~Feeder", "t~u", false);
  EXPECT_TRUE(press->getFeeder().is_null());
  EXPECT_EQ(manager().getSint32("t~u~Speed"), 7);
}

TEST_F(ManagerBranchesTest, MergesMoreChildrenThanAreReadAtATime) {
  constexpr int kChildren = 1000;
  manager().transaction([&] {
    for (int i = 0; i < kChildren; ++i) {
      manager().set("s~" + std::to_string(i), i);
      manager().set("t~" + std::to_string(i + kChildren / 2), -1);
    }
  });
  manager().mergeBranch("s", "t", true);
  EXPECT_EQ(manager().getNumChildren("t"), kChildren * 3UL / 2);
  EXPECT_EQ(manager().getSint32("t~999"), 999);
  EXPECT_EQ(manager().getSint32("t~0"), 0);
  EXPECT_EQ(manager().getSint32("t~1000"), -1);
  EXPECT_FALSE(manager().getObject("s~5"));
}

TEST_F(ManagerBranchesTest, CollectsWhatWasDeletedAndKeepsWhatIsHeld) {
  grow("keep~a=1 drop~x~y=2 held~z=3");
  const std::uint64_t gone = manager().getObjectID("drop~x~y");
  const xcptref<TarnObject> held = manager().getObject("held");
  const std::string before = picture("keep");
  manager().deleteBranch("drop");
  manager().deleteBranch("held");
  EXPECT_TRUE(manager().startGarbageCollection());
  EXPECT_THAT([&] { manager().getObject(gone); }, ThrowsTarn(108, HasSubstr("identifier")));
  EXPECT_EQ(held->getSint32("z", 0), 3);
  EXPECT_EQ(picture("keep"), before);
  manager().set("back", held);
  reopen();
  EXPECT_EQ(picture(), "back{z=3} keep{a=1}");
}

}  // namespace
}  // namespace tarns
