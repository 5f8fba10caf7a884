#include <goods/cache_manager.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnData.h>

#include <cstddef>
#include <string_view>

#include "core/node_access.h"
#include "examples/Machine.h"
#include "support/allocation_count.h"
#include "support/stored_tree.h"

namespace tarns {
namespace {

TEST(AllocationTest, AValueAllocatesOnceForATextAndNeverForANumber) {
  const TarnData text("a text that no small string optimisation would hold");
  TarnData reused("a text that no small string optimisation would hold either");
  const std::size_t before = allocation_count();
  {
    TarnData empty;
    TarnData number(5);
    number.set(2.5);
    empty = number;
    EXPECT_EQ(empty.getSint32() + static_cast<int>(number.getUint8()), 4);
    EXPECT_EQ(text.getSint64(), 0);
    reused = text;
  }
  EXPECT_EQ(allocation_count(), before);
  {
    TarnData copied = text;
    copied.add(TarnData());
    const TarnData number(5);
    EXPECT_STREQ(number.getString(), "5");
    EXPECT_STREQ(number.getString(), "5");
  }
  EXPECT_EQ(allocation_count(), before + 2);
}

TEST(AllocationTest, WalkingAPathAllocatesNothing) {
  const std::size_t before = allocation_count();
  std::size_t length = 0;
  for (const std::string_view branch : TarnBranches("a~a branch of more than a few characters~b")) {
    length += branch.size();
  }
  EXPECT_EQ(length, 40U);
  EXPECT_EQ(allocation_count(), before);
}

TEST(AllocationTest, ReadingByPathAllocatesNothingButTheTextThatItHandsOut) {
  stored_tree tree;
  modify(tree.root())->setValue("a branch of more than a few characters~b~number", TarnData(5));
  modify(tree.root())->setValue("a branch of more than a few characters~b~text", TarnData("text"));
  modify(tree.root())->addChild("press", Machine::Create());
  modify(tree.root())->setValue("press~Feeder~a gauge of more than a few characters", TarnData(5));
  const TarnRef root = tree.root();
  const auto read = [&](const char* name) {
    TarnData out;
    const bool found = goods::read_here(
        [&](goods::reader& reader) { return ReadValue(reader, *reader.get(root), name, out); });
    EXPECT_TRUE(found);
  };
  const char* numbers[] = {"a branch of more than a few characters~b~number",
                           "press~Feeder~a gauge of more than a few characters", "press~Loads_2"};
  const char* text = "a branch of more than a few characters~b~text";
  for (const char* number : numbers) read(number);
  read(text);
  const std::size_t before = allocation_count();
  for (const char* number : numbers) {
    for (int i = 0; i < 10; ++i) read(number);
    EXPECT_EQ(allocation_count(), before) << number;
  }
  for (int i = 0; i < 10; ++i) read(text);
  EXPECT_EQ(allocation_count(), before + 10);
}

}  // namespace
}  // namespace tarns
