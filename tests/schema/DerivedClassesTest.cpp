// What an application's classes may override, and how classes derive from each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassPrototype.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/util/XStringList.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {

// A node with ways of its own: names in any case, a slot, a value, default children.
class Shelf : public TarnObject {
  TARN_CLASS(Shelf, TarnObject)
 public:
  static inline int initialized = 0;

  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    return out.write("Slot", slot_);
  }
  void initialize() override {
    ++initialized;
    EXPECT_TRUE(hasParent()) << "initialized once it is in the tree";
    addChild("label", TarnValue::CreateValue(TarnData("new")));
  }
  xcptref<TarnObject> createDefaultChild(const char* name) const override {
    if (*name == 'x') return nullptr;
    return *name == 's' ? TarnRef(Shelf::Create()) : TarnObject::createDefaultChild(name);
  }
  const TarnObject* findChild(goods::reader& reader, std::string_view name) const override {
    if (name == "TOP") return reader.get(slot_);
    std::string lower(name);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return TarnObject::findChild(reader, lower);
  }
  bool readValue(goods::reader& reader, TarnData& out) const override {
    out.set(reader.get(slot_) != nullptr ? "occupied" : "free");
    return true;
  }
  bool setChildNode(const char* name, xcptref<TarnObject>& node) override {
    if (std::string_view(name) != "TOP") return TarnObject::setChildNode(name, node);
    slot_ = node;
    return true;
  }

 private:
  xcptref<TarnObject> slot_;
};
TARN_REGISTER(Shelf, TarnObject);

// Shown in per cent, kept as a fraction.
class Percent : public TarnValue {
  TARN_CLASS(Percent, TarnValue)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    return TarnValue::write(name, out) && out.write("Fraction", fraction_);
  }

 protected:
  bool getValue(TarnData& out) const override {
    out.set(fraction_ * 100);
    return true;
  }
  bool setTarnValue(const TarnData& value) override {
    fraction_ = value.getDouble() / 100;
    return true;
  }

 private:
  double fraction_ = 0;
};
TARN_REGISTER_WITH(Percent, TarnValue, .isTarnsBaseClass = true);

// A value with members of its own, for very many children.
class Register : public TarnUint32Value {
  TARN_CLASS(Register, TarnUint32Value)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    TarnUint32Value::write(name, out);
    out.write("Rate", rate_);
    return out.write("Percent", percent_);
  }

 private:
  float rate_ = 0;
  xcptref<Percent> percent_;
};
TARN_REGISTER_WITH(Register, TarnUint32Value, .pageN = 146);

// A chain with a class in its middle whose members, and those of its bases, are not reflected.
template <int kLevel, class Base>
class ChainPart : public Base {
 public:
  bool write(const char* name, GOODSinOut& out) override {
    Base::write(name, out);
    out.write(("A" + std::to_string(kLevel)).c_str(), first_);
    return out.write(("B" + std::to_string(kLevel)).c_str(), second_);
  }

 protected:
  ChainPart(goods::object_handle* handle, goods::class_descriptor& cls) : Base(handle, cls) {}
  explicit ChainPart(goods::class_descriptor& cls) : Base(cls) {}

 private:
  std::int32_t first_ = kLevel;
  std::int32_t second_[2] = {};
};
class Lower : public ChainPart<1, TarnObject> {
  using Members = ChainPart<1, TarnObject>;
  TARN_CLASS(Lower, Members)
};
class Middle : public ChainPart<2, Lower> {
  using Members = ChainPart<2, Lower>;
  TARN_CLASS(Middle, Members)
};
class Upper : public ChainPart<3, Middle> {
  using Members = ChainPart<3, Middle>;
  TARN_CLASS(Upper, Members)
};
class Uppermost : public ChainPart<4, Upper> {
  using Members = ChainPart<4, Upper>;
  TARN_CLASS(Uppermost, Members)
};
TARN_REGISTER(Lower, TarnObject);
TARN_REGISTER_WITH(Middle, Lower, .isTarnsBaseClass = true);
TARN_REGISTER(Upper, Middle);
TARN_REGISTER(Uppermost, Upper);

