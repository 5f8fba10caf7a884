// Kinds of members that an application seldom has, and copies between classes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnValueComparator.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/util/XStringList.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/captured_log.h"
#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {

enum class Level : std::uint16_t { kLow = 1, kHigh = 60'000 };
enum class Side : std::int8_t { kLeft = -1, kRight = 1 };

class Kinds : public TarnObject {
  TARN_CLASS(Kinds, TarnObject)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("U16", u16_);
    out.write("U32", u32_);
    out.write("U64", u64_);
    out.write("S64", s64_);
    out.write("Real", real_);
    out.write("Max_Load", maxLoad_);
    out.write("Flags", flags_);
    out.writeEnum("Level", level_);
    out.addEnumValue("Level", static_cast<unsigned long>(Level::kLow), "Low");
    out.addEnumValue("Level", static_cast<unsigned long>(Level::kHigh), "High");
    out.writeEnum("Wide", wide_);
    out.addEnumValue("Wide", 0xFFFFFFFF, "Most");
    out.writeEnum("Side", side_);
    out.addEnumValue("Side", static_cast<unsigned long>(Side::kLeft), "Left");
    out.write("Names", names_, 2);
    out.write("Nodes", nodes_, 2);
    out.write("Number", number_);
    out.write("Index", index_);
    return out.write("Notes", notes_);
  }

  TarnStringList& notes() { return notes_; }
  const TarnStringList& notes() const { return notes_; }
  void setIndex(const goods::ref<goods::B_tree>& index) { index_ = index; }
  const goods::ref<goods::B_tree>& getIndex() const { return index_; }

 private:
  std::uint16_t u16_ = 0;
  std::uint32_t u32_ = 0;
  std::uint64_t u64_ = 0;
  std::int64_t s64_ = 0;
  float real_ = 0;
  double maxLoad_[3] = {};
  bool flags_[2] = {};
  Level level_ = Level::kLow;
  std::uint32_t wide_ = 0xFFFFFFFF;
  Side side_ = Side::kLeft;
  TarnString names_[2];
  xcptref<TarnObject> nodes_[2];
  xcptref<TarnSint32Value> number_;
  goods::ref<goods::B_tree> index_;
  TarnStringList notes_{this};
};
TARN_REGISTER(Kinds, TarnObject);

class MoreKinds : public Kinds {
  TARN_CLASS(MoreKinds, Kinds)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    Kinds::write(name, out);
    return out.write("Extra", extra_);
  }

 private:
  std::int32_t extra_ = 7;
};
TARN_REGISTER(MoreKinds, Kinds);

// Has some members of Kinds with other types.
class OtherKinds : public TarnObject {
  TARN_CLASS(OtherKinds, TarnObject)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("U16", text_);
    out.write("Max_Load", loads_);
    out.write("Real", whole_);
    out.write("Level", level_);
    out.write("Names", name_);
    out.write("S64", empty_);
    out.write("Notes", notes_);
    return out.write("Nodes", nodes_, 2);
  }

 private:
  TarnString text_;
  std::int16_t loads_[2] = {};
  std::int32_t whole_ = 0;
  std::uint32_t level_ = 0;
  TarnString name_;
  TarnString empty_;
  double notes_ = 4;
  xcptref<OtherKinds> nodes_[2];
};
TARN_REGISTER(OtherKinds, TarnObject);

// Its name is no reason to take it for a helper.
class Thing_t : public TarnObject {  // NOLINT(readability-identifier-naming): the name matters
  TARN_CLASS(Thing_t, TarnObject)
 public:
  virtual int answer() const { return 42; }
};
TARN_REGISTER(Thing_t, TarnObject);

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class MembersTest : public node_test {
 protected:
  MembersTest() { modify(root())->addChild("k", Kinds::Create()); }
  xcptref<Kinds> kinds() const { return root()->getChildWithName("k"); }
  std::string text(const char* path) const { return std::string(root()->getXString(path).view()); }
};
INSTANTIATE_NODE_TEST(MembersTest);

std::vector<std::string> TextsOf(const TarnStringList& list) {
  std::vector<std::string> texts;
  list.iterateChildren([&](std::string_view name, const TarnString& string) {
    texts.push_back(std::string(name) + "=" + string.str());
  });
  return texts;
}

