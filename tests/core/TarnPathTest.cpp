#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnPath.h>

#include <algorithm>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

using Branches = std::deque<std::string>;

std::string Joined(const Branches& branches) {
  std::string text;
  for (const std::string& branch : branches) {
    if (!text.empty()) text += '~';
    text += branch;
  }
  return text;
}

// Branch names of a few characters that matter for the order.
rc::Gen<Branches> SomeBranches() {
  const auto name = rc::gen::nonEmpty(
      rc::gen::container<std::string>(rc::gen::elementOf(std::string("ab! z\x7F\xC3"))));
  return rc::gen::container<Branches>(name);
}

struct OwnText {
  operator std::string_view() const { return "own"; }  // NOLINT(google-explicit-constructor)
};

template <class Left, class Right>
concept IsEqualityComparable = requires(const Left& left, const Right& right) {
  left == right;
  right == left;
  left != right;
};
template <class Left, class... Right>
constexpr bool isComparableWith = (IsEqualityComparable<Left, Right> && ...);
template <class Left, class Right>
concept IsOrderable = requires(const Left& left, const Right& right) {
  left < right;
  right < left;
};
template <class Left, class... Right>
constexpr bool isOrderableWith = (IsOrderable<Left, Right> && ...);

static_assert(isComparableWith<XString, const char*, std::string, std::string_view, XString,
                               TarnPath, OwnText>);
static_assert(isComparableWith<TarnPath, const char*, std::string, std::string_view, XString,
                               TarnPath, OwnText>);
static_assert(isComparableWith<TarnData, const char*, std::string, std::string_view, XString,
                               TarnPath, OwnText, TarnData>);
static_assert(isOrderableWith<XString, const char*, std::string, std::string_view, XString,
                              TarnPath, OwnText>);
static_assert(isOrderableWith<TarnPath, const char*, std::string, std::string_view, XString,
                              TarnPath, OwnText>);

TEST(TarnPathTest, ComparesWithTextsOfAnyKind) {
  const XString text("a~b");
  const TarnPath path("a~b");
  EXPECT_TRUE(path == text && text == path && TarnData("a~b") == text && path == TarnData("a~b"));
  EXPECT_TRUE(TarnPath("a~z") < XString("a!") && XString("a!") > TarnPath("a~z"))
      << "in the order of paths";
}

TEST(TarnPathTest, TheEmptyPathHasNoText) {
  TarnPath path;
  for (const char* text : {static_cast<const char*>(nullptr), ""}) {
    path = text;
    EXPECT_EQ(static_cast<const char*>(path), nullptr);
    EXPECT_EQ(path.getCapacity(), 0U);
    EXPECT_EQ(path.compare(text), 0);
  }
  EXPECT_EQ(path.getDepth(), 0);
  EXPECT_EQ(path.getLength(), 0);
  TarnPath out("old");
  path.getFirstBranch(out);
  EXPECT_TRUE(out.isEmpty());
  path.removeFirstBranch();
  path.removeLastBranch();
  path.removeBranchAt(0);
  path.appendPath(TarnPath());
  EXPECT_TRUE(path.isEmpty());
  path.prependBranch("x");
  EXPECT_STREQ(path, "x");
}

TEST(TarnPathTest, RefusesBadBranchesAndStaysAsItWas) {
  struct Case {
    const char *name, *message;
  };
  const Case cases[] = {
      {nullptr, "An empty branch name cannot be added to a path \"a~b\"."},
      {"", "An empty branch name cannot be added to a path \"a~b\"."},
      {"b~c", "The string \"b~c\" is not allowed to contain the character \"~\"."},
      {"~", "The string \"~\" is not allowed to contain the character \"~\"."},
  };
  for (const Case& c : cases) {
    TarnPath path("a~b");
    EXPECT_THAT([&] { path.addBranch(c.name); }, ThrowsTarn(8, c.message));
    EXPECT_THAT([&] { path << c.name; }, ThrowsTarn(8, c.message));
    EXPECT_THAT([&] { path.subBranch(c.name); }, ThrowsTarn(8, c.message));
    EXPECT_THAT([&] { path.prependBranch(c.name); }, ThrowsTarn(8, testing::_));
    EXPECT_THAT([&] { path.replaceLastBranch(c.name); }, ThrowsTarn(8, testing::_));
    EXPECT_THAT([&] { TarnPath("a", c.name); }, ThrowsTarn(8, testing::_));
    EXPECT_STREQ(path, "a~b");
  }
  TarnPath path("a");
  EXPECT_THAT([&] { path.addBranch(std::string_view("x\0y", 3)); },
              ThrowsTarn(8, HasSubstr("\"x\"")));
  TarnPath odd("a~~b");  // taken as it stands, and checked when it is rebuilt
  EXPECT_THAT([&] { odd.removeBranchAt(0); }, ThrowsTarn(8, testing::_));
  EXPECT_STREQ(odd, "a~~b");
}