namespace {

using testing::ElementsAre;

class DerivedClassesTest : public node_test {
 protected:
  DerivedClassesTest() { modify(root())->addChild("shelf", Shelf::Create()); }
  xcptref<Shelf> shelf() const { return root()->getChildWithName("shelf"); }
};
INSTANTIATE_NODE_TEST(DerivedClassesTest);

TEST_P(DerivedClassesTest, FindsChildrenAndValuesTheirOwnWay) {
  modify(shelf())->addChild("book", TarnValue::CreateValue(TarnData(3)));
  EXPECT_EQ(root()->getSint32("shelf~BOOK"), 3);
  EXPECT_TRUE(shelf()->hasChild("Book"));
  root()->set("shelf~Book", TarnData(4));
  modify(root())->setValue("shelf~bOOk", TarnData(5));
  EXPECT_THAT(names_of(shelf()), ElementsAre("book"));
  EXPECT_EQ(root()->getSint32("shelf~book"), 5);
  EXPECT_EQ(root()->getXString("shelf"), "free");
  const TarnRef top = TarnObject::Create();
  modify(root())->setNode("shelf~TOP", top);
  reload();
  EXPECT_EQ(root()->getXString("shelf"), "occupied");
  EXPECT_FALSE(root()->getChildWithName("shelf~TOP").is_null());
  EXPECT_THAT(names_of(shelf()), ElementsAre("book"));
}

TEST_P(DerivedClassesTest, MakesDefaultChildrenTheirOwnWay) {
  modify(root())->setValue("shelf~s1~s2~plain~n", TarnData(1));
  EXPECT_STREQ(root()->getChildWithName("shelf~s1~s2")->getType(), "Shelf");
  EXPECT_STREQ(root()->getChildWithName("shelf~s1~s2~plain")->getType(), "TarnObject");
  const auto before = picture_of(root());
  EXPECT_THAT([&] { modify(root())->setValue("shelf~s3~x~n", TarnData(1)); },
              ThrowsTarn(9,
                         "Programmer error: set() cannot create the childBranch for "
                         "\"shelf~s3~x~n\""));
  EXPECT_EQ(picture_of(root()), before);
  Shelf::initialized = 0;
  const TarnRef made = modify(root())->getChildWithNameNoFail("a~b", "Shelf");
  EXPECT_EQ(modify(root())->getChildWithNameNoFail("a~b", "Shelf"), made);
  EXPECT_EQ(Shelf::initialized, 1);
  reload();
  EXPECT_EQ(root()->getXString("a~b~label"), "new");
}

TEST_P(DerivedClassesTest, KeepValuesTheirOwnWay) {
  modify(root())->addChild("p", Percent::Create());
  modify(root())->setValue("p", TarnData("12.5"));
  reload();
  EXPECT_EQ(root()->getDouble("p"), 12.5);
  EXPECT_EQ(TarnValue::AddToChild(root(), "p", TarnData(50)).getDouble(), 62.5);
  EXPECT_EQ(root()->getDouble("p"), 62.5);
  TarnValue::ClearValuesIn(root()->getChildWithName("p"));
  EXPECT_EQ(root()->getDouble("p"), 0.0);
}

TEST_P(DerivedClassesTest, ReadsValuesThroughMembers) {
  modify(root())->addChild("r", Register::Create());
  modify(root())->setValue("r", TarnData(7));
  modify(root())->setValue("r~Rate", TarnData(0.5));
  modify(root())->setValue("r~Percent", TarnData(25));
  reload();
  EXPECT_EQ(root()->getUint32("r"), 7U);
  EXPECT_EQ(root()->getFloat("r~Rate"), 0.5F);
  EXPECT_EQ(root()->getDouble("r~Percent"), 25.0) << "made to fit the member";
  TarnData value;
  EXPECT_TRUE(root()->getChildWithName("r")->getClass().getChildValue(
      *root()->getChildWithName("r").read(), "Percent", value));
  EXPECT_EQ(value.getDouble(), 25.0);
  EXPECT_TRUE(root()->getChildWithName("r~Percent")->isOfType("Percent"));
}

TEST(ClassChainTest, ReflectsDownToTheFirstBaseOfTheLibrary) {
  struct Case {
    const TarnClassDescriptor& cls;
    unsigned long members, own;
    std::vector<const char*> known, unknown;
  };
  const Case cases[] = {
      {TarnUint32Value::SelfClass(), 0, 0, {}, {"Value"}},
      {Register::SelfClass(), 2, 2, {"Rate", "Percent"}, {"Value"}},
      {Percent::SelfClass(), 0, 0, {}, {"Fraction"}},
      {Lower::SelfClass(), 3, 2, {"A1", "B1_1"}, {"Children"}},
      {Middle::SelfClass(), 0, 0, {}, {"A1", "A2", "B2_0"}},
      {Upper::SelfClass(), 3, 2, {"A3", "B3_0"}, {"A1", "A2"}},
      {Uppermost::SelfClass(), 6, 2, {"A3", "A4", "B4_1"}, {"A2", "B4_2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.cls.name());
    EXPECT_EQ(c.cls.getNumDataMembers(), c.members);
    EXPECT_EQ(c.cls.hasDataMembers(), c.members != 0);
    const auto visit = [](const TarnFieldDescriptor&, const void*) { return true; };
    EXPECT_EQ(c.cls.iterateFields(visit, nullptr, false), c.own);
    for (const char* name : c.known) EXPECT_NE(c.cls.findField(name), nullptr) << name;
    for (const char* name : c.unknown) EXPECT_EQ(c.cls.findField(name), nullptr) << name;
  }
  EXPECT_EQ(Register::SelfClass().getPageN(), 146);
  EXPECT_EQ(Register::Create()->getPageN(), 146);
  EXPECT_EQ(Lower::SelfClass().getPageN(), 2);
  EXPECT_TRUE(Uppermost::Create()->isDerivedFrom("Middle"));
}

TEST(ClassChainTest, KeepsAPrototypeOfEachClass) {
  std::vector<std::string> names;
  for (const TarnClassPrototype* at = TarnClassPrototype::GetHead(); at != nullptr;
       at = at->getNext()) {
    names.emplace_back(at->getObject()->cls().name());
  }
  for (const char* name : {"TarnObject_t", "Shelf_t", "Uppermost_t"}) {
    EXPECT_EQ(std::ranges::count(names, name), 1) << name;
  }
}

}  // namespace
}  // namespace tarns
