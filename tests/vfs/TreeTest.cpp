// Folders and items: adding, moving, copying, sharing, removing, listing.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnTransaction.h>
#include <tarns/util/FileFP.h>

#include <filesystem>
#include <functional>

#include "support/throws_tarn.h"
#include "vfs/vfs_fixture.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TreeTest : public vfs_test {};

TEST_F(TreeTest, KeepsTheLayout) {
  ASSERT_TRUE(vfs().createFolder("a~b", "icon", 5));
  put("a~b~x.txt", "hello");
  put("y", "");
  EXPECT_EQ(manager().getUint32("files~vfsSystem~vfsFolders~a~vfsFolders~b~vfsType"), 5u);
  EXPECT_STREQ(manager().getXString("files~vfsSystem~vfsFolders~a~vfsFolders~b~vfsIcon"), "icon");
  const auto item = manager().getObject("files~vfsSystem~vfsFolders~a~vfsFolders~b~vfsItems~x.txt");
  EXPECT_TRUE(item.isA<TarnVFSItem>());
  EXPECT_EQ(item->getUint64("Size"), 5u);
  EXPECT_FALSE(manager().getObject("files~vfsRecycleBin").is_null());
  EXPECT_TRUE(manager().getObject("files~vfsSystem~vfsItems~y").isA<TarnVFSItem>());
  remount();
  EXPECT_EQ(tree(), (Tree{{"a/", ""}, {"a~b/", ""}, {"a~b~x.txt", "hello"}, {"y", ""}}));
  EXPECT_EQ(vfs().getFolder("a~b")->getFolderType(), 5u);
}

TEST_F(TreeTest, OpensOnASubFolder) {
  vfs().createFolder("a~b");
  put("a~b~x", "1");
  mount("a~b");
  EXPECT_EQ(tree(), (Tree{{"x", "1"}}));
  TarnPath path;
  EXPECT_TRUE(vfs().getPath(vfs().getItem("x"), path));
  EXPECT_STREQ(path, "x");
  unsigned long id = 0;
  EXPECT_TRUE(vfs().moveItemToBin("x", &id));
  mount();
  EXPECT_FALSE(vfs().isItemExist("a~b~x"));
  XString restored;
  EXPECT_TRUE(vfs().restoreFromBin(id, &restored));
  EXPECT_STREQ(restored, "a~b~x");
  mount("no~such");
  EXPECT_EQ(vfs().getVFSRootNode(), vfs().getRootNode());
}

// A file system that was opened on a folder goes with it, but not into nothing.
TEST_F(TreeTest, FollowsItsFolderWhileThatIsThere) {
  vfs().createFolder("a~b~c");
  put("a~b~x", "1");
  OpenVFS below(manager(), manager().getObject("files"), "a~b");
  const auto changeAll = [&] {
    const auto item = TarnVFSItem::Create();
    bool isDone = below.addItem("new", item, true, true) && below.copyItemTo("x", "y");
    isDone &= below.createFolder("d") && below.copyFolder("c", "e");
    return isDone && below.moveItemToBin("y") && below.deleteFolder("d") && below.deleteItem("new");
  };
  EXPECT_TRUE(changeAll());
  ASSERT_TRUE(vfs().moveFolder("a~b", "z"));
  EXPECT_TRUE(changeAll());
  TarnVFSWriter writer(below, "x");
  for (const bool isBinned : {true, false}) {
    const Tree before = tree("z");
    unsigned long id = 0;
    ASSERT_TRUE(isBinned ? vfs().moveFolderToBin("z", &id) : vfs().deleteFolder("z"));
    const std::vector<std::function<void()>> changes{
        [&] { below.addItem("new", TarnVFSItem::Create(), true, true); },
        [&] { below.changeItem("x", TarnVFSItem::Create()); },
        [&] { below.deleteItem("x"); },
        [&] { below.deleteItemsIn("c"); },
        [&] { below.copyItemTo("x", "y"); },
        [&] { below.createFolder("d"); },
        [&] { below.addFolder("d", TarnVFSFolder::Create(), true, true); },
        [&] { below.copyFolder("c", "f"); },
        [&] { below.deleteFolder("c"); },
        [&] { below.moveItemToBin("x"); },
        [&] { writer.finish(); },
        [&] { TarnVFSWriter(below, "x").finish(); }};
    for (const auto& change : changes) EXPECT_THAT(change, ThrowsTarn(7, HasSubstr("a~b")));
    if (!isBinned) break;
    ASSERT_TRUE(below.restoreFromBin(id));
    EXPECT_EQ(tree("z"), before);
  }
  manager().deleteBranch("files~vfsSystem");
  EXPECT_THAT([&] { put("x", "1"); }, ThrowsTarn(7, HasSubstr("vfsSystem")));
  EXPECT_THAT([&] { vfs().createFolder("d"); }, ThrowsTarn(7, HasSubstr("vfsSystem")));
}

