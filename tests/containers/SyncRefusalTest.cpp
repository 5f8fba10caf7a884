// Exports that cannot be taken over as they are, and bundles that cannot be exported.
#include <gmock/gmock.h>

#include <sstream>

#include "containers/SyncSite.h"
#include "containers/sync_scan.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using Outcome = BundleImport::Outcome;

class SyncRefusalTest : public TwoSitesTest {};

// Every line left out, doubled or changed, every cut; with a checksum that fits.
TEST_F(SyncRefusalTest, RefusesDamagedAndHostileExports) {
  a().create("x", "left");
  a().create("y", "with \"quotes\" and\nlines");
  b().import(a().exportSince(0));
  a().import(b().exportSince(0));
  a().remove("y");
  const std::string good = a().exportFor(b());
  const auto before = b().contents();
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_THAT([&] { b().import(good.substr(0, length)); }, ThrowsTarn(15, HasSubstr("end")));
  }
  for (std::size_t at = 0; at < good.size(); ++at) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 1);
    EXPECT_THAT([&] { b().import(bad); }, ThrowsTarn(15, testing::_)) << at;
  }
  EXPECT_EQ(b().contents(), before);
  std::vector<std::string> lines;
  std::istringstream in(good);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  lines.pop_back();
  const auto refused = [&](const std::vector<std::string>& changed) {
    std::string text;
    for (const std::string& line : changed) text += line + "\n";
    try {
      b().import(WithChecksum(text));
      return false;
    } catch (const TarnException& error) {
      EXPECT_THAT(error.getErrorID(), testing::AnyOf(0U, 9U, 12U, 15U, 109U)) << text;
      return true;
    }
  };
  const std::vector<std::pair<std::string, std::string>> replaced = {
      {"BundleChanges 1", "BundleChanges 2"},
      {"  Class Drawer", "  Class TarnObject"},
      {"  Class Drawer", "  Class Unheard"},
      {"  From ", "  From 0000000000000000"},
      {"  From ", "  From xyz"},
      {"  Since ", "  Since 99999"},
      {"  Since ", "  Since -1"},
      {"  Revision ", "  Revision 18446744073709551615"},
      {"  Revision ", "  Revision 1"},
      {"  Known ", "  Known a:1"},
      {"  Known ", "  Known 00000000000000aa:99999999"},
      {"    Marks ", "    Marks \"\""},
      {"  Replica ", "  Replica 00000000000000aa"},
      {"    Version ", "    Version 00000000000000aa:1"},
      {"    Version ", "    Version \"\""},
      {"  Deleted ", "  Deleted a~b"},
      {"  Deleted ", "  Deleted \"\""},
      {"  Deleted ", "  Erased y"},
  };
  for (const auto& [prefix, line] : replaced) {
    std::vector<std::string> changed = lines;
    bool isFound = false;
    for (std::string& old : changed) {
      if (old.starts_with(prefix)) old = line, isFound = true;
    }
    EXPECT_TRUE(isFound) << prefix;
    EXPECT_TRUE(refused(changed)) << line;
  }
  EXPECT_EQ(b().contents(), before);
  EXPECT_EQ(b().import(good).outcome, Outcome::kImported);
  expectEqual();
}

// A revision that is out of all reason would leave no numbers for later ones.
TEST_F(SyncRefusalTest, RefusesARevisionThatIsTooFarAway) {
  a().create("x", "");
  std::string text = a().exportSince(0);
  const std::string from = a().replica();
  const std::string revision = std::to_string(a().in([&] { return a().bundle()->getRevision(); }));
  const std::string far = std::to_string(std::uint64_t{1} << 62);
  ReplaceAll(text, "Revision " + revision + "\n", "Revision " + far + "\n");
  ReplaceAll(text, from + ":" + revision + "\n", from + ":" + far + "\n");
  ReplaceAll(text, ":" + revision + "\n", ":" + far + "\n");
  EXPECT_THAT([&] { b().import(WithChecksum(text)); }, ThrowsTarn(15, HasSubstr(far)));
  b().create("y", "");
  exchange();
  expectEqual();
}