TEST(TarnPathTest, IsBuiltFromBranches) {
  EXPECT_STREQ(TarnPath("a~b", "c", nullptr, "d", "e"), "a~b~c~d~e");
  TarnPath path;
  path << "a" << std::string("b");
  path += TarnPath("c~d");
  path += path;
  EXPECT_STREQ(path, "a~b~c~d~a~b~c~d");
  EXPECT_EQ(path.getCapacity(), 16U);
  path.buildPathFromList({"x", "y"});
  EXPECT_STREQ(path, "a~b~c~d~a~b~c~d~x~y");
  path.replaceFirstBranch("p~q");
  path.replaceLastBranch("r");
  EXPECT_STREQ(path, "p~q~b~c~d~a~b~c~d~x~r");
  path.addBranch(path.view().substr(0, 1));
  EXPECT_STREQ(path.getBranch(-1), "p");
}

TEST(TarnPathTest, TellsFirstBranchesAndAncestors) {
  struct Case {
    const char *path, *other;
    bool isFirst, isAncestor;  // whether `other` is its first branch; whether it lies below
  };
  const Case cases[] = {
      {"a~b", "a", true, false},     {"a", "a", false, false},        {"ab~c", "a", false, false},
      {"a", "a~b", false, true},     {"a~b", "a~b", false, false},    {"a~b", "a~bc", false, false},
      {"", "a", false, false},       {"", nullptr, false, true},      {"a", nullptr, false, false},
      {"", "", false, false},        {"", "~a", false, false},        {"a~b", "", false, false},
      {"a~b~c", "a~b", true, false}, {"a~b", "a~b~c~d", false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << c.path << " and " << (c.other != nullptr ? c.other : "null"));
    EXPECT_EQ(TarnPath(c.path).hasFirstBranch(c.other), c.isFirst);
    EXPECT_EQ(TarnPath(c.path).isAncestorOf(c.other), c.isAncestor);
  }
}

TEST(TarnPathTest, OrdersANodeBeforeItsDescendantsAndThoseBeforeLongerNames) {
  struct Case {
    const char *left, *right;
    int order;
  };
  const Case cases[] = {
      {"", "", 0},       {"", "a", -1},      {"a", "a~b", -1},        {"a~z", "a!", -1},
      {"a~z", "aa", -1}, {"b", "a~z", 1},    {"\xC3", "a", -1},       {"a\x80", "a\x7F", -1},
      {"a~b", "a~b", 0}, {"a~b", "a~c", -1}, {"a~\xFF", "a\x01", -1}, {"", nullptr, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << '"' << c.left << "\" against \""
                                    << (c.right != nullptr ? c.right : "null") << '"');
    EXPECT_EQ(TarnPath(c.left).compare(c.right), c.order);
    EXPECT_EQ(TarnPath(c.right).compare(c.left), -c.order);
    EXPECT_EQ(TarnPath(c.left) < c.right, c.order < 0);
    EXPECT_EQ(TarnPath(c.left) >= TarnPath(c.right), c.order >= 0);
    EXPECT_EQ(TarnPath(c.left) == c.right, c.order == 0);
  }
}

// Branch by branch, each by signed characters with the end first.
bool ComesBefore(const Branches& left, const Branches& right) {
  const auto less = [](char l, char r) {
    return static_cast<signed char>(l) < static_cast<signed char>(r);
  };
  return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                      [&](const std::string& l, const std::string& r) {
                                        return std::lexicographical_compare(
                                            l.begin(), l.end(), r.begin(), r.end(), less);
                                      });
}