TEST_F(TreeTest, RefusesFoldersWhereTheTypeSaysSo) {
  ASSERT_TRUE(vfs().createFolder("a", nullptr, 2));
  EXPECT_FALSE(vfs().createFolder("a~b"));
  EXPECT_FALSE(vfs().createFolder("a~b~c"));
  EXPECT_TRUE(vfs().createFolder("c"));
  EXPECT_FALSE(vfs().moveFolder("c", "a"));
  EXPECT_FALSE(vfs().copyFolder("c", "a~c"));
  EXPECT_FALSE(vfs().addFolder("a~d", TarnVFSFolder::Create(), true, true));
  EXPECT_EQ(tree(), (Tree{{"a/", ""}, {"c/", ""}}));
  EXPECT_TRUE(vfs().createFolder("c", "late", 2));  // is there, stays as it is
  EXPECT_EQ(vfs().getFolder("c")->getFolderType(), 0u);
  // What takes no sub-folders any more is asked for those that it has.
  vfs().createFolder("c~d~e");
  modify(vfs().getFolder("c"))->setFolderType(TarnVFSFolder::kNoSubFolders);
  EXPECT_FALSE(vfs().createFolder("c~d"));
  EXPECT_TRUE(vfs().createFolder("c~d~e"));
  EXPECT_TRUE(vfs().createFolder("c~d~f"));
  mount("c");
  EXPECT_TRUE(vfs().createFolder("d"));
  EXPECT_FALSE(vfs().createFolder("g"));
}

// What is refused, or finds nothing to do, leaves no trace: nobody is told of a change.
TEST_F(TreeTest, RefusedCallsCommitNothing) {
  vfs().createFolder("a~b");
  vfs().createFolder("closed", nullptr, TarnVFSFolder::kNoSubFolders);
  put("a~x", "1");
  put("binned", "2");
  vfs().moveItemToBin("binned");
  const auto item = vfs().getItem("a~x");
  const auto loose = TarnVFSItem::Create();
  const std::vector<std::function<bool()>> calls{
      [&] { return vfs().addItem("a~x", loose, false, false); },
      [&] { return vfs().addItem("a~x", item, true, false); },
      [&] { return vfs().changeItem("a~none", loose); },
      [&] { return vfs().changeItem("a~x", item); },
      [&] { return vfs().deleteItem("a~none"); },
      [&] { return vfs().moveItem("a~none", "a~b"); },
      [&] { return vfs().copyItemTo("a~none", "a~b"); },
      [&] { return vfs().createFolder("closed~c"); },
      [&] { return vfs().createFolder("closed~c~d"); },
      [&] { return vfs().addFolder("closed~c", TarnVFSFolder::Create(), true, true); },
      [&] { return vfs().addFolder("a", TarnVFSFolder::Create(), false, false); },
      [&] { return vfs().deleteFolder("a~none"); },
      [&] { return vfs().moveFolder("a", "a~b"); },
      [&] { return vfs().copyFolder("a", "closed"); },
      [&] { return vfs().moveItemToBin("a~none"); },
      [&] { return vfs().moveFolderToBin("a~none"); },
      [&] { return vfs().restoreFromBin(7); },
      [&] { return vfs().delFromRecycleBin(7); },
      [&] { return vfs().emptyRecycleBin(3600) > 0; },
      [&] { return !vfs().moveItem("a~x", "a~x"); },
      [&] { return !vfs().createFolder("a~b"); }};
  const std::uint64_t before = manager().getVersion();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_FALSE(calls[i]()) << i;
    EXPECT_EQ(manager().getVersion(), before) << i;
  }
  manager().transaction([&] {
    for (const auto& call : calls) EXPECT_FALSE(call());
  });
  EXPECT_EQ(manager().getVersion(), before);
  // The folder is written to by what has changed it.
  manager().transaction([&] { EXPECT_TRUE(vfs().addItem("a~x", loose, true, true)); });
  EXPECT_GT(manager().getVersion(), before);
}

