#include <gtest/gtest.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnData.h>

#include <cstddef>
#include <string_view>

#include "support/allocation_count.h"

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

}  // namespace
}  // namespace tarns