TEST_P(MembersTest, ReadsAndWritesEachByPath) {
  struct Case {
    const char* path;
    TarnData set;
    TarnData::Type type;
    const char* text;
  };
  const Case cases[] = {
      {"k~U16", TarnData(70'000), TarnData::Uint16, "4464"},
      {"k~U32", TarnData(-1), TarnData::Uint32, "4294967295"},
      {"k~U64", TarnData("18446744073709551615"), TarnData::Uint64, "18446744073709551615"},
      {"k~S64", TarnData(std::int64_t{-1} << 40), TarnData::Sint64, "-1099511627776"},
      {"k~Real", TarnData(0.25), TarnData::Float, "0.250000"},
      {"k~Max_Load_0", TarnData(1), TarnData::Double, "1.000000"},
      {"k~Max_Load_2", TarnData(3), TarnData::Double, "3.000000"},
      {"k~Flags_1", TarnData(2), TarnData::Boolean, "True"},
      {"k~Level", TarnData(60'000), TarnData::String, "60000 (High)"},
      {"k~Wide", TarnData("4294967295 (Most)"), TarnData::String, "4294967295 (Most)"},
      {"k~Side", TarnData("255 (Left)"), TarnData::String, "255 (Left)"},
      {"k~Names_1", TarnData("n"), TarnData::String, "n"},
      {"k~Number", TarnData("12"), TarnData::Sint32, "12"},
      {"k~Max_Load_3", TarnData(true), TarnData::Boolean, "True"},  // a child
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " = " + c.set.getString());
    modify(root())->setValue(c.path, c.set);
    reload();
    TarnData value;
    ASSERT_TRUE(root()->get(c.path, value));
    EXPECT_EQ(value.getType(), c.type);
    EXPECT_STREQ(value.getString(), c.text);
  }
  EXPECT_THAT(names_of(kinds()), ElementsAre("Max_Load_3"));
  EXPECT_TRUE(kinds()->hasChild("Max_Load_2"));
  EXPECT_EQ(kinds()->getUniqueChildName("Max_Load_2"), "Max_Load_2_0");
}

TEST_P(MembersTest, ReadsWhatHasNoValueAsEmptyAndRefusesToWriteIt) {
  modify(kinds())->setIndex(goods::B_tree::create(goods::object_ref(), 2));
  for (const char* path : {"k~Index", "k~Notes", "k~Nodes_1"}) {
    SCOPED_TRACE(path);
    TarnData value(5);
    EXPECT_TRUE(root()->get(path, value));
    EXPECT_EQ(value.getType(), TarnData::None);
  }
  for (const char* name : {"Index", "Notes"}) {
    EXPECT_THAT([&] { modify(kinds())->setValue(name, TarnData(1)); },
                ThrowsTarn(0, "Cannot access value \"" + std::string(name) +
                                  "\" because the TARNS library does not support implicit "
                                  "retrieval of fields with the type \"1\"."));
  }
  EXPECT_THAT([&] { modify(kinds())->setValue("Nodes_1", TarnData(1)); },
              ThrowsTarn(11, HasSubstr("do not have values")));
  EXPECT_TRUE(kinds()->getChildWithName("Nodes_1").is_null()) << "what was made is gone again";
}

TEST_P(MembersTest, HoldsNodesInArrays) {
  const TarnRef node = TarnObject::Create();
  modify(root())->setNode("k~Nodes_1", node);
  EXPECT_EQ(root()->getChildWithName("k~Nodes_1"), node);
  EXPECT_TRUE(root()->getChildWithName("k~Nodes_0").is_null());
  modify(root())->setNode("k~Nodes_2", TarnObject::Create());
  EXPECT_THAT(names_of(kinds()), ElementsAre("Nodes_2")) << "no element: a child";
}

// The functions of a class take more names than paths do; see their header.
TEST_P(MembersTest, TakesNamesThatGoOnBehindAMember) {
  const TarnClassDescriptor& cls = Kinds::SelfClass();
  auto node = modify(kinds());
  for (const char* name : {"U16_total", "U16_x", "U16_1,000", "_U16", "U16~", "Max_Load", ""}) {
    EXPECT_FALSE(cls.setChildValue(&*node, name, TarnData(3))) << name;
    EXPECT_FALSE(node->setChildValue(name, TarnData(3))) << name;
  }
  EXPECT_TRUE(cls.setChildValue(&*node, "U16_7", TarnData(3)));
  EXPECT_TRUE(node->setChildValue("Max_Load_2", TarnData(4)));
  TarnData value;
  EXPECT_TRUE(cls.getChildValue(*node, "U16_total", value));
  EXPECT_EQ(value.getUint16(), 3);
  EXPECT_FALSE(cls.getChildValue(*node, "Max", value));
  EXPECT_FALSE(cls.getChildValue(*node, "U16~", value));
  EXPECT_EQ(node->getDouble("Max_Load_2"), 4);
  for (const char* name : {"Flags_0,001", "Flags_2", "Flags_x", "Flags_", "Max_Load_0"}) {
    EXPECT_EQ(cls.findField(name), nullptr) << name;
  }
  for (const char* name : {"Max_Load_3", "Max_Load_0,001", "Max_Load_-1", "Max_Load_", "Max_0"}) {
    EXPECT_EQ(cls.findMember(name), nullptr) << name;
  }
  EXPECT_EQ(cls.findMember("Max_Load_1"), cls.findField("Max_Load"));
}

TEST_P(MembersTest, CopiesAndClearsAll) {
  for (const char* path : {"k~Max_Load_1", "k~U16", "k~Names_0", "k~Flags_0", "k~Number"}) {
    modify(root())->setValue(path, TarnData(5));
  }
  modify(kinds())->notes().insert("first", "one");
  modify(root())->setNode("k~Nodes_0", kinds());
  modify(root())->addChild("copy", kinds()->clone());
  modify(root())->addChild("deep", kinds()->deepClone());
  modify(root())->addChild("more", MoreKinds::Create());
  modify(root()->getChildWithName("more"))->copyFrom(kinds());
  modify(kinds())->notes().insert("second", "two");
  modify(root())->setValue("k~Names_0", TarnData("changed"));
  reload();
  for (const char* name : {"copy", "deep", "more"}) {
    SCOPED_TRACE(name);
    const xcptref<Kinds> copy = root()->getChildWithName(name);
    EXPECT_EQ(copy->getDouble("Max_Load_1"), 5.0);
    EXPECT_EQ(copy->getUint16("U16"), 5);
    EXPECT_EQ(copy->getXString("Names_0"), "5");
    EXPECT_TRUE(copy->getBoolean("Flags_0"));
    EXPECT_EQ(copy->getUint8("Side"), 255);
    EXPECT_EQ(copy->getSint32("Number"), 5);
    EXPECT_THAT(TextsOf(copy->notes()), ElementsAre("first=one"));
    const bool isDeep = std::string_view(name) == "deep";
    EXPECT_EQ(copy->getChildWithName("Nodes_0"), isDeep ? TarnRef(copy) : TarnRef(kinds()));
  }
  EXPECT_EQ(text("more~Extra"), "7");
  TarnValue::ClearValuesIn(kinds());
  EXPECT_EQ(kinds()->getDouble("Max_Load_1"), 0.0);
  EXPECT_FALSE(kinds()->getBoolean("Flags_0"));
  EXPECT_EQ(kinds()->getSint32("Number"), 0);
  EXPECT_EQ(root()->valueAt("k~Names_0")->getType(), TarnData::None);
  EXPECT_THAT(TextsOf(kinds()->notes()), ElementsAre("first=one", "second=two"));
  for (const char* name : {"k", "deep"})
    modify(root())->setNode(joined(name, "Nodes_0").c_str(), {});
}

TEST_P(MembersTest, CopiesFromOtherClassesWhatConverts) {
  modify(root())->setValue("k~U16", TarnData(5));
  modify(root())->setValue("k~Max_Load_1", TarnData(2.5));
  modify(root())->setValue("k~Real", TarnData(7.9));
  modify(root())->setValue("k~Level", TarnData(60'000));
  modify(root())->setValue("k~Names_0", TarnData("name"));
  modify(kinds())->notes().insert("first", "one");
  modify(root())->addChild("other", OtherKinds::Create());
  modify(root()->getChildWithName("other"))->copyFrom(kinds());
  reload();
  EXPECT_EQ(text("other~U16"), "5");
  EXPECT_EQ(text("other~Max_Load_1"), "2");
  EXPECT_EQ(text("other~Real"), "7");
  EXPECT_EQ(text("other~Level"), "60000");
  EXPECT_EQ(text("other~Names"), "name") << "the first item";
  EXPECT_EQ(text("other~Notes"), "4.000000") << "a list is no number";
  modify(root())->setValue("k~S64", TarnData(9));
  modify(kinds())->copyFrom(root()->getChildWithName("other"));
  EXPECT_EQ(text("k~S64"), "0") << "a text, the number 0 so far";
  EXPECT_EQ(text("k~Max_Load_1"), "2.000000");
  EXPECT_EQ(text("k~Max_Load_2"), "0.000000") << "an item that the other has not";
  EXPECT_THAT(TextsOf(kinds()->notes()), ElementsAre("first=one"));
}

TEST_P(MembersTest, CopiesNothingWhenANodeDoesNotFit) {
  modify(root())->addChild("other", OtherKinds::Create());
  modify(root())->setValue("other~Real", TarnData(1));
  modify(root())->setValue("k~Real", TarnData(2));
  modify(root())->setNode("k~Nodes_1", TarnObject::Create());
  atomically([&] {
    EXPECT_THAT([&] { modify(root()->getChildWithName("other"))->copyFrom(kinds()); },
                ThrowsTarn(12, HasSubstr("to a \"OtherKinds\"")));
  });
  EXPECT_EQ(text("other~Real"), "1");
}

TEST_P(MembersTest, ComparesEnumerationsWithNumbersAsNumbers) {
  modify(root())->setValue("k~Level", TarnData(0));  // a number without a name
  EXPECT_FALSE(root()->getBoolean("k~Level"));
  EXPECT_FALSE(root()->getBoolean("k~Level", true));
  EXPECT_EQ(root()->getSint32("k~Level"), 0);
  EXPECT_EQ(root()->getDouble("k~Level", 5), 0.0);
  EXPECT_THAT([&] { root()->getXString("k~Level"); }, ThrowsTarn(0, HasSubstr("Invalid")));
  TarnValueComparator comparator("Level", nullptr);
  const TarnData zero(0);
  const TarnData high("60000 (High)");
  EXPECT_EQ(comparator.compare(kinds(), &zero), 0);
  EXPECT_LT(comparator.compare(kinds(), &high), 0) << "cannot be read as a text";
  modify(root())->setValue("k~Level", TarnData(60'000));
  EXPECT_GT(comparator.compare(kinds(), &zero), 0);
  EXPECT_EQ(comparator.compare(kinds(), &high), 0);
  EXPECT_EQ(comparator.compare(kinds(), nullptr), 1);
  const TarnData number(std::uint64_t{60'000});
  EXPECT_EQ(modify(root())->deleteChildrenWithValue("Level", &zero), 0U);
  EXPECT_EQ(modify(root())->deleteChildrenWithValue("Level", &number), 1U);
}

TEST(ClassNamesTest, KnowsClassesOfAnyName) {
  stored_tree tree;
  modify(tree.root())->addChild("thing", Thing_t::Create());
  tree.reopen();
  const xcptref<Thing_t> thing = tree.root()->getChildWithName("thing");
  EXPECT_EQ(thing->answer(), 42);
}

TEST(ClassNamesTest, ReportsASecondClassOfOneName) {
  captured_log log;
  {
    const TarnClassRegistration second(Kinds::GetType, sizeof(Kinds),
                                       goods::construct_object<Kinds>, Kinds::Constructor,
                                       TarnObject::SelfClass(), {});
    EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("under the name \"Kinds\" while another one")));
  }
  EXPECT_EQ(goods::class_descriptor::find("Kinds"), &Kinds::SelfClass());
}

TEST(ClassNamesTest, RefusesNodesOfClassesThatAreNone) {
  goods::class_descriptor plain("plain", sizeof(TarnObject), nullptr, nullptr, nullptr);
  EXPECT_THAT([&] { goods::construct_object<TarnObject>(nullptr, plain, 0); },
              ThrowsTarn(3, HasSubstr("\"plain\"")));
}

}  // namespace
}  // namespace tarns
