// A bundle and its blocks, one thread at a time.
#include <gmock/gmock.h>
#include <tarns/containers/BundleExportFilter.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/session/TarnManager.h>

#include <filesystem>
#include <random>
#include <set>
#include <utility>

#include "containers/Drawer.h"
#include "support/damage.h"
#include "support/node_test.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr unsigned short kCapacity = TarnBundleBlock::kCapacity;

}  // namespace

// Opens what is for bundles only.
class OpenBlock : public TarnBundleBlock {
  TARN_CLASS(OpenBlock, TarnBundleBlock)

 public:
  using TarnBundleBlock::markAsFree;
};
TARN_REGISTER(OpenBlock, TarnBundleBlock);

class OpenBundle : public TarnBundle {
  TARN_CLASS(OpenBundle, TarnBundle)

 public:
  using TarnBundle::getFullestBlockWithSpace;
  using TarnBundle::updateBlockName;
};
TARN_REGISTER(OpenBundle, TarnBundle);

// The first of a bundle that is initialized takes another one.
class Parcel : public TarnObject {
  TARN_CLASS(Parcel, TarnObject)

 public:
  static inline xcptref<TarnBundle> bundle;

  void initialize() override {
    const xcptref<TarnBundle> one = std::exchange(bundle, nullptr);
    if (!one.is_null()) modify(one)->newChild("inner");
  }
};
TARN_REGISTER(Parcel, TarnObject);

