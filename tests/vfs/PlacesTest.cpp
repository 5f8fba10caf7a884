// Items and folders that are listed in several places: counts, and folders within themselves.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>

#include <random>

#include "support/throws_tarn.h"
#include "vfs/files_model.h"
#include "vfs/vfs_fixture.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class PlacesTest : public vfs_test {
 protected:
  TarnRef foldersOf(const std::string& path) { return vfs().getFolder(path)->getFoldersNode(); }
};

// Does at random what TarnVFS can do, with a model beside it.
class RandomFiles {
 public:
  RandomFiles(OpenVFS& files, unsigned seed) : files_(files), random_(seed) {}

  // Fails the test where the answer is another than the model's.
  void step() {
    const std::string item = anyItem(), folder = anyFolder(), target = anyTarget();
    switch (number(19)) {
      case 0:
      case 1:
      case 2:
        return put(JoinedNames(folder, anyName()));
      case 3:
      case 4:
        return expect("createFolder " + target, files_.createFolder(target),
                      model_.createFolder(target) != nullptr);
      case 5:
      case 6:
      case 7:
      case 8: {
        const long mode = number(2) == 0 ? 2 : number(3);
        return expect("item " + item + " to " + target + " by " + std::to_string(mode),
                      files_.moveItemInternal(item, target, mode),
                      model_.moveItem(item, target, mode));
      }
      case 9:
        return deleteItem(item);
      case 10:
        return expect("deleteItemsIn " + folder, files_.deleteItemsIn(folder),
                      model_.deleteItemsIn(folder));
      case 11:
        return expect("moveFolder " + folder + " to " + target, files_.moveFolder(folder, target),
                      model_.transferFolder(folder, target, false));
      case 12:
        return expect("copyFolder " + folder + " to " + target, files_.copyFolder(folder, target),
                      model_.transferFolder(folder, target, true));
      case 13:
        return expect("deleteFolder " + target, files_.deleteFolder(target),
                      model_.deleteFolder(target));
      case 14:
        return expect("moveItemToBin " + item, files_.moveItemToBin(item),
                      model_.moveToBin(item, false));
      case 15:
        return expect("moveFolderToBin " + target, files_.moveFolderToBin(target),
                      model_.moveToBin(target, true));
      case 16:
        return emptyOrRestore(1 + static_cast<unsigned long>(number(20)));
      case 17:
        return addItem(item, target);
      default:
        return addFolder(item, target);
    }
  }

  // Fails the test where something else is there than the model has.
  void compare() {
    idOf_.clear();
    compareFolder(files_.getVFSRootNode(), *model_.root(), "");
    const auto entries = files_.listRecycleBin();
    ASSERT_EQ(entries.size(), model_.bin().size()) << log_;
    for (const TarnVFS::BinEntry& entry : entries) {
      ASSERT_TRUE(model_.bin().contains(entry.id)) << log_;
      const ModelBinEntry& expected = model_.bin().at(entry.id);
      EXPECT_EQ(entry.path, expected.path) << log_;
      if (expected.folder != nullptr) {
        compareFolder(xcptref<TarnVFSFolder>(entry.node), *expected.folder, "(bin) " + entry.path);
      } else {
        compareItem(xcptref<TarnVFSItem>(entry.node), expected.item, "(bin) " + entry.path);
      }
    }
  }

  const FilesModel& model() const { return model_; }

