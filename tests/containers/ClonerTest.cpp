// Copies of branches with nodes of every kind in them.
#include <gmock/gmock.h>
#include <goods/cache_manager.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include <chrono>
#include <functional>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bundle_check.h"
#include "cloner_fixture.h"
#include "support/branch_picture.h"
#include "support/damage.h"
#include "support/random_tree.h"
#include "support/throws_tarn.h"

namespace tarns {

// Does something while it is copied, once.
class Meddler : public TarnObject {
  TARN_CLASS(Meddler, TarnObject)

 public:
  static inline std::function<void()> meddle;
  TarnRef clone() const override {
    if (const auto work = std::exchange(meddle, nullptr)) work();
    return TarnObject::clone();
  }
};
TARN_REGISTER(Meddler, TarnObject);

namespace {

using testing::HasSubstr;

class ClonerTest : public ClonerFixture {};

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

TEST_F(ClonerTest, CopiesACollectionThatIsBalancing) {
  addBalancing("c");
  for (const std::size_t batch : {1, 1000}) {
    copyTo("c", "copy", batch);
    EXPECT_FALSE(xcptref<TarnCollection>(at("copy"))->isBalancing());
    EXPECT_EQ(picture("copy"), "0=0 1=1 2=2 3=3 4=4 5=5");
  }
}

// What a node's own clone() makes beside it belongs to the copy.
TEST_F(ClonerTest, ABlockKeepsTheSlotsThatItsCopyWasMadeWith) {
  const auto slotsOf = [](const TarnRef& blocks) {
    const TarnRef block = blocks->getFirstAbstractChild(nullptr);
    TarnRef slots;
    block->getClass().findMember("Slots")->copyFrom(&*block.read(), slots, "Slots");
    return slots;
  };
  const auto bundle = TarnBundle::Create("Machine");
  manager().set("b", bundle);
  modify(bundle)->newChild("0");
  manager().setCacheLimit(std::size_t{1} << 20);
  TarnRef atFirst;
  int looks = 0;
  const auto look = [&](std::uint64_t) {
    const TarnRef blocks = at(TarnCloner::NameOfUnfinished("copy") + "~Blocks");
    if (blocks.is_null() || blocks->getNumAbstractChildren() == 0) return;
    if (looks == 0) atFirst = slotsOf(blocks);
    EXPECT_EQ(slotsOf(blocks), atFirst);
    EXPECT_NE(slotsOf(at("b~Blocks")), atFirst);
    if (++looks == 9) throw std::runtime_error("enough");
  };
  EXPECT_THROW(manager().copyBranch("b", "copy", {.batchSize = 1, .progress = look}),
               std::runtime_error);
  // Bundles that only members lead to.
  manager().transaction([&] {
    for (const std::string name : {"p~0", "p~1", "p~2"}) {
      const auto holder = TarnBundleBlock::Create();
      const auto held = TarnBundle::Create("Machine");
      modify(holder)->setAt(0, held);
      manager().set(name, holder);
      modify(held)->newChild(name.substr(2).c_str());
    }
  });
  manager().set("q", at("p")->deepClone());
  copyTo("p", "r", 200);
  for (const char* top : {"q", "r"}) {
    for (const char* name : {"0", "1", "2"}) {
      const xcptref<TarnBundleBlock> holder(at(std::string(top) + "~" + name));
      EXPECT_THAT(VerifyBundle(xcptref<TarnBundle>(holder->getAt(0))), testing::ElementsAre(name));
    }
  }
}

TEST_F(ClonerTest, ChildrenOfOneNameAreToldApart) {
  grow("top~p");
  const TarnRef parent = at("top~p"), twice = addMachine("top~z");
  std::vector<xcptref<Machine>> items;
  manager().transaction([&] {
    modify(parent)->addChild("item", twice);
    modify(twice)->addChild("below", Machine::Create());
    modify(parent)->addChild("item", twice);  // which becomes its place
    modify(parent)->addChild("other", at("top~z~below"));
    for (int i = 0; i < 2'000; ++i) {
      items.push_back(Machine::Create());
      modify(items[i])->setSpeed(i);
      modify(items[i])->setFeeder(items[i * 7 / 10]);
      modify(parent)->addChild("item", items[i]);
    }
    modify(items.back())->setFeeder(xcptref<Machine>(twice));
  });
  const branch_picture original(at("top"));
  for (const std::size_t batch : {100, 10'000}) {
    copyTo("top", "copy", batch);
    EXPECT_EQ(branch_picture(at("copy")).differences(original), "");
  }
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
  EXPECT_EQ(picture("a~b~e~f~b"), before);
}

TEST_F(ClonerTest, ACopyThatFailsLeavesNothingOnTheWayEither) {
  grow("a~b~c=1");
  const auto stop = [](std::uint64_t) { throw std::runtime_error("enough"); };
  EXPECT_THROW(manager().copyBranch("a", "x~y~z", {.batchSize = 1, .progress = stop}),
               std::runtime_error);
  EXPECT_EQ(picture(), "a{b{c=1}}");
  manager().copyBranch("a", "x~y~z", TarnCloneOptions{});
  EXPECT_EQ(picture("x"), "y{z{b{c=1}}}");
}

TEST_F(ClonerTest, RefusesWhatItWouldHaveToDeleteFirstAndWhatCannotGoThere) {
  grow("x~left=1 b~c=2");
  manager().moveBranch("x", TarnCloner::NameOfUnfinished("a"));
  addMachine("m");
  struct Case {
    std::string from, to;
    unsigned long id;
    const char* message;
  };
  const std::string left = TarnCloner::NameOfUnfinished("a");
  const Case cases[] = {
      {left, "a", 0, "move it elsewhere"},     {left + "~left", "a", 0, "move it elsewhere"},
      {"b", std::string("a\0b", 3), 8, "NUL"}, {"b", "new~", 8, "empty"},
      {"b", "m~Feeder", 12, "Machine"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.from + " to " + c.to);
    const branch_picture before(manager().getRoot());
    EXPECT_THAT([&] { copyTo(c.from, c.to, 1); }, ThrowsTarn(c.id, HasSubstr(c.message)));
    EXPECT_EQ(branch_picture(manager().getRoot()).differences(before), "");
  }
}

// A transaction of others that holds originals, and the list that the copy grows in.
TEST_F(ClonerTest, WaitsForNobodyBetweenItsBeginningAndItsEnd) {
  addMachine("top~a~machine");
  modify(addMachine("top~z"))->setFeeder(machineAt("top~a~machine"));
  std::uint64_t calls = 0;
  manager().copyBranch("top", "copy",
                       {.batchSize = 1, .progress = [&](std::uint64_t) { ++calls; }});
  manager().setLockTimeout(std::chrono::milliseconds(100));
  std::counting_semaphore<> isHeld(0), mayEnd(0);
  std::jthread holder;
  const std::unique_ptr<std::counting_semaphore<>, void (*)(std::counting_semaphore<>*)> atTheEnd(
      &mayEnd, [](std::counting_semaphore<>* end) { end->release(); });
  manager().copyBranch("top", "copy", {.batchSize = 1, .progress = [&](std::uint64_t) {
                                         if (!holder.joinable()) {
                                           holder = std::jthread([&] {
                                             const TarnAttachment attachment(manager());
                                             manager().transaction([&] {
                                               manager().set("top~a~machine~Speed", 3);
                                               manager().set("new", 1);
                                               isHeld.release();
                                               mayEnd.acquire();
                                             });
                                           });
                                           isHeld.acquire();
                                         }
                                         if (--calls == 0) {
                                           mayEnd.release();
                                           holder.join();
                                         }
                                       }});
  EXPECT_EQ(machineAt("copy~z")->getFeeder(), machineAt("copy~a~machine"));
  EXPECT_EQ(manager().getSint32("new"), 1);
}

// Nodes that are deleted, and collected, and those that are added or moved while it goes on.
TEST_F(ClonerTest, CopiesWhatIsThereWhileOthersChangeTheBranch) {
  for (int i = 0; i < 40; ++i) addMachine("top~" + std::to_string(100 + i) + "~m");
  int calls = 0;
  manager().copyBranch("top", "copy", {.batchSize = 4, .progress = [&](std::uint64_t) {
                                         if (++calls != 3) return;
                                         const auto later = machineAt("top~139~m");
                                         modify(machineAt("top~100~m"))->setFeeder(later);
                                         manager().deleteBranch("top~113");
                                         manager().deleteBranch("top~114~m");
                                         manager().moveBranch("top~100", "top~a");
                                         manager().moveBranch("top~138", "moved");
                                         manager().set("top~999", 5);
                                         EXPECT_TRUE(manager().startGarbageCollection());
                                       }});
  EXPECT_EQ(damage_of(manager()), "");
  EXPECT_GE(at("copy")->getNumAbstractChildren(), 37U);
  for (const auto& [name, child] : at("copy")->children()) {
    EXPECT_EQ(child->getParent(), at("copy")) << name;
    EXPECT_NE(child, at("top~" + name)) << name;
  }
}

// One call, one state: also where it has to begin anew since somebody has committed meanwhile.
TEST_F(ClonerTest, ACopyInOneTransactionIsOfOneState) {
  manager().transaction([&] {
    for (int i = 0; i < 500; ++i) manager().set("top~" + std::to_string(100 + i), 1);
    manager().set("top~1", Meddler::Create());
  });
  Meddler::meddle = [&] {
    std::jthread([&] {
      const TarnAttachment attachment(manager());
      manager().transaction([&] {
        manager().set("top~0", 2);
        for (int i = 0; i < 500; ++i) manager().set("top~" + std::to_string(100 + i), 2);
      });
    });
  };
  manager().copyBranch("top", "top~100~copy");
  EXPECT_FALSE(Meddler::meddle);
  EXPECT_EQ(manager().getSint32("top~100~copy~0"), 2);
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(manager().getSint32("top~100~copy~" + std::to_string(100 + i)), 2);
  }
  EXPECT_EQ(at("top~100~copy~100~copy"), nullptr);
  // What is more than a transaction may take is refused as in any other.
  manager().transaction([&] {
    for (int i = 0; i < 3'000; ++i) {
      manager().set("large~" + std::to_string(i), std::string(500, 'x'));
    }
  });
  manager().setTransactionLimit(std::size_t{1} << 20);
  EXPECT_THAT([&] { manager().copyBranch("large", "copy"); }, ThrowsTarn(103, HasSubstr("1 MiB")));
  EXPECT_EQ(at("copy"), nullptr);
}

// However deep it is: the longest way is gone down once, and nothing is looked for from the top.
TEST_F(ClonerTest, CopiesDeepBranchesInBatches) {
  constexpr int kDepth = 60'000;
  manager().transaction([&] {
    TarnRef at = TarnObject::Create();
    manager().set("deep", at);
    for (int i = 0; i < kDepth; ++i) {
      const TarnRef next = i % 1'000 == 0 ? TarnRef(Machine::Create()) : TarnObject::Create();
      modify(at)->addChild("d", next);
      at = next;
    }
  });
  copyTo("deep", "copy", 5'000);
  TarnBranchWalk original(at("deep")), copy(at("copy"));
  int depth = 0;
  while (const TarnBranchWalk::Step* const step = copy.next()) {
    EXPECT_EQ(step->cls, original.next()->cls);
    ++depth;
  }
  EXPECT_EQ(depth, kDepth);
}

}  // namespace
}  // namespace tarns