TEST_F(TreeTest, AddsItems) {
  const auto first = TarnVFSItem::Create(), second = TarnVFSItem::Create();
  EXPECT_FALSE(vfs().addItem("no~x", first, true, false));
  EXPECT_FALSE(vfs().addItem("", first, true, false));
  EXPECT_FALSE(vfs().addItem("x", nullptr, true, false));
  EXPECT_TRUE(vfs().addItem("x.a", first, false, false));
  EXPECT_FALSE(vfs().addItem("x.a", second, false, false));
  EXPECT_FALSE(vfs().addItem("x.a", second, false, true));
  EXPECT_EQ(vfs().getItem("x.a"), first);
  EXPECT_TRUE(vfs().addItem("x.a", second, true, true));
  EXPECT_EQ(vfs().getItem("x(1).a"), second);
  EXPECT_TRUE(vfs().addItem("x.a", TarnVFSItem::Create(), true, false));
  EXPECT_NE(vfs().getItem("x.a"), first);
  EXPECT_FALSE(first->hasParent());
  EXPECT_FALSE(vfs().changeItem("y", first));
  EXPECT_TRUE(vfs().changeItem("x.a", first));
  EXPECT_EQ(vfs().getItem("x.a"), first);
  EXPECT_EQ(vfs().getItemNames(""), "x(1).a~x.a");
  XStringList names;
  vfs().getItemNames(names, "");
  EXPECT_EQ(names, (XStringList{"x(1).a", "x.a"}));
  EXPECT_THAT([&] { vfs().addItem("a~b", manager().getRoot(), false, false); },
              ThrowsTarn(12, HasSubstr("TarnVFSItem")));
}

TEST_F(TreeTest, ListsInTheOrderOfNamesAndInPages) {
  const std::vector<std::string> names{"(1)", "...", ".a",       "A",   "a",
                                       "a b", "a.b", "\xC3\xA4", "\xFF"};
  vfs().createFolder("f");
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    put("f~" + *name, *name);
    vfs().createFolder("f~" + *name);
  }
  EXPECT_EQ(vfs().getItemNames("f", {}, 100), names);
  EXPECT_EQ(vfs().getFolderNames("f"), names);
  std::vector<std::string> paged;
  for (;;) {
    const auto page = vfs().listItems("f", paged.empty() ? "" : paged.back(), 2);
    for (const TarnVFSEntry& entry : page) {
      paged.push_back(entry.name);
      EXPECT_EQ(entry.info.size, entry.name.size());
      EXPECT_EQ(TarnVFSReader(entry.item).readAll(), entry.name);
    }
    if (page.size() < 2) break;
  }
  EXPECT_EQ(paged, names);
  EXPECT_THAT(vfs().getItemNames("none", {}, 5), IsEmpty());
  EXPECT_THAT(vfs().listItems("none"), IsEmpty());
}