 private:
  int number(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
  std::string anyName() { return std::array{"x", "y.t", "x(1)"}.at(number(3)); }
  std::string anyFolder() {
    std::vector<std::string> found{""};
    Collect(*model_.root(), "", found, true);
    return found.at(number(static_cast<int>(found.size())));
  }
  std::string anyItem() {
    std::vector<std::string> found{"none"};
    Collect(*model_.root(), "", found, false);
    return found.at(number(static_cast<int>(found.size())));
  }
  // A folder, or a name in one.
  std::string anyTarget() {
    const std::string folder = anyFolder();
    return number(3) == 0 || std::count(folder.begin(), folder.end(), '~') > 1
               ? folder
               : JoinedNames(folder, std::array{"a", "b", "x"}.at(number(3)));
  }
  static void Collect(const ModelFolder& folder, const std::string& path,
                      std::vector<std::string>& found, bool wantsFolders) {
    for (const auto& [name, item] : folder.items) {
      if (!wantsFolders) found.push_back(JoinedNames(path, name));
    }
    for (const auto& [name, below] : folder.folders) {
      if (wantsFolders) found.push_back(JoinedNames(path, name));
      Collect(*below, JoinedNames(path, name), found, wantsFolders);
    }
  }

  void expect(const std::string& what, bool done, bool expected) {
    log_ += what + (expected ? ", " : " (no), ");
    EXPECT_EQ(done, expected) << log_;
  }

  void put(const std::string& path) {
    const std::string content = std::to_string(++contents_);
    TarnVFSWriter writer(files_, path);
    writer.write(std::string_view(content));
    writer.finish();
    model_.put(path, content);
    log_ += "put " + path + ", ";
  }
  void deleteItem(const std::string& path) {
    held_ = files_.getItem(path);
    heldModel_ = model_.itemAt(path);
    expect("deleteItem " + path, files_.deleteItem(path), model_.deleteItem(path));
    if (!held_.is_null()) {
      EXPECT_EQ(held_->getRefCount(), model_.placesOf(heldModel_)) << log_;
    }
  }
  void emptyOrRestore(unsigned long id) {
    if (number(3) > 0) {
      expect("restore", files_.restoreFromBin(id), model_.restore(id));
    } else if (number(3) > 0) {
      expect("delete from bin", files_.delFromRecycleBin(id), model_.deleteFromBin(id));
    } else {
      EXPECT_EQ(files_.emptyRecycleBin(0), model_.bin().size());
      while (!model_.bin().empty()) model_.deleteFromBin(model_.bin().begin()->first);
    }
  }
  // An item that is listed, or one that was removed, gets a place more.
  void addItem(const std::string& item, const std::string& path) {
    const bool isHeld = number(2) == 0 && heldModel_ != nullptr;
    const auto added = isHeld ? held_ : files_.getItem(item);
    const ModelItemPtr addedModel = isHeld ? heldModel_ : model_.itemAt(item);
    if (added.is_null() || path.empty()) return;
    // What is in a removed folder that somebody holds is listed there.
    if (model_.placesOf(addedModel) == 0 && added->getRefCount() > 0) return;
    if (number(3) == 0) {
      const bool isThere = model_.itemAt(path) != nullptr;
      return expect("changeItem " + path, files_.changeItem(path, added),
                    isThere && model_.addItem(path, addedModel, true, false));
    }
    const bool overwrite = number(2) == 0, unique = number(2) == 0;
    expect("addItem " + path, files_.addItem(path, added, overwrite, unique),
           model_.addItem(path, addedModel, overwrite, unique));
  }
  // A folder of its own, with an item that is listed already.
  void addFolder(const std::string& item, const std::string& path) {
    if (path.empty()) return;
    const auto folder = TarnVFSFolder::Create(), below = TarnVFSFolder::Create();
    const auto folderModel = std::make_shared<ModelFolder>();
    const auto belowModel = std::make_shared<ModelFolder>();
    modify(folder)->addFolder("a", below, false);
    folderModel->folders["a"] = belowModel;
    if (const auto shared = files_.getItem(item); !shared.is_null()) {
      modify(folder)->addItem("y.t", shared, false);
      modify(below)->addItem("x", shared, false);
      folderModel->items["y.t"] = belowModel->items["x"] = model_.itemAt(item);
    }
    const bool overwrite = number(2) == 0, merges = number(2) == 0;
    const bool isDone = files_.addFolder(path, folder, overwrite, merges);
    expect("addFolder " + path, isDone, model_.addFolder(path, folderModel, overwrite, merges));
    if (isDone) return;
    modify(folder)->removeItem("y.t");  // it goes on counting its places there
    modify(below)->removeItem("x");
  }

  void compareFolder(const xcptref<TarnVFSFolder>& folder, const ModelFolder& expected,
                     const std::string& path) {
    std::vector<std::string> items, folders;
    for (const auto& [name, item] : expected.items) items.push_back(name);
    for (const auto& [name, below] : expected.folders) folders.push_back(name);
    ASSERT_EQ(folder->getItemNames(), items) << path << ": " << log_;
    ASSERT_EQ(folder->getFolderNames(), folders) << path << ": " << log_;
    for (const auto& entry : folder->listItems({}, TarnVFSFolder::kAll)) {
      compareItem(entry.item, expected.items.at(entry.name), JoinedNames(path, entry.name));
      EXPECT_EQ(entry.info.references, entry.item->getRefCount()) << path;
    }
    for (const std::string& name : folders) {
      compareFolder(folder->getFolder(name), *expected.folders.at(name), JoinedNames(path, name));
    }
  }
  void compareItem(const xcptref<TarnVFSItem>& item, const ModelItemPtr& expected,
                   const std::string& path) {
    EXPECT_EQ(TarnVFSReader(item).readAll(), expected->content) << path << ": " << log_;
    EXPECT_EQ(item->getRefCount(), model_.placesOf(expected)) << path << ": " << log_;
    const auto [known, isNew] = idOf_.emplace(expected.get(), item.id());
    EXPECT_EQ(known->second, item.id()) << path << ": " << log_;
  }

  OpenVFS& files_;
  std::minstd_rand random_;
  FilesModel model_;
  xcptref<TarnVFSItem> held_;
  ModelItemPtr heldModel_;
  int contents_ = 0;
  std::map<const ModelItem*, std::uint64_t> idOf_;
  std::string log_;
};

TEST_F(PlacesTest, CountsWhereItemsAreListedWhateverIsDone) {
  constexpr int kSeeds = 30, kSteps = 120;
  const unsigned first = std::random_device()();
  for (int i = 0; i < kSeeds && !HasFailure(); ++i) {
    const unsigned seed = first + static_cast<unsigned>(i);
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    const std::string base = "files" + std::to_string(i);
    OpenVFS files(manager(), manager().getNoFail(base));
    RandomFiles random(files, seed);
    for (int step = 0; step < kSteps && !HasFailure(); ++step) {
      random.step();
      ASSERT_NO_FATAL_FAILURE(random.compare());
    }
    if (i % 10 == 9) {
      ASSERT_TRUE(manager().startGarbageCollection());
    }
    ASSERT_NO_FATAL_FAILURE(random.compare());
  }
}

// The last place that is left is not the one where the item's parent is.
TEST_F(PlacesTest, AnItemLivesAsLongAsItIsListed) {
  vfs().createFolder("a");
  vfs().createFolder("b");
  put("a~x", "1");
  vfs().shareItem("a~x", "b");  // its parent is there now
  ASSERT_TRUE(vfs().deleteFolder("b"));
  ASSERT_TRUE(manager().startGarbageCollection());
  remount();
  EXPECT_EQ(content("a~x"), "1");
  const auto item = vfs().getItem("a~x");
  EXPECT_EQ(item->getRefCount(), 1u);
  vfs().createFolder("c");
  EXPECT_TRUE(vfs().addItem("c~y", item, false, false));
  EXPECT_EQ(item->getRefCount(), 2u);
  EXPECT_TRUE(vfs().deleteItem("a~x"));
  EXPECT_TRUE(vfs().deleteItem("c~y"));
  EXPECT_EQ(item->getRefCount(), 0u);
}

// Folders tell of shared items wherever these were shared, so that removing them looks for such.
TEST_F(PlacesTest, CountsItemsThatWereSharedInFoldersOfTheirOwn) {
  put("x", "1");
  const auto item = vfs().getItem("x");
  const auto top = TarnVFSFolder::Create(), below = TarnVFSFolder::Create();
  const auto own = TarnVFSItem::Create();
  modify(top)->addFolder("b", below, false);
  modify(below)->addItem("own", own, false);
  modify(top)->addItem("own", own, false);
  ASSERT_TRUE(vfs().addFolder("a", top, false, false));
  EXPECT_EQ(own->getRefCount(), 2u);
  ASSERT_TRUE(vfs().deleteFolder("a~b"));
  EXPECT_EQ(own->getRefCount(), 1u);
  modify(vfs().getFolder("a"))->addItem("x", item, false);
  EXPECT_EQ(item->getRefCount(), 2u);
  ASSERT_TRUE(vfs().deleteFolder("a"));
  EXPECT_EQ(item->getRefCount(), 1u);
}

TEST_F(PlacesTest, ContentTakesThePlaceOfAPlainItemWhereItIsWritten) {
  for (const bool isShared : {false, true}) {
    const auto item = TarnVFSItem::Create();
    vfs().addItem("x", item, false, false);
    modify(item)->setValue("colour", TarnData("red"));
    if (isShared) vfs().shareItem("x", "y");
    put("x", "content");
    EXPECT_EQ(content("x"), "content");
    EXPECT_STREQ(vfs().getItem("x")->getXString("colour"), "red");
    EXPECT_EQ(vfs().getItem("x")->getRefCount(), 1u);
    EXPECT_EQ(item->getRefCount(), isShared ? 1u : 0u);
    if (isShared) {
      EXPECT_EQ(vfs().getItem("y"), item);
      EXPECT_STREQ(item->getXString("colour"), "red");
    }
    vfs().deleteItemsIn("");
  }
}

TEST_F(PlacesTest, MergesAllOrNothing) {
  vfs().createFolder("a~b", nullptr, TarnVFSFolder::kNoSubFolders);
  put("a~b~x", "1");
  const Tree before = tree();
  const auto top = TarnVFSFolder::Create(), below = TarnVFSFolder::Create();
  modify(top)->addFolder("b", below, false);
  modify(top)->addItem("y", TarnVFSFile::Create(), false);
  modify(below)->addFolder("c", TarnVFSFolder::Create(), false);
  EXPECT_FALSE(vfs().addFolder("a", top, true, true));
  EXPECT_EQ(tree(), before);
  EXPECT_FALSE(modify(vfs().getFolder("a~b"))->addFolder("c", TarnVFSFolder::Create(), false));
}

// An application has listed a folder within itself, and another one twice.
TEST_F(PlacesTest, FoldersWithinThemselvesEnd) {
  vfs().createFolder("a~b");
  vfs().createFolder("a~c");
  put("a~b~x", "1");
  modify(foldersOf("a"))->addChild("self", vfs().getFolder("a"));
  modify(vfs().getFolder("a~b"))->addFolder("d", TarnVFSFolder::Create(), false);
  modify(foldersOf("a~b"))->addChild("up", vfs().getFolder("a"));
  modify(foldersOf("a"))->addChild("twice", vfs().getFolder("a~b"));

  ASSERT_TRUE(vfs().copyFolder("a", "copy"));
  const auto copy = vfs().getFolder("copy"), below = vfs().getFolder("copy~b");
  EXPECT_EQ(vfs().getFolder("copy~self"), copy);
  EXPECT_EQ(vfs().getFolder("copy~twice~up"), copy);
  EXPECT_EQ(vfs().getFolder("copy~twice"), below);
  EXPECT_NE(below, vfs().getFolder("a~b"));
  EXPECT_EQ(content("copy~self~b~up~b~x"), "1");

  const TarnRef shown = vfs().buildFolderTreeFor();
  EXPECT_EQ(shown->getChildWithName("a")->getNumAbstractChildren(), 4u);
  EXPECT_EQ(shown->getChildWithName("a~self")->getNumAbstractChildren(), 0u);
  EXPECT_EQ(shown->getChildWithName("a~b")->getNumAbstractChildren() +
                shown->getChildWithName("a~twice")->getNumAbstractChildren(),
            2u);
  EXPECT_THAT([&] { vfs().moveFolder("copy~self", "z"); }, ThrowsTarn(111, HasSubstr("itself")));
  EXPECT_FALSE(vfs().moveFolder("copy", "copy~b"));

  const auto more = TarnVFSFolder::Create();
  modify(more)->addFolder("b", TarnVFSFolder::Create(), false);
  const TarnRef folders =
      modify(more)->getChildWithNameNoFail(TarnVFSFolder::kFolders, TarnObject::GetType());
  modify(folders)->addChild("self", more);
  EXPECT_TRUE(vfs().addFolder("a", more, false, true));
  unsigned long id = 0;
  ASSERT_TRUE(vfs().moveFolderToBin("a", &id));
  EXPECT_FALSE(vfs().buildRecycleBinTree()->getChildWithName("1").is_null());
  ASSERT_TRUE(vfs().restoreFromBin(id));
  ASSERT_TRUE(vfs().shareItem("a~b~x", "x"));
  ASSERT_TRUE(vfs().deleteFolder("a"));
  ASSERT_TRUE(vfs().deleteFolder("copy"));
  EXPECT_EQ(vfs().getItem("x")->getRefCount(), 1u);
  EXPECT_EQ(tree(), (Tree{{"x", "1"}}));
  modify(folders)->deleteChild("self");  // undoes the circle
}

}  // namespace
}  // namespace tarns
