#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/schema/TarnMember.h>

#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

TEST(TarnMemberTest, SplitsElementNamesAtTheLastSeparator) {
  struct Case {
    const char *name, *base;
    unsigned long index;
  };
  const Case cases[] = {{"a_b_7", "a_b", 7}, {"Items_3", "Items", 3}, {"x__0", "x_", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    XString base;
    unsigned long index = 99;
    TarnMember::FromElementName(c.name, &base, &index);
    EXPECT_EQ(base, c.base);
    EXPECT_EQ(index, c.index);
    EXPECT_EQ(TarnMember::GetElementName(c.base, c.index), c.name);
    EXPECT_TRUE(TarnMember::HasElementIndex(c.name));
  }
  EXPECT_FALSE(TarnMember::HasElementIndex("Items"));
  XString base;
  TarnMember::FromElementName("a_x", &base, nullptr);
  EXPECT_EQ(base, "a");
}

TEST(TarnMemberTest, RefusesOtherNamesAndChangesNothing) {
  XString base("before");
  unsigned long index = 99;
  for (const char* name : {"_7", "a", "", "_"}) {
    EXPECT_THAT(
        [&] { TarnMember::FromElementName(name, &base, &index); },
        ThrowsTarn(0, "Could not parse the base name and index from \"" + std::string(name) +
                          "\" because the separator ('_') is missing."));
  }
  EXPECT_THAT(
      [&] { TarnMember::FromElementName("a_x", &base, &index); },
      ThrowsTarn(0,
                 "Could not parse the base name and index from \"a_x\" because the index is "
                 "not an integer."));
  for (const char* name : {"a_1,234", "a_ 1", "a_+1", "a_"}) {
    EXPECT_THAT([&] { TarnMember::FromElementName(name, &base, &index); },
                ThrowsTarn(0, HasSubstr("not an integer")))
        << name;
    EXPECT_FALSE(TarnMember::ParseIndex(name + 2).has_value());
  }
  EXPECT_EQ(base, "before");
  EXPECT_EQ(index, 99U);
  EXPECT_EQ(TarnMember::ParseIndex("-0"), 0);
  EXPECT_EQ(TarnMember::ParseIndex("007"), 7);
}

}  // namespace
}  // namespace tarns