TEST_F(TreeTest, MovesAndCopiesItems) {
  vfs().createFolder("a");
  vfs().createFolder("b");
  put("a~x.txt", "one");
  put("b~x.txt", "two");
  XString used;
  EXPECT_FALSE(vfs().moveItem("a~none", "b"));
  EXPECT_FALSE(vfs().moveItem("a~x.txt", "none~x.txt"));
  EXPECT_FALSE(vfs().moveItem("", "b"));
  EXPECT_TRUE(vfs().moveItem("a~x.txt", "a~x.txt", &used));
  EXPECT_STREQ(used, "a~x.txt");
  EXPECT_TRUE(vfs().copyItemTo("a~x.txt", "a~x.txt", &used));
  EXPECT_STREQ(used, "a~x(1).txt");
  EXPECT_TRUE(vfs().moveItem("a~x.txt", "b", &used));
  EXPECT_STREQ(used, "b~x(1).txt");
  EXPECT_TRUE(vfs().copyItemTo("b~x.txt", "y", &used));
  EXPECT_STREQ(used, "y");
  EXPECT_EQ(tree(), (Tree{{"a/", ""},
                          {"a~x(1).txt", "one"},
                          {"b/", ""},
                          {"b~x.txt", "two"},
                          {"b~x(1).txt", "one"},
                          {"y", "two"}}));
  EXPECT_STREQ(vfs().getItem("y")->getOriginalPath(), "b~x.txt");
  // A copy goes its own way.
  put("y", "changed");
  EXPECT_EQ(content("b~x.txt"), "two");
  EXPECT_THAT([&] { vfs().moveItemInternal("y", "z", 3); }, ThrowsTarn(111, HasSubstr("modes")));
}

// The name to be shown goes along until an item gets another name.
TEST_F(TreeTest, CopiesShowTheNamesOfTheirItems) {
  vfs().createFolder("a");
  vfs().createFolder("b");
  put("a~x", "1");
  put("a~plain", "2");
  modify(vfs().getItem("a~x"))->setItemName("Shown");
  ASSERT_TRUE(vfs().copyItemTo("a~x", "b"));
  ASSERT_TRUE(vfs().copyItemTo("a~x", "b"));
  ASSERT_TRUE(vfs().copyItemTo("a~x", "b~y"));
  ASSERT_TRUE(vfs().copyItemTo("a~plain", "b~other"));
  ASSERT_TRUE(vfs().copyFolder("a", "c"));
  ASSERT_TRUE(vfs().moveItem("a~x", "c~z"));
  const std::map<std::string, std::string> expected{{"b~x", "Shown"},     {"b~x(1)", "x(1)"},
                                                    {"b~y", "y"},         {"c~x", "Shown"},
                                                    {"b~other", "other"}, {"c~z", "z"}};
  for (const auto& [path, name] : expected) {
    EXPECT_EQ(vfs().getItem(path)->getItemName(), name) << path;
  }
  EXPECT_FALSE(vfs().getItem("b~other")->hasChild("vfsName"));
}

TEST_F(TreeTest, CountsThePlacesOfSharedItems) {
  vfs().createFolder("a");
  vfs().createFolder("b~c");
  put("a~x", "1");
  const auto item = vfs().getItem("a~x");
  EXPECT_EQ(item->getRefCount(), 1u);
  EXPECT_TRUE(vfs().shareItem("a~x", "b~c~y"));
  EXPECT_TRUE(vfs().shareItem("a~x", "b"));
  EXPECT_EQ(vfs().getItem("b~c~y"), item);
  EXPECT_EQ(item->getRefCount(), 3u);
  EXPECT_EQ(vfs().listItems("b").front().info.references, 3u);
  put("b~x", "seen everywhere");
  EXPECT_EQ(content("a~x"), "seen everywhere");
  EXPECT_TRUE(vfs().moveItem("b~x", "b~z"));
  EXPECT_EQ(item->getRefCount(), 3u);
  EXPECT_TRUE(vfs().deleteFolder("b~c"));
  EXPECT_EQ(item->getRefCount(), 2u);
  EXPECT_TRUE(vfs().copyItemTo("a~x", "copy"));
  EXPECT_EQ(vfs().getItem("copy")->getRefCount(), 1u);
  EXPECT_TRUE(vfs().deleteItem("a~x"));
  EXPECT_EQ(item->getRefCount(), 1u);
  EXPECT_EQ(content("b~z"), "seen everywhere");
  EXPECT_TRUE(vfs().deleteItemsIn("b"));
  EXPECT_EQ(tree(), (Tree{{"a/", ""}, {"b/", ""}, {"copy", "seen everywhere"}}));
  EXPECT_FALSE(item->hasParent());
}