TEST(TarnPathTest, OrdersAsListsOfBranches) {
  EXPECT_TRUE(rc::check([] {
    const Branches left = *SomeBranches();
    Branches right = *SomeBranches();
    if (*rc::gen::arbitrary<bool>()) right.insert(right.begin(), left.begin(), left.end());
    const int order = TarnPath(Joined(left)).compare(Joined(right).c_str());
    RC_ASSERT((order < 0) == ComesBefore(left, right));
    RC_ASSERT((order > 0) == ComesBefore(right, left));
  }));
}

TEST(TarnPathTest, ReadsBranchesAsAListDoes) {
  EXPECT_TRUE(rc::check([] {
    const Branches model = *SomeBranches();
    const TarnPath path(Joined(model));
    const int depth = static_cast<int>(model.size());
    RC_ASSERT(path.getDepth() == depth);
    for (int n = 0; n < depth + 2; ++n) {
      const std::string branch = n < depth ? model[n] : "";
      RC_ASSERT(path.getBranch(n) == branch);
      if (n < depth) RC_ASSERT(path.getBranch(n - depth) == branch);
      RC_ASSERT(path.getBranch(-n - 1) == (n < depth ? model[depth - 1 - n] : ""));
      RC_ASSERT(path.getBranchNameLen(n) == branch.size());
    }
    std::vector<std::string_view> walked;
    for (const std::string_view branch : TarnBranches(path.view())) walked.push_back(branch);
    RC_ASSERT(std::equal(walked.begin(), walked.end(), model.begin(), model.end()));
  }));
}

TEST(TarnPathTest, IsShortenedAsAListIs) {
  EXPECT_TRUE(rc::check([] {
    Branches model = *SomeBranches();
    TarnPath path(Joined(model));
    for (const int step : *rc::gen::container<std::vector<int>>(rc::gen::inRange(-3, 6))) {
      TarnPath removed("old");
      const std::string front = model.empty() ? "" : model.front();
      if (step == 0) {
        path.removeFirstBranch(&removed);
        if (!model.empty()) model.pop_front();
        RC_ASSERT(removed == front);
      } else if (step > 3) {
        path.removeBranchAt(static_cast<unsigned short>(step - 4));
        if (static_cast<int>(model.size()) > step - 4) model.erase(model.begin() + (step - 4));
      } else {
        path.removeBranches(step);
        for (int n = step; n > 0 && !model.empty(); --n) model.pop_front();
        for (int n = step; n < 0 && !model.empty(); ++n) model.pop_back();
      }
      RC_ASSERT(path == Joined(model));
      RC_ASSERT(model.empty() == (path.getCapacity() == 0));
      if (model.empty()) path = Joined(model = *SomeBranches());
    }
  }));
}

TEST(TarnPathTest, CountsIn16BitsButHoldsLongerPaths) {
  TarnPath path;
  for (int i = 0; i < 100000; ++i) path.addBranch("ab");
  EXPECT_EQ(path.view().size(), 299999U);
  EXPECT_EQ(path.getLength(), 299999 % 65536);
  EXPECT_EQ(path.getDepth(), 100000 % 65536);
  EXPECT_EQ(path.getBranch(99999), "ab");
  EXPECT_EQ(path.getBranch(-100001), "");
  path.removeBranches(99998);
  EXPECT_STREQ(path, "ab~ab");
}

TEST(TarnBranchesTest, WalksAnyText) {
  struct Case {
    const char* text;
    std::vector<std::string_view> branches, tails;
  };
  const Case cases[] = {
      {nullptr, {}, {}},         {"", {}, {}},
      {"a", {"a"}, {""}},        {"a~bc", {"a", "bc"}, {"bc", ""}},
      {"~", {"", ""}, {"", ""}}, {"a~~b~", {"a", "", "b", ""}, {"~b~", "b~", "", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "null");
    std::vector<std::string_view> branches;
    std::vector<std::string_view> tails;
    const TarnBranches all(c.text);
    for (auto branch = all.begin(); branch != all.end(); ++branch) {
      branches.push_back(*branch);
      tails.push_back(branch.tail());
    }
    EXPECT_EQ(branches, c.branches);
    EXPECT_EQ(tails, c.tails);
  }
  EXPECT_EQ(TarnBranches::ParentOf("a~b~c"), "a~b");
  EXPECT_EQ(TarnBranches::LastOf("a~b~c"), "c");
  EXPECT_EQ(TarnBranches::ParentOf("a"), "");
}

}  // namespace
}  // namespace tarns