namespace {

class BundleTest : public node_test {
 protected:
  xcptref<OpenBundle> addBundle(const char* name, const char* className = "Drawer") {
    xcptref<OpenBundle> bundle = OpenBundle::Create();
    modify(bundle)->initClassName(className);
    modify(root())->addChild(name, bundle);
    return bundle;
  }
  // As many objects called 0, 1, ...
  void fill(const xcptref<OpenBundle>& bundle, int count) {
    atomically([&] {
      for (int i = 0; i < count; ++i) modify(bundle)->newChild(std::to_string(i).c_str());
    });
  }
  static std::vector<std::string> BlocksOf(const TarnRef& bundle) {
    return names_of(bundle->getChildWithName(TarnBundle::kBlocks));
  }
  static std::set<std::string> NamesByIterator(const xcptref<OpenBundle>& bundle) {
    std::set<std::string> names;
    XString name;
    for (TarnBundleIter at = bundle->first(); !at.isNull();) {
      const TarnRef child = at.next(&name);
      EXPECT_EQ(child, bundle->getBundledChildWithName(name));
      EXPECT_TRUE(names.insert(std::string(name.view())).second) << name;
    }
    return names;
  }
};

INSTANTIATE_NODE_TEST(BundleTest);

TEST(BundleBlockTest, TakesTheFirstFreeSlotAndCountsLikeASetOfNumbers) {
  const auto block = TarnBundleBlock::Create();
  modify(block)->initialize("TarnObject");
  EXPECT_EQ(block->getNumUnused(), kCapacity);
  EXPECT_EQ(block->getNextUsed(0), kCapacity);
  std::set<unsigned short> used;
  std::mt19937 random(7);
  for (int round = 0; round < 6000; ++round) {
    const bool takes = used.size() < kCapacity && (used.empty() || random() % 5 < 3);
    if (takes) {
      unsigned short expected = 0;
      while (used.contains(expected)) ++expected;
      ASSERT_EQ(modify(block)->allocateNextUnused(), expected);
      used.insert(expected);
    } else {
      const auto freed = *std::next(used.begin(), static_cast<long>(random() % used.size()));
      ASSERT_TRUE(modify(block)->markAsFree(block->getAt(freed)));
      used.erase(freed);
    }
    const auto probe = static_cast<unsigned short>(random() % 1100);
    ASSERT_EQ(block->getNumUnused(), kCapacity - used.size());
    ASSERT_EQ(block->isFree(probe), probe < kCapacity && !used.contains(probe));
    const auto next = used.lower_bound(probe);
    ASSERT_EQ(block->getNextUsed(probe), next != used.end() ? *next : std::max(probe, kCapacity));
  }
}

TEST(BundleBlockTest, RefusesWhatIsNoSlot) {
  const auto block = OpenBlock::Create();
  modify(block)->initialize("Drawer");
  EXPECT_THAT([&] { block->getAt(1000); },
              ThrowsTarn(0, "Invalid bundle block index 1000; must be in the range [0 .. 1000]."));
  EXPECT_FALSE(block->getAt(999).is_null());
  EXPECT_FALSE(modify(block)->markAsFree(1000UL));
  EXPECT_FALSE(modify(block)->markAsFree(TarnObject::Create()));
  EXPECT_FALSE(modify(block)->markAsFree(TarnRef()));
  for (int i = 0; i < kCapacity; ++i) modify(block)->newChild();
  EXPECT_EQ(block->getNumUnused(), 0);
  EXPECT_THAT([&] { modify(block)->newChild(); }, ThrowsTarn(0, HasSubstr("index 1024;")));
  EXPECT_TRUE(modify(block)->markAsFree(5UL));
  EXPECT_EQ(modify(block)->allocateNextUnused(), 5);
  EXPECT_THAT([&] { modify(block)->initialize("NoSuchClass"); },
              ThrowsTarn(3, HasSubstr("NoSuch")));
  EXPECT_TRUE(block->getAt(3).isA<Drawer>());
}

TEST(BundleBlockTest, ShowsItsMapAndItsObjectsByPath) {
  const auto block = TarnBundleBlock::Create();
  modify(block)->initialize("TarnSint32Value");
  EXPECT_EQ(block->getUint32("FreeMap_0"), 0xFFFFFFFFU);
  EXPECT_EQ(block->getUint32("FreeMap_31"), 0xFF000000U);
  modify(modify(block)->newChild())->setValue(nullptr, TarnData(41));
  EXPECT_EQ(block->getUint32("FreeMap_0"), 0x7FFFFFFFU);
  EXPECT_EQ(block->getSint32("BundleBlock_0"), 41);
  EXPECT_EQ(block->getChildWithName("BundleBlock_999"), block->getAt(999));
  for (const char* name : {"BundleBlock_1000", "BundleBlock_-1", "BundleBlock_", "BundleBlock"}) {
    EXPECT_TRUE(block->getChildWithName(name).is_null()) << name;
  }
  const std::uint32_t words[] = {0x80000001, 0xFFFFFFFF, 1};
  EXPECT_EQ(TarnBundleBlock::GetNumUnused(words, 2), 34);
  EXPECT_STREQ(TarnBundleBlock::GetBaseNameFor(1), "0001");
  EXPECT_STREQ(TarnBundleBlock::GetBaseNameFor(1000), "1000");
}

TEST(BundleBlockTest, ACopyHasAMapAndSlotsOfItsOwn) {
  const auto block = TarnBundleBlock::Create();
  modify(block)->initialize("Drawer");
  const xcptref<TarnBundleBlock> copy(block->clone());
  const auto other = TarnBundleBlock::Create();
  modify(other)->copyFrom(block);
  const TarnRef first = block->getAt(0);
  modify(block)->setAt(0, nullptr);
  modify(block)->allocateNextUnused();
  for (const auto& one : {copy, other}) {
    EXPECT_EQ(one->getAt(0), first);
    EXPECT_TRUE(one->isFree(0));
  }
}

// Its objects make others of the same bundle.
TEST_P(BundleTest, CountsWhatInitializeTakes) {
  const auto bundle = addBundle("b", "Parcel");
  Parcel::bundle = bundle;
  atomically([&] { modify(bundle)->newChild("outer"); });
  Parcel::bundle = nullptr;
  EXPECT_EQ(bundle->getNumBundledChildren(), 2U);
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0998"));
}

// Slots taken over from another block may have been used.
TEST(BundleBlockTest, KnowsNoFreshSlotsAfterTakingOverOthers) {
  const auto block = TarnBundleBlock::Create();
  modify(block)->initialize("TarnObject");
  const xcptref<TarnBundleBlock> copy(block->clone());
  const auto taker = TarnBundleBlock::Create();
  modify(taker)->initialize("TarnObject");
  modify(taker)->copyFrom(block);
  for (const auto& each : {copy, taker}) {
    unsigned short slot = 0;
    EXPECT_FALSE(modify(each)->allocate(slot));
    EXPECT_EQ(slot, 0);
  }
}

TEST(BundleBlockTest, PutsWhatTakesAnObjectsPlaceIntoTheSlot) {
  const auto block = TarnBundleBlock::Create();
  modify(block)->initialize("TarnObject");
  const TarnRef node = TarnObject::Create();
  modify(block)->setNode("BundleBlock_5", node);
  EXPECT_EQ(block->getAt(5), node);
  EXPECT_EQ(block->getChildWithName("BundleBlock_5"), node);
  EXPECT_EQ(block->getNumAbstractChildren(), 0U);
  const TarnRef further = TarnObject::Create();
  modify(block)->setNode("BundleBlock_1000", further);
  EXPECT_EQ(block->getNumAbstractChildren(), 1U) << "no slot";
}

TEST_P(BundleTest, NamesItsBlocksByTheirFreeSlotsAndFillsTheFullest) {
  const auto bundle = addBundle("b");
  EXPECT_EQ(bundle->getNumBundledChildren(), 0U);
  EXPECT_TRUE(bundle->first().isNull());
  fill(bundle, 1);
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0999"));
  fill(bundle, 999);
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0000"));
  fill(bundle, 1500);
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0000", "0000_0", "0500"));
  // Freed slots of the first block make it the fullest again.
  for (const char* name : {"0", "17", "998"}) EXPECT_TRUE(modify(bundle)->deleteBundledChild(name));
  EXPECT_THAT(BlocksOf(bundle), testing::SizeIs(3));
  EXPECT_THAT(BlocksOf(bundle), testing::Contains("0003"));
  XString name;
  const xcptref<TarnBundleBlock> fullest(modify(bundle)->getFullestBlockWithSpace(&name));
  EXPECT_STREQ(name, "0003");
  modify(bundle)->newChild("again");
  EXPECT_EQ(fullest->getNumUnused(), 2);
  EXPECT_STREQ(fullest->getName(), "0002");
  EXPECT_EQ(bundle->getNumBlocks(), 3U);
  reload();
  EXPECT_EQ(xcptref<TarnBundle>(root()->getChildWithName("b"))->getNumBundledChildren(), 2498U);
}

TEST_P(BundleTest, AnEmptyBlockIsTheLastChoice) {
  const auto bundle = addBundle("b");
  fill(bundle, 1001);
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("1000"));
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0000", "1000"));
  modify(bundle)->newChild("x");
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0000", "0999"));
  EXPECT_EQ(bundle->getNumBlocks(), 2U);
  // A name that is right already stays; one that is taken is made unique.
  const xcptref<TarnBundleBlock> block(modify(bundle)->getFullestBlockWithSpace(nullptr));
  modify(bundle)->updateBlockName(block, "0999");
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0000", "0999"));
  modify(block)->initialize("Drawer");
  const auto full = xcptref<TarnBundleBlock>(bundle->getChildWithName("Blocks~0000"));
  modify(full)->initialize("Drawer");
  atomically([&] {
    for (unsigned short slot = 1; slot < kCapacity; ++slot) {
      modify(full)->markAsFree(full->getAt(slot));
    }
  });
  modify(bundle)->updateBlockName(full, "0000");
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0999", "0999_0"));
}