TEST_F(TreeTest, MovesCopiesAndMergesFolders) {
  vfs().createFolder("a~b~c");
  modify(vfs().getFolder("a~b"))->setIcon("i");
  modify(vfs().getFolder("a~b"))->setPermissions(0750);
  put("a~b~x", "1");
  put("a~b~c~y", "2");
  for (const char* inside : {"a", "a~b", "a~b~c", "a~b~c~new"}) {
    EXPECT_FALSE(vfs().moveFolder("a~b", std::string(inside) == "a" ? "a~b~b" : inside)) << inside;
    EXPECT_FALSE(vfs().copyFolder("a", inside)) << inside;
  }
  EXPECT_TRUE(vfs().moveFolder("a~b", "a~b2"));
  EXPECT_TRUE(vfs().copyFolder("a~b2", "a"));  // into a, as b2(1), since b2 is taken
  EXPECT_TRUE(vfs().copyFolder("a~b2", "d"));
  put("d~x", "changed");
  const Tree expected{{"a/", ""},         {"a~b2/", ""},      {"a~b2~x", "1"},
                      {"a~b2~c/", ""},    {"a~b2~c~y", "2"},  {"a~b2(1)/", ""},
                      {"a~b2(1)~x", "1"}, {"a~b2(1)~c/", ""}, {"a~b2(1)~c~y", "2"},
                      {"d/", ""},         {"d~x", "changed"}, {"d~c/", ""},
                      {"d~c~y", "2"}};
  EXPECT_EQ(tree(), expected);
  EXPECT_STREQ(vfs().getFolder("d")->getIcon(), "i");
  EXPECT_EQ(vfs().getFolder("d")->getInfo().permissions, 0750u);

  const auto loose = TarnVFSFolder::Create();
  EXPECT_TRUE(vfs().addFolder("loose", loose, false, false));
  EXPECT_FALSE(vfs().addFolder("again", loose, true, true)) << "is listed already";
  EXPECT_FALSE(vfs().addFolder("d", TarnVFSFolder::Create(), false, false));
  const auto more = TarnVFSFolder::Create();
  modify(more)->addItem("x", TarnVFSItem::Create(), false);
  modify(more)->addItem("z", TarnVFSItem::Create(), false);
  EXPECT_TRUE(vfs().addFolder("d", more, false, true));
  EXPECT_THAT(vfs().getItemNames("d", {}, 9), ElementsAre("x", "z"));
  EXPECT_EQ(content("d~x"), "");
  EXPECT_EQ(content("d~c~y"), "2");
  EXPECT_TRUE(vfs().addFolder("d", TarnVFSFolder::Create(), true, false));
  EXPECT_EQ(tree("d"), Tree());
  EXPECT_FALSE(vfs().deleteFolder("none"));
  EXPECT_FALSE(vfs().deleteFolder(""));
  EXPECT_FALSE(vfs().deleteItem("none~x"));
  EXPECT_FALSE(vfs().deleteItemsIn("none"));
}

