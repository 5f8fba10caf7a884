// Writes by path in transactions of a session that has nothing in memory: what they pass is taken
// from what the storage hands over together, and texts are written without their nodes.
#include <gmock/gmock.h>
#include <goods/event.h>
#include <goods/obj_storage.h>
#include <tarns/core/TarnValue.h>

#include <chrono>
#include <string>
#include <string_view>
#include <thread>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::_;

class PassingWritesTest : public session_test {
 protected:
  PassingWritesTest() {
    other_.connect(configuration().c_str());
    other_.setLockTimeout(std::chrono::milliseconds(1));
    std::jthread([this] {
      const TarnAttachment attachment(other_);
      for (const char* name : {"a", "b", "c"}) other_.set(std::string("press~") + name, "old");
      other_.set("press~count", 1);
    }).join();
  }

  template <class Work>
  void inOther(const Work& work) {
    std::jthread([&] {
      const TarnAttachment attachment(other_);
      work(other_);
    }).join();
  }

  TarnManager other_;
};

TEST_F(PassingWritesTest, NeighboursThatOthersChangeMeanwhileAreSeenAsTheyAre) {
  {
    TarnTransaction transaction(manager());
    manager().set("press~a", "mine");
    inOther([](TarnManager& other) {
      other.set("press~b", "theirs");
      other.set("press~count", 5);
    });
    EXPECT_EQ(manager().getXString("press~b"), "theirs");
    manager().set("press~c", "mine");
    TarnValue::AddToChild(manager().getObject("press"), "count", 1);
    EXPECT_EQ(manager().getXString("press~a"), "mine");
    transaction.commit();
  }
  EXPECT_EQ(picture("press"), "a=mine b=theirs c=mine count=6");
  reopen();
  EXPECT_EQ(picture("press"), "a=mine b=theirs c=mine count=6");
}

TEST_F(PassingWritesTest, ATextIsStoredAloneAndItsNodeLocked) {
  goods::obj_storage& storage = manager().db().storage(0);
  for (const char* text : {"first", "second"}) {
    const std::uint64_t before = storage.bytes_written();
    TarnTransaction transaction(manager());
    manager().set("press~a", text);
    inOther([](TarnManager& other) {
      EXPECT_THAT([&] { other.set("press~a", "theirs"); }, ThrowsTarn(101, _));
      TarnTransaction reads(other);
      EXPECT_THAT([&] { other.getXString("press~a"); }, ThrowsTarn(101, _));
      reads.rollback();
    });
    manager().set("press~a", std::string(text) + "!");
    transaction.commit();
    EXPECT_LE(storage.bytes_written() - before, std::string_view(text).size() + 4);
    inOther([&](TarnManager& other) {
      EXPECT_EQ(other.getXString("press~a"), (std::string(text) + "!").c_str());
    });
  }
}

TEST_F(PassingWritesTest, ItsTextIsTheNodesForThoseWhoWatchAndRemember) {
  goods::event hasChanged;
  manager().db().getCacheManager().signal_on_modification(manager().getObject("press~a").id(),
                                                          &hasChanged);
  inOther([](TarnManager& other) {
    for (const char* text : {"first", "second"}) {
      other.transaction([&] {
        other.set("press~a", text);
        EXPECT_EQ(other.getXString("press~a"), text);
      });
      EXPECT_EQ(other.getXString("press~a"), text);
    }
    other.transaction([&] {
      other.set("press~b", "moved");
      other.moveBranch("press~b", "press~z");
      other.set("press~c", "gone");
      other.deleteBranch("press~c");
    });
  });
  EXPECT_TRUE(hasChanged.wait(std::chrono::seconds(20)));
  EXPECT_EQ(picture("press"), "a=second count=1 z=moved");
}

TEST_F(PassingWritesTest, WhatIsRolledBackIsAsItWas) {
  {
    TarnTransaction transaction(manager());
    manager().set("press~a", "mine");
    manager().set("press~count", 7);
    manager().set("press~d", "new");
    transaction.rollback();
  }
  EXPECT_EQ(picture("press"), "a=old b=old c=old count=1");
}

}  // namespace
}  // namespace tarns