TEST_P(BundleTest, ReusesAnObjectAsIfItWereNew) {
  const auto bundle = addBundle("b");
  const TarnRef drawer = modify(bundle)->newChild("first");
  EXPECT_EQ(path_of(drawer), "b~BundledChildren~first");
  EXPECT_EQ(drawer->getSint32("Count"), Drawer::kNewCount);
  modify(drawer)->set("Count", 99);
  modify(drawer)->set("Label", "mine");
  modify(drawer)->setValue("key~number", TarnData(5));
  modify(drawer)->setValue("secret", TarnData("x"));
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("first"));
  EXPECT_FALSE(drawer->hasParent());
  EXPECT_EQ(drawer->getSint32("Count"), 99) << "until the slot is handed out again";
  EXPECT_EQ(bundle->getNumBundledChildren(), 0U);
  const TarnRef again = modify(bundle)->newChild("second");
  EXPECT_EQ(again, drawer);
  EXPECT_EQ(path_of(again), "b~BundledChildren~second");
  EXPECT_EQ(again->getSint32("Count"), Drawer::kNewCount);
  EXPECT_STREQ(again->getXString("Label", ""), "");
  EXPECT_EQ(again->getSint32("key~number"), 1);
  EXPECT_THAT(names_of(again), ElementsAre("key"));
}