// One site has got another version of the program first.
TEST_F(SyncRefusalTest, RefusesWhatItDoesNotKnowAndNamesIt) {
  struct Case {
    const char *line, *instead;
    unsigned error;
    const char* named;
  };
  const Case cases[] = {
      {"      Label new\n", "      Label new\n      Colour red\n", 15, "\"Colour\""},
      {"      Label new\n", "      Label new\n      Lock\n        Bolt b\n", 15, "\"Lock\""},
      {"        TarnObject key\n", "        Key key\n", 3, "\"Key\""},
      {"            TarnSint32Value number\n", "            Number number\n", 3, "\"Number\""},
  };
  a().create("x", "old");
  exchange();
  a().change("x", "new");
  a().create("y", "");
  const std::string good = a().exportFor(b());
  const auto before = b().contents();
  for (const Case& one : cases) {
    SCOPED_TRACE(one.named);
    std::string text = good;
    ReplaceAll(text, one.line, one.instead);
    ASSERT_NE(text, good);
    EXPECT_THAT([&] { b().import(WithChecksum(text)); },
                ThrowsTarn(one.error, AllOf(HasSubstr("Line "), HasSubstr(one.named))));
    EXPECT_EQ(b().contents(), before);
  }
  EXPECT_EQ(b().import(good).outcome, Outcome::kImported);
  expectEqual();
}

// The one who exports is told, and not the one who gets it.
TEST_F(SyncRefusalTest, SaysWhichObjectCannotBeExchanged) {
  a().create("x", "");
  a().notice();
  a().in([&] {
    for (const char* path : {"b~BundledChildren~x", "b~BundledChildren~y"}) {
      a().manager().set(path, TarnObject::CreateOfType("TarnObject"));
    }
  });
  for (const char* name : {"x", "y"}) {
    const auto named = HasSubstr(std::string("the object \"") + name + "\" is of the class \"Tarn");
    EXPECT_THAT([&] { a().exportSince(0); }, ThrowsTarn(12, named));
    EXPECT_THAT([&] { a().in([&] { modify(a().bundle())->markChanged(name); }); },
                ThrowsTarn(12, named));
    a().remove(name);
  }
  exchange();
  expectEqual();
}

// Copies of an object in others would come back in its place.
TEST_F(SyncRefusalTest, RefusesObjectsThatLeadToOthersOfTheBundle) {
  struct Case {
    const char *listed, *named;  // whose children are listed in the object, and what is found
  };
  a().in([&] {
    TarnManager& manager = a().manager();
    manager.set("hall~links", SyncedBundle::Create("TarnObject"));
    manager.set("elsewhere~part", 1);
    const xcptref<SyncedBundle> bundle(manager.getObject("hall~links"));
    modify(bundle)->newChild("other");
    manager.set("hall~links~BundledChildren~other~deep~value", 1);
    const TarnRef object = modify(bundle)->newChild("x");
    for (const Case& one :
         {Case{"hall~links~BundledChildren", "other"},
          Case{"hall~links~BundledChildren~other", "deep"}, Case{"hall~links", "Blocks"},
          Case{"hall", "links"}, Case{"", "links"}}) {
      SCOPED_TRACE(one.listed);
      modify(object)->addChild("parts", TarnObject::Create());
      manager.getObject(one.listed)->addChildrenTo(object->getChildWithName("parts"));
      const auto refusal = ThrowsTarn(0, AllOf(HasSubstr("The object \"x\""),
                                               HasSubstr("\"" + std::string(one.named) + "\",")));
      EXPECT_THAT([&] { BundleSync(bundle).exportSince(0); }, refusal);
      EXPECT_THAT([&] { modify(bundle)->markChanged("x"); }, refusal);
      modify(object)->deleteChild("parts");
    }
    modify(object)->addChild("itself", object);
    manager.getObject("elsewhere")->addChildrenTo(object);
    BundleSync(bundle).exportSince(0);
    EXPECT_EQ(BundleSync(bundle).noticeChanges(), 0U);
  });
}

// What was two objects of one name when it was found need not be when it is looked at.
TEST_F(SyncRefusalTest, RefusesTwoObjectsOfOneNameOnlyWhileThereAre) {
  a().create("x", "");
  a().notice();
  a().in([&] {
    const auto objects = a().manager().getObject("b~BundledChildren");
    modify(objects)->addChild("x", TarnObject::CreateOfType("Drawer"));
    EXPECT_THAT(FindUnnoticed(a().bundle()), Contains("x"));
    EXPECT_THAT([&] { BundleSync(a().bundle()).noticeChanges(); },
                ThrowsTarn(0, HasSubstr("several objects called \"x\"")));
    modify(objects)->deleteChild("x");
    BundleSync(a().bundle()).noticeChanges();
  });
  exchange();
  expectEqual();
}

}  // namespace
}  // namespace tarns