// Names end at a NUL byte, so what follows one must not pass for another name.
TEST_F(TreeTest, RefusesNamesWithNul) {
  vfs().createFolder("a");
  put("a~x", "1");
  const Tree before = tree();
  const std::string name("a~x\0y", 5), folder("a\0b", 3);
  const auto item = TarnVFSFile::Create();
  EXPECT_THAT([&] { vfs().addItem(name, item, false, false); }, ThrowsTarn(8, HasSubstr("NUL")));
  EXPECT_THAT([&] { vfs().copyItemTo("a~x", name); }, ThrowsTarn(8, HasSubstr("NUL")));
  EXPECT_THAT([&] { put(name, "2"); }, ThrowsTarn(8, HasSubstr("NUL")));
  EXPECT_THAT([&] { vfs().createFolder(folder); }, ThrowsTarn(8, HasSubstr("NUL")));
  EXPECT_THAT([&] { vfs().deleteFolder(folder); }, ThrowsTarn(8, HasSubstr("NUL")));
  EXPECT_THAT([&] { vfs().isItemExist(name); }, ThrowsTarn(8, HasSubstr("NUL")));
  EXPECT_EQ(tree(), before);
}

// A shared item whose parent was a list that is removed does not hold on to that.
TEST_F(TreeTest, RemovedFoldersAreNotHeldBySharedItems) {
  for (const bool isBinned : {false, true}) {
    vfs().createFolder("a~b");
    put("x", "1");
    ASSERT_TRUE(vfs().shareItem("x", "a~b~x"));
    ASSERT_TRUE(vfs().deleteItem("x"));
    ASSERT_TRUE(vfs().shareItem("a~b~x", "x"));
    ASSERT_TRUE(vfs().moveItem("a~b~x", "a~b~y"));  // its parent is there now
    const auto item = vfs().getItem("x");
    ASSERT_EQ(item->getParent(2), vfs().getFolder("a~b"));
    if (isBinned) {
      ASSERT_TRUE(vfs().moveFolderToBin("a"));
      EXPECT_EQ(vfs().emptyRecycleBin(0), 1u);
    } else {
      ASSERT_TRUE(vfs().deleteFolder("a"));
    }
    EXPECT_FALSE(item->hasParent());
    EXPECT_EQ(item->getRefCount(), 1u);
    EXPECT_EQ(tree(), (Tree{{"x", "1"}}));
    vfs().deleteItem("x");
  }
}

// What is refused has changed nothing.
TEST_F(TreeTest, RefusedFoldersLeaveCountsAndPlaces) {
  vfs().createFolder("a");
  vfs().createFolder("b");
  put("a~x", "1");
  ASSERT_TRUE(vfs().shareItem("a~x", "b~x"));
  EXPECT_FALSE(vfs().addFolder("a", vfs().getFolder("b"), true, false)) << "is listed already";
  EXPECT_EQ(vfs().getItem("a~x")->getRefCount(), 2u);

  // Listed in two places: moved from the one that is not its parent's.
  const TarnRef folders = vfs().getVFSRootNode()->getFoldersNode();
  modify(folders)->addChild("second", vfs().getFolder("b"));
  vfs().createFolder("c");
  const Tree before = tree();
  const char* other = vfs().getFolder("b")->getName() == "b" ? "second" : "b";
  EXPECT_THAT([&] { vfs().moveFolder(other, "c"); }, ThrowsTarn(111, HasSubstr("another place")));
  EXPECT_EQ(tree(), before);
  // Into itself by a path on which a folder has its parent elsewhere.
  vfs().createFolder("c~d");
  modify(folders)->addChild("d", vfs().getFolder("c~d"));
  EXPECT_FALSE(vfs().moveFolder("c", "c~d"));
  EXPECT_TRUE(vfs().isFolderExist("c~d"));
  unsigned long id = 0;
  ASSERT_TRUE(vfs().moveFolderToBin(other, &id));
  modify(folders)->addChild("third", vfs().listRecycleBin().front().node);
  EXPECT_THAT([&] { vfs().restoreFromBin(id); }, ThrowsTarn(111, HasSubstr("another place")));
  EXPECT_EQ(vfs().listRecycleBin().size(), 1u);
}