TEST_P(BundleTest, FindsRenamesAndRefusesByName) {
  const auto bundle = addBundle("b");
  for (const char* name : {"b", "c", "a"}) modify(bundle)->newChild(name);
  const TarnRef c = bundle->getBundledChildWithName("c");
  EXPECT_FALSE(modify(bundle)->renameBundledChild("z", "y"));
  EXPECT_TRUE(modify(bundle)->renameBundledChild("c", "0"));
  XStringList names;
  bundle->getBundledChildNames(names);
  std::vector<std::string> found;
  for (const XString& name : names) found.emplace_back(name.view());
  EXPECT_THAT(found, ElementsAre("0", "a", "b"));
  EXPECT_EQ(bundle->getBundledChildWithNameNoFail("0"), c);
  EXPECT_TRUE(bundle->getBundledChildWithName("c").is_null());
  EXPECT_FALSE(modify(bundle)->deleteBundledChild("c"));
  EXPECT_FALSE(modify(bundle)->deleteBundledChild("a~key"));
  EXPECT_FALSE(modify(bundle)->deleteBundledChild(nullptr));
  EXPECT_THAT([&] { modify(bundle)->newChild("x~y"); }, ThrowsTarn(0, HasSubstr("\"x~y\"")));
  EXPECT_THAT([&] { modify(bundle)->newChild(""); }, ThrowsTarn(0, HasSubstr("no child name")));
  EXPECT_THAT([&] { modify(bundle)->renameBundledChild("a", "x~y"); },
              ThrowsTarn(0, HasSubstr("\"x~y\"")));
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0997"));
  EXPECT_EQ(bundle->getNumBundledChildren(), 3U);
}

TEST_P(BundleTest, KeepsItsClassAndMakesNothingOfAnUnknownOne) {
  const auto bundle = addBundle("b", "NoSuchClass");
  modify(bundle)->initClassName("Drawer");
  EXPECT_STREQ(bundle->getClassName(), "NoSuchClass");
  EXPECT_THAT([&] { modify(bundle)->newChild("x"); }, ThrowsTarn(3, HasSubstr("NoSuchClass")));
  EXPECT_EQ(bundle->getNumBlocks(), 0U);
  EXPECT_EQ(bundle->getNumBundledChildren(), 0U);
  const xcptref<TarnBundle> late = TarnBundle::Create(nullptr);
  modify(late)->initClassName("Drawer");
  EXPECT_TRUE(modify(late)->newChild("x").isA<Drawer>());
}

TEST_P(BundleTest, IteratesOverWhatIsUsedAlsoWhileThatChanges) {
  const auto bundle = addBundle("b", "TarnObject");
  fill(bundle, 2100);
  std::set<std::string> expected;
  atomically([&] {
    for (int i = 0; i < 2100; ++i) {
      const std::string name = std::to_string(i);
      if (i % 3 == 0 || i / 100 == 12) {
        EXPECT_TRUE(modify(bundle)->deleteBundledChild(name.c_str()));
      } else {
        expected.insert(name);
      }
    }
  });
  EXPECT_EQ(NamesByIterator(bundle), expected);
  // Each is deleted when the iterator stands at it.
  std::size_t deleted = 0;
  atomically([&] {
    XString name;
    for (TarnBundleIter at = bundle->first(); !at.isNull(); ++deleted) {
      const TarnBundleIter here = at;
      at.next(&name);
      EXPECT_FALSE(here == at);
      EXPECT_TRUE(modify(bundle)->deleteBundledChild(name));
      EXPECT_TRUE(here.get(&name)->getName().isEmpty());
    }
  });
  EXPECT_EQ(deleted, expected.size());
  EXPECT_EQ(bundle->getNumBundledChildren(), 0U);
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("1000", "1000_0", "1000_1"));
}

