// Branches with very many children as text, which several threads write.
#include "examples/Machine.h"

#include <gtest/gtest.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValues.h>
#include <tarns/util/PInOut.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>

#include "support/random_tree.h"
#include "support/rewritten_objects.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

class TextInPiecesTest : public session_test {
 protected:
  // Of a branch with a list that is between others.
  std::string text() {
    std::ostringstream out;
    manager().exportTo("all", out);
    return out.str();
  }
  // A transaction belongs to one thread.
  std::string textOfOneThread() {
    const TarnTransaction transaction(manager());
    return text();
  }
  void expectSame() {
    const std::string expected = textOfOneThread();
    for (int round = 0; round < 3; ++round) {
      reopen();  // so that all is read from the file
      ASSERT_TRUE(text() == expected);
    }
    std::istringstream in(expected);
    manager().importTo("all", in);
    EXPECT_TRUE(text() == expected);
    manager().deleteBranch("all");
  }
  TarnRef top() {
    manager().set("all~a", 1);
    manager().set("all~z~1", 1);
    return manager().getNoFail("all~top");
  }
};

TEST_F(TextInPiecesTest, IsWhatOneThreadWrites) {
  // Of plain nodes and values, with wide and with large children.
  manager().transaction([&] {
    const TarnRef node = top();
    for (int i = 0; i < 4'000; ++i) {
      const std::string name = std::to_string(i * 7919 % 4'000);
      modify(node)->setValue((name + "~a value").c_str(), i);
      if (i % 3 == 0) modify(node)->setValue((name + "~b~c").c_str(), " to be quoted");
      if (i % 5 == 0) modify(node)->setValue((name + "~b~d~e").c_str(), "");
      if (i % 500 == 0) modify(node)->addChild(name.c_str(), TarnValue::CreateValue(i));
    }
    for (int i = 0; i < 300; ++i) modify(node)->addChild("same", TarnValue::CreateValue(i));
    // Lists in lists, several of them in one piece.
    for (const char* list : {"wide~", "wide~w500~", "wide~w500~w7~", "wider~", "wider~w5~"}) {
      for (int i = 0; i < 1'500; ++i) {
        modify(node)->setValue((list + ("w" + std::to_string(i))).c_str(), i);
      }
    }
    for (const char* name : {"large", "0", "later", "same"}) {
      modify(node)->addChild(name, TarnValue::CreateValue(std::string(5'000'000, 'x').c_str()));
    }
    for (int i = 0; i < 100; ++i) {
      modify(node)->setValue(("page~" + std::to_string(i)).c_str(),
                             std::string(90'000, 'x').c_str());
    }
    modify(node)->setValue("emptied~gone", 1);
    modify(node->getChildWithName("emptied"))->deleteChild("gone");
  });
  expectSame();
  // Of nodes of all kinds, among them references from one to another, and circles.
  for (std::uint64_t number = 0; number < 4; ++number) {
    manager().transaction([&] {
      const TarnRef node = top();
      for (std::uint64_t i = 0; i < 1'100; ++i) {
        const TarnRef child = TarnObject::Create();
        modify(node)->addChild(std::to_string(i).c_str(), child);
        if (i % (1 + 100 * number) != 0) continue;
        random_tree(child, number * 10'000 + i, random_tree::links::any);
      }
      // Listed before their place in the tree, and behind it.
      for (const char* name : {"7x", "900x"}) {
        const TarnRef child = TarnObject::Create();
        modify(node->getChildWithName("500"))->addChild("listed", child);
        modify(node)->addChild(name, child);
      }
      modify(node->getChildWithName("77"))->addChild("circle", node);
      modify(manager().getObject("all~z"))->addChild("listed", node->getChildWithName("123"));
    });
    expectSame();
  }
}

TEST_F(TextInPiecesTest, HasEachChildOnceThatIsThereThroughout) {
  constexpr int kChildren = 3'000;
  const auto nameOf = [](int i) { return std::to_string(10'000 + i); };
  manager().transaction([&] {
    for (int i = 0; i < kChildren; i += 2) manager().set("all~" + nameOf(i) + "~value", i);
  });
  std::atomic<bool> isDone = false;
  std::atomic<int> changes = 0;
  std::thread writer([&] {
    const TarnAttachment attachment(manager());
    for (int i = 1; !isDone; i = (i + 2 * 911) % kChildren) {
      ++changes;
      const std::string path = "all~" + nameOf(i);
      manager().set(path + "~value", i);
      if (i % 3 == 0) manager().deleteBranch(path);
      if (i % 7 == 0) manager().set("all~" + nameOf(i - 1) + "~other", i);
      // Backward: what has been written and is met again would be written as a reference to here.
      if (i % 15 != 5 || i < 9) continue;
      const std::string target = "all~" + nameOf(i - 9) + "x";
      manager().deleteBranch(target);
      manager().moveBranch(path, target);
    }
  });
  while (changes == 0) std::this_thread::yield();
  for (int round = 0; round < 10; ++round) {
    std::istringstream in(text());
    const TarnRef copy = manager().importFrom(in);
    int steady = 0;
    std::string last;
    for (const auto& [name, child] : copy->children()) {
      ASSERT_LT(last, name);
      last = name;
      if (name.ends_with('x')) continue;
      const int number = std::stoi(name) - 10'000;
      ASSERT_EQ(child->getSint32("value", number), number);
      if (number % 2 != 0) continue;
      ASSERT_EQ(number, 2 * steady++);
      ASSERT_TRUE(child->hasChild("value"));
    }
    ASSERT_EQ(2 * steady, kChildren);
  }
  isDone = true;
  writer.join();
}

TEST_F(TextInPiecesTest, EndsWhereTheTextCannotBeWritten) {
  manager().transaction([&] {
    for (int i = 0; i < 20'000; ++i) {
      manager().set("all~" + std::to_string(i), std::string(100, 'x'));
    }
  });
  for (std::size_t room : {0, 1'000'000, 2'000'000}) {
    PInOut out;
    out.writeTo([&](std::string_view bytes) {
      if (bytes.size() > room) return false;
      room -= bytes.size();
      return true;
    });
    EXPECT_THAT([&] { manager().exportTo("all", out); },
                ThrowsTarn(ErrorID::TempFileFailure, testing::HasSubstr("disk full")));
    EXPECT_FALSE(out.close());
  }
  expectSame();
}

TEST_F(TextInPiecesTest, NamesAnObjectThatIsDamaged) {
  manager().transaction([&] {
    for (int i = 0; i < 5'000; ++i) manager().set("all~" + std::to_string(i), i);
  });
  const goods::object_id damaged = manager().getObject("all~3333").id();
  close();
  goods::rewrite_object(directory().file("data0/store.db"), goods::number_of(damaged),
                        [](std::vector<std::byte>& body) { body.resize(body.size() / 2); });
  open();
  for (int round = 0; round < 3; ++round) {
    EXPECT_THAT([&] { text(); },
                ThrowsTarn(ErrorID::CorruptData, testing::HasSubstr(std::to_string(damaged))));
  }
}

}  // namespace
}  // namespace tarns
