// Names of items: splitting, numbering, places in the tree.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>

#include <string>

#include "support/throws_tarn.h"
#include "vfs/vfs_fixture.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class NamesTest : public vfs_test {};

TEST_F(NamesTest, SplitsNames) {
  const struct {
    const char *name, *base, *ext;
    long number;
  } cases[] = {
      {"report(2).txt", "report", ".txt", 2},
      {"report.txt", "report", ".txt", 0},
      {"a().txt", "a()", ".txt", 0},
      {"README", "README", "", 0},
      {"README(7)", "README", "", 7},
      {"README.", "README", ".", 0},
      {".profile", ".profile", "", 0},
      {"...", "...", "", 0},
      {"..a.b", "..a", ".b", 0},
      {"a.tar.gz", "a.tar", ".gz", 0},
      {"2026.txt", "2026", ".txt", 0},
      {"a(3.txt", "a(3", ".txt", 0},
      {"a)3(.txt", "a)3(", ".txt", 0},
      {"a(02).txt", "a(02)", ".txt", 2},
      {"a(1)b(2).txt", "ab(2)", ".txt", 1},
      {"(5).txt", "", ".txt", 5},
      {"a(x).txt", "a(x)", ".txt", 0},
      {"a(-4).txt", "a", ".txt", -4},
      {"gr\xC3\xBC\xC3\x9F(1).\xC3\xA9", "gr\xC3\xBC\xC3\x9F", ".\xC3\xA9", 1},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    XString name(test.name), base("x"), ext("y");
    long number = 99;
    vfs().getBaseExtName(name, base, ext, number);
    EXPECT_EQ(base.view(), test.base);
    EXPECT_EQ(ext.view(), test.ext);
    EXPECT_EQ(number, test.number);
    XString wantedBase(test.base), wantedExt(test.ext), otherExt(".zzz");
    EXPECT_TRUE(vfs().checkItemName(name, wantedBase, wantedExt, number));
    EXPECT_EQ(number, test.number);
    EXPECT_FALSE(vfs().checkItemName(name, wantedBase, otherExt, number));
  }
}

TEST_F(NamesTest, MapsPathsToPlacesInTheTree) {
  EXPECT_TRUE(vfs().getDBPathFor("").isEmpty());
  EXPECT_TRUE(vfs().getDBPathFor(nullptr).isEmpty());
  EXPECT_STREQ(vfs().getDBPathFor("a~b"), "vfsFolders~a~vfsFolders~b");
  EXPECT_STREQ(vfs().getDBPathForItem("x"), "vfsItems~x");
  EXPECT_STREQ(vfs().getDBPathForItem("a~b~doc.txt"), "vfsFolders~a~vfsFolders~b~vfsItems~doc.txt");
  EXPECT_THAT([&] { vfs().createFolder("a~~b"); }, ThrowsTarn(8, HasSubstr("empty branch")));
  EXPECT_THAT([&] { vfs().addItem("a~", TarnVFSItem::Create(), false, false); },
              ThrowsTarn(8, HasSubstr("empty branch")));
}

TEST_F(NamesTest, NumbersBehindTheHighestNumber) {
  const struct {
    std::vector<const char*> there;
    const char *name, *result;
  } cases[] = {
      {{"other.txt"}, "report.txt", "report.txt"},
      {{"report.txt"}, "report.txt", "report(1).txt"},
      {{"report.txt", "report(4).txt"}, "report.txt", "report(5).txt"},
      {{"report(4).txt"}, "report(2).txt", "report(5).txt"},
      {{"report.txt", "report.doc"}, "report.doc", "report(1).doc"},
      {{"README"}, "README", "README(1)"},
      {{"README."}, "README", "README"},
      {{"..."}, "...", "...(1)"},
      {{"(3)"}, "(3)", "(4)"},
      {{"rep(7)ort.txt"}, "report.txt", "report(8).txt"},
      {{"(7)report.txt"}, "report.txt", "report(8).txt"},
      {{"a(-5).txt"}, "a.txt", "a.txt"},
      // What is left when a number is taken out is a name that is taken.
      {{"f(1)(2).txt", "f(2)(2).txt"}, "f(1)(2).txt", "f(2)(3).txt"},
      {{"a.txt", "a(9223372036854775807).txt"}, "a.txt", "a(1).txt"},
  };
  int round = 0;
  for (const auto& test : cases) {
    SCOPED_TRACE(std::string(test.name) + " among " + test.there[0]);
    const std::string folder = "f" + std::to_string(round++);
    ASSERT_TRUE(vfs().createFolder(folder));
    XString path(folder + "~" + test.name);
    EXPECT_FALSE(vfs().modifyItemName(path)) << "no items node yet";
    for (const char* name : test.there) {
      ASSERT_TRUE(vfs().addItem(folder + "~" + name, TarnVFSItem::Create(), false, false));
    }
    // Among many other names the search takes another way.
    for (const int others : {0, 300}) {
      for (int i = 0; i < others; ++i) {
        const std::string other = folder + "~zz" + std::to_string(i);
        modify(vfs().getFolder(folder)->getItemsNode())
            ->addChild(other.substr(folder.size() + 1).c_str(), TarnVFSItem::Create());
      }
      path = folder + "~" + test.name;
      EXPECT_TRUE(vfs().modifyItemName(path));
      EXPECT_EQ(path.view(), folder + "~" + test.result);
    }
  }
  XString top("report.txt");
  EXPECT_FALSE(vfs().modifyItemName(top));
  put("report.txt", "");
  EXPECT_TRUE(vfs().modifyItemName(top));
  EXPECT_EQ(top.view(), "report(1).txt");
}

}  // namespace
}  // namespace tarns