// Objects and blocks that have been added elsewhere, too, and have their parent there.
TEST_P(BundleTest, KeepsItsNamesForWhatHasItsParentElsewhere) {
  const auto bundle = addBundle("b", "TarnObject");
  fill(bundle, 3);
  const TarnRef other = add("other");
  const TarnRef guest = bundle->getBundledChildWithName("1");
  const TarnRef block = bundle->getChildWithName("Blocks~0997");
  modify(other)->addChild("0", guest);
  modify(other)->addChild("0998", block);
  EXPECT_EQ(NamesByIterator(bundle), (std::set<std::string>{"0", "1", "2"}));
  const TarnBundleIter first = bundle->first();
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("1"));
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0998"));
  EXPECT_THAT(names_of(other), ElementsAre("0", "0998"));
  modify(bundle)->updateBlockName(block, "0998");
  EXPECT_EQ(NamesByIterator(bundle), (std::set<std::string>{"0", "2"}));
  EXPECT_FALSE(first.isNull());
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("0"));
  XString name("x");
  first.get(&name);
  EXPECT_TRUE(name.isEmpty()) << "deleted meanwhile";
  EXPECT_THAT(BlocksOf(bundle), ElementsAre("0999"));
}

TEST_P(BundleTest, ComesBackFromItsText) {
  const auto bundle = addBundle("b");
  fill(bundle, 1003);
  modify(bundle)->deleteBundledChild("500");
  modify(bundle->getBundledChildWithName("7"))->set("Label", "seven");
  std::stringstream text;
  bundle->exportTo(text);
  PInOut in;
  in.readFrom(text);
  XString name;
  const xcptref<OpenBundle> read(TarnManager().importFrom(in, &name));
  EXPECT_STREQ(name, "b");
  EXPECT_EQ(picture_of(read), picture_of(bundle));
  modify(root())->addChild("copy", read);
  EXPECT_EQ(NamesByIterator(read), NamesByIterator(bundle));
  // It goes on as the original would.
  EXPECT_TRUE(modify(read)->deleteBundledChild("1002"));
  modify(read)->newChild("next");
  EXPECT_EQ(path_of(read->getBundledChildWithName("next")), "copy~BundledChildren~next");
  EXPECT_THAT(BlocksOf(read), ElementsAre("0000", "0998")) << "slot 500 was the only free one";
}

TEST_P(BundleTest, ExportsABlockWithWhatTheFilterTakes) {
  class Odd : public BundleExportFilter {
   public:
    bool shouldExport(TarnRef object) override {
      return std::stoi(std::string(object->getName().view())) % 2 == 1;
    }
  };
  const auto bundle = addBundle("b");
  fill(bundle, 5);
  modify(bundle)->deleteBundledChild("3");
  const xcptref<TarnBundleBlock> block(bundle->getChildWithName("Blocks~0996"));
  Odd odd;
  BundleExportFilter all;
  const std::vector<std::pair<BundleExportFilter*, std::vector<unsigned short>>> cases = {
      {nullptr, {0, 1, 2, 4}}, {&all, {0, 1, 2, 4}}, {&odd, {1}}};
  for (const auto& [filter, expected] : cases) {
    const XString file = block->exportToTempFile(filter);
    XString name;
    const xcptref<TarnBundleBlock> read(TarnManager().importFromFile(file, &name));
    std::filesystem::remove(file.getText());
    EXPECT_STREQ(name, "0996");
    std::vector<unsigned short> used;
    for (unsigned short slot = read->getNextUsed(0); slot < kCapacity;
         slot = read->getNextUsed(static_cast<unsigned short>(slot + 1))) {
      used.push_back(slot);
    }
    EXPECT_EQ(used, expected);
    EXPECT_TRUE(read->getAt(999).isA<Drawer>());
  }
  EXPECT_EQ(block->getNumUnused(), 996) << "the block itself stays as it is";
  EXPECT_STREQ(block->getName(), "0996");
}