TEST_F(TreeTest, EmptiesABinWithDamagedEntries) {
  for (const char* name : {"x", "y"}) {
    put(name, "1");
    vfs().moveItemToBin(name);
  }
  const TarnRef bin = vfs().getRecycleBin();
  modify(bin)->setValue("0000000001~vfsBItemID", TarnData(std::uint64_t{77}));
  modify(bin->getChildWithName("0000000002"))->deleteChild("vfsItem");
  EXPECT_EQ(vfs().listRecycleBin().front().id, 1u);
  EXPECT_EQ(vfs().emptyRecycleBin(0), 2u);
  EXPECT_THAT(vfs().listRecycleBin(), IsEmpty());
}

TEST_F(TreeTest, JoinsTheCallersTransaction) {
  put("x", "1");
  const Tree before = tree();
  try {
    const TarnTransaction transaction(manager());
    vfs().createFolder("a~b");
    put("a~b~y", "2");
    vfs().moveItem("x", "a");
    vfs().moveFolderToBin("a~b");
    EXPECT_EQ(tree(), (Tree{{"a/", ""}, {"a~x", "1"}}));
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(tree(), before);
  EXPECT_THAT(vfs().listRecycleBin(), IsEmpty());
  {
    TarnTransaction transaction(manager());
    vfs().createFolder("a");
    put("a~y", "2");
    transaction.commit();
  }
  EXPECT_EQ(tree(), (Tree{{"a/", ""}, {"a~y", "2"}, {"x", "1"}}));
}

TEST_F(TreeTest, GivesOverviews) {
  vfs().createFolder("a~b~c");
  vfs().createFolder("a~d");
  put("a~x.txt", "12345");
  put("a~y.txt", "1");
  put("a~z.bin", "22");
  const TarnRef tree = vfs().buildFolderTreeFor();
  EXPECT_FALSE(tree->getChildWithName("a~b~c").is_null());
  EXPECT_EQ(tree->getChildWithName("a")->getNumAbstractChildren(), 2u);
  const TarnRef summary = vfs().summarizeItemsIn("a");
  EXPECT_EQ(summary->getUint64("Items"), 3u);
  EXPECT_EQ(summary->getUint64("Folders"), 2u);
  EXPECT_EQ(summary->getUint64("Bytes"), 8u);
  EXPECT_EQ(summary->getUint64("Types~text/plain"), 2u);
  EXPECT_TRUE(vfs().summarizeItemsIn("none").is_null());
  TarnPath path("as it was");
  EXPECT_FALSE(vfs().getPath(manager().getRoot(), path));
  EXPECT_STREQ(path, "as it was");
  EXPECT_TRUE(vfs().getPath(vfs().getFolder("a~b~c"), path));
  EXPECT_STREQ(path, "a~b~c");
  EXPECT_TRUE(vfs().getPath(vfs().getVFSRootNode(), path));
  EXPECT_TRUE(path.isEmpty());
}

// Nothing that somebody takes for a content type keeps a folder from being summed up.
TEST_F(TreeTest, SumsUpAnyContentTypes) {
  const std::string longest(70'000, 't');
  const struct {
    const char *item, *type, *shown;
  } cases[] = {{"1", "a~~b", "a%7E%7Eb"},
               {"2", "a~b", "a%7Eb"},
               {"3", "~", "%7E"},
               {"4.txt", "", "text/plain"},
               {"5.txt", nullptr, "text/plain"},
               {"6", longest.c_str(), nullptr}};
  for (const auto& c : cases) {
    put(c.item, "1");
    modify(xcptref<TarnVFSFile>(vfs().getItem(c.item)))->setContentType(c.type);
  }
  const TarnRef types = vfs().summarizeItemsIn("")->getChildWithName("Types");
  EXPECT_EQ(types->getNumAbstractChildren(), 5u);
  for (const auto& c : cases) {
    const std::string name = c.shown != nullptr ? c.shown : longest.substr(0, 255);
    EXPECT_EQ(types->getUint64(name.c_str()), name == "text/plain" ? 2u : 1u) << name;
  }
}

TEST_F(TreeTest, ExportsItems) {
  std::string bytes(300'000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  put("x", bytes);
  XString file;
  EXPECT_FALSE(vfs().exportItem("none", file));
  ASSERT_TRUE(vfs().exportItem("x", file));
  EXPECT_EQ(FileFP::ReadBytes(file), bytes);
  std::filesystem::remove(file.getText());
  file = directory().file("out");
  ASSERT_TRUE(vfs().exportItem("x", file));
  EXPECT_EQ(FileFP::ReadBytes(directory().file("out").c_str()), bytes);
  file = directory().file("no/such/out");
  EXPECT_THAT([&] { vfs().exportItem("x", file); }, ThrowsX(HasSubstr("no/such")));
}

TEST_F(TreeTest, BinsAndRestores) {
  vfs().createFolder("a~b");
  put("a~x.txt", "1");
  put("a~b~y", "2");
  unsigned long item = 0, folder = 0;
  EXPECT_FALSE(vfs().moveItemToBin("a~none"));
  EXPECT_FALSE(vfs().moveFolderToBin(""));
  ASSERT_TRUE(vfs().moveItemToBin("a~x.txt", &item));
  ASSERT_TRUE(vfs().moveFolderToBin("a~b", &folder));
  EXPECT_EQ(item, 1u);
  EXPECT_EQ(folder, 2u);
  EXPECT_EQ(tree(), (Tree{{"a/", ""}}));
  const auto entries = vfs().listRecycleBin();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].path, "a~x.txt");
  EXPECT_FALSE(entries[0].isFolder);
  EXPECT_TRUE(entries[1].isFolder);
  const TarnRef bin = vfs().getRecycleBin();
  EXPECT_EQ(bin->getUint32("vfsLastID"), 2u);
  EXPECT_EQ(bin->getUint32("0000000002~vfsType"), 100u);
  EXPECT_EQ(bin->getUint32("0000000001~vfsType"), 101u);
  EXPECT_STREQ(bin->getXString("0000000001~vfsName"), "x.txt");
  const TarnRef picture = vfs().buildRecycleBinTree();
  EXPECT_STREQ(picture->getXString("2~vfsPath"), "a~b");

  put("a~x.txt", "new");
  vfs().deleteFolder("a");
  XString path;
  EXPECT_TRUE(vfs().restoreFromBin(folder, &path));
  EXPECT_STREQ(path, "a~b");
  put("a~x.txt", "newer");
  EXPECT_TRUE(vfs().restoreFromBin(item, &path));
  EXPECT_STREQ(path, "a~x(1).txt");
  EXPECT_EQ(
      tree(),
      (Tree{{"a/", ""}, {"a~b/", ""}, {"a~b~y", "2"}, {"a~x.txt", "newer"}, {"a~x(1).txt", "1"}}));
  EXPECT_FALSE(vfs().restoreFromBin(item));
  EXPECT_FALSE(vfs().delFromRecycleBin(7));

  ASSERT_TRUE(vfs().moveFolderToBin("a", &folder));
  EXPECT_EQ(folder, 3u) << "numbers are not used again";
  vfs().createFolder("a");
  EXPECT_TRUE(vfs().restoreFromBin(folder, &path));
  EXPECT_STREQ(path, "a(1)");
  ASSERT_TRUE(vfs().moveFolderToBin("a(1)"));
  ASSERT_TRUE(vfs().moveFolderToBin("a", &folder));
  EXPECT_TRUE(vfs().delFromRecycleBin(folder));
  EXPECT_EQ(vfs().emptyRecycleBin(3600), 0u);
  EXPECT_EQ(vfs().emptyRecycleBin(0), 1u);
  EXPECT_EQ(vfs().emptyRecycleBin(0), 0u);
  EXPECT_EQ(tree(), Tree());
}

}  // namespace
}  // namespace tarns