// The same random calls one by one and together: the same slots and names in the end.
TEST_P(BundleTest, DoesTogetherWhatItDoesOneByOne) {
  const auto single = addBundle("single"), joint = addBundle("joint");
  std::mt19937 random(11);
  std::set<std::string> names;
  const auto change = [&](OpenBundle& one, OpenBundle& other) {
    const std::string name = std::to_string(random() % 2500);
    if (names.insert(name).second) {
      one.newChild(name.c_str());
      other.newChild(name.c_str());
    } else if (random() % 3 == 0) {
      EXPECT_TRUE(one.deleteBundledChild(name.c_str()));
      EXPECT_TRUE(other.deleteBundledChild(name.c_str()));
      names.erase(name);
    }
  };
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    atomically([&] {
      const auto one = modify(single);
      const auto other = modify(joint);
      other->together([&] {
        for (int i = 0; i < 900; ++i) {
          if (i % 100 == 0) other->together([&] { change(*one, *other); });
          change(*one, *other);
        }
      });
    });
    EXPECT_EQ(BlocksOf(joint).size(), BlocksOf(single).size());
    for (const char* path : {"single~Blocks", "joint~Blocks"}) {
      for (const auto& [name, child] : root()->getChildWithName(path)->children()) {
        EXPECT_EQ(name.substr(0, 4), xcptref<TarnBundleBlock>(child)->getBaseName().view());
      }
    }
    EXPECT_EQ(NamesByIterator(joint), names);
    EXPECT_EQ(NamesByIterator(single), names);
  }
}

TEST_P(BundleTest, KeepsNamesRightWhereWorkTogetherFails) {
  auto bundle = addBundle("b", "Parcel");
  fill(bundle, 3);
  const auto fail = [&] {
    const auto body = modify(bundle);
    body->together([&] {
      Parcel::bundle = bundle;
      body->newChild("outer");  // and "inner" within it
      body->deleteBundledChild("0");
      body->newChild("a~b");
    });
  };
  EXPECT_THAT(fail, ThrowsTarn(0, HasSubstr("a~b")));
  bundle = nullptr;
  reload();
  const TarnRef blocks = root()->getChildWithName("b~Blocks");
  const TarnRef children = root()->getChildWithName("b~BundledChildren");
  EXPECT_EQ(children->getNumAbstractChildren(), is_stored() ? 3U : 4U);
  EXPECT_THAT(names_of(blocks), ElementsAre(is_stored() ? "0997" : "0996"));
}

TEST_P(BundleTest, ReplacesAnObjectThatWasLost) {
  const auto bundle = addBundle("b");
  fill(bundle, 1);
  modify(xcptref<TarnBundleBlock>(bundle->getChildWithName("Blocks~0999")))->setAt(1, nullptr);
  const TarnRef made = modify(bundle)->newChild("made");
  EXPECT_EQ(made->getSint32("key~number"), 1);
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("made"));
  EXPECT_EQ(modify(bundle)->newChild("again"), made);
}

// As others may name blocks by path.
TEST_P(BundleTest, RefusesToFillAFullBlockThatIsNamedAsOneWithRoom) {
  const auto bundle = addBundle("b", "TarnObject");
  fill(bundle, 1000);
  modify(bundle->getChildWithName("Blocks~0000"))->setName("0001");
  const auto thrown = ThrowsTarn(0, HasSubstr("Invalid bundle block index 1024"));
  EXPECT_THAT([&] { modify(bundle)->newChild("one"); }, thrown);
  EXPECT_THAT(
      [&] {
        const auto body = modify(bundle);
        body->together([&] { body->newChild("one"); });
      },
      thrown);
  EXPECT_EQ(bundle->getNumBundledChildren(), 1000U);
}

// --- In the storage -----------------------------------------------------------------------------

TEST(StoredBundleTest, HandingOutASlotWritesBytesAndNotABlock) {
  stored_tree stored;
  const xcptref<TarnBundle> bundle = TarnBundle::Create("TarnObject");
  modify(stored.root())->addChild("b", bundle);
  stored.session().atomically([&] {
    for (int i = 0; i < 500; ++i) modify(bundle)->newChild(std::to_string(i).c_str());
  });
  stored.database().clear_num_bytes_in_out();
  modify(bundle)->newChild("one more");
  EXPECT_TRUE(modify(bundle)->deleteBundledChild("77"));
  EXPECT_LT(stored.database().get_num_bytes_to_db(), 8000U);
}

TEST(StoredBundleTest, PreloadBringsAllObjectsIntoMemory) {
  stored_tree stored;
  {
    const xcptref<TarnBundle> bundle = TarnBundle::Create("Drawer");
    modify(stored.root())->addChild("b", bundle);
    modify(bundle)->newChild("x");
  }
  stored.reopen();
  const xcptref<TarnBundleBlock> block(stored.root()->getChildWithName("b~Blocks~0999"));
  block->preload();
  stored.database().clear_num_bytes_in_out();
  for (unsigned short slot = 0; slot < kCapacity; ++slot) {
    EXPECT_EQ(block->getAt(slot)->getSint32("Count"), Drawer::kNewCount);
  }
  EXPECT_EQ(stored.database().get_num_bytes_from_db(), 0U);
  block->preload();
}

TEST(StoredBundleTest, FindsTheBlockOfAnObjectAgainAfterReopening) {
  stored_tree stored;
  modify(stored.root())->addChild("b", TarnBundle::Create("TarnObject"));
  const auto bundle = [&] { return xcptref<TarnBundle>(stored.root()->getChildWithName("b")); };
  // Blocks are stored with others' objects between them, and rolled back ones leave nothing.
  for (int i = 0; i < 3500; ++i) {
    if (i % 700 == 0) {
      const auto open = bundle();
      EXPECT_ANY_THROW(stored.session().atomically([&] {
        modify(open)->newChild("gone");
        modify(open)->deleteBundledChild(std::to_string(i / 2).c_str());
        throw std::runtime_error("rolled back");
      }));
      stored.reopen();
    }
    const int last = std::min(i + 50, 3500);
    stored.session().atomically([&] {
      for (; i < last; ++i) modify(bundle())->newChild(std::to_string(i).c_str());
    });
    --i;
  }
  stored.session().atomically([&] {
    for (int i = 0; i < 3500; i += 7) {
      EXPECT_TRUE(modify(bundle())->deleteBundledChild(std::to_string(i).c_str())) << i;
    }
  });
  EXPECT_EQ(bundle()->getNumBundledChildren(), 3000U);
  unsigned long unused = 0;
  for (const auto& [name, block] : bundle()->getChildWithName("Blocks")->children()) {
    const unsigned short free = xcptref<TarnBundleBlock>(block)->getNumUnused();
    EXPECT_EQ(name.substr(0, 4), TarnBundleBlock::GetBaseNameFor(free).view());
    unused += free;
  }
  EXPECT_EQ(unused, 4U * kCapacity - 3000);
  std::uint64_t objects = 0;
  EXPECT_EQ(damage_of(stored.database(), &objects), "");
  EXPECT_GT(objects, 4000U);
}

// Places in it begin at the block, though its slots are an object of their own.
class BundleInPartsTest : public session_test {};

TEST_F(BundleInPartsTest, ABlockThatIsReadInPartsIsTheSame) {
  const auto block = TarnBundleBlock::Create();
  modify(block)->initialize("TarnObject");
  for (const unsigned short slot : {996, 997, 998}) {
    for (const char* name : {"a", "b"})
      modify(block->getAt(slot))->addChild(name, TarnObject::Create());
  }
  // Listed before and behind where it stands.
  const TarnRef shared = block->getAt(997)->getChildWithName("b");
  for (const unsigned short slot : {996, 998})
    modify(block->getAt(slot)->getChildren())->link("c", shared);
  manager().set("block", TarnRef(block));
  std::string text;
  PInOut out;
  out.writeTo(text);
  manager().exportTo("block", out);
  ASSERT_TRUE(out.close());
  for (const std::size_t size : {121, 123}) {  // parts end within the block
    std::stringstream stream(text);
    PInOut in;
    in.readFrom(stream);
    manager().importTo("copy", in, nullptr, size);
    std::string again;
    PInOut copy;
    copy.writeTo(again);
    manager().exportTo("copy", copy);
    ASSERT_TRUE(copy.close());
    EXPECT_EQ(again.substr(again.find('\n')), text.substr(text.find('\n'))) << size;
  }
}

}  // namespace
}  // namespace tarns
