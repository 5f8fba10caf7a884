// Classes that differ between the program that stored a node and the one that loads it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/util/XStringList.h>

#include <memory>
#include <string>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

// What a program of one version knows of a class: registered from here to the end of the scope.
template <class T>
class KnownClass {
 public:
  explicit KnownClass(const TarnClassOptions& options = {})
      : registration_(T::GetType, sizeof(T), goods::construct_object<T>, T::Constructor,
                      TarnObject::SelfClass(), options) {
    T::current = &registration_.getDescriptor();
  }

 private:
  TarnClassRegistration registration_;
};

class FirstGadget : public TarnObject {
  TARN_CLASS_NAMED(FirstGadget, TarnObject, "Gadget")
 public:
  static inline TarnClassDescriptor* current = nullptr;
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("Count", count_);
    out.write("Gone", gone_);
    out.write("Marks", marks_);
    out.write("Flag", flag_);
    out.write("Flags", flags_);
    out.write("WideFlag", wideFlag_);
    out.write("OldName", label_);
    return out.write("Friend", friend_);
  }

 private:
  std::int16_t count_ = 0;
  double gone_ = 0;
  std::uint8_t marks_[2] = {};
  std::uint8_t flag_ = 0;
  std::uint8_t flags_[3] = {};
  float wideFlag_ = 0;
  TarnString label_;
  xcptref<TarnObject> friend_;
};
TarnClassDescriptor& FirstGadget::SelfClass() { return *current; }
TarnClassDescriptor& FirstGadget::self_class = TarnObject::SelfClass();

// Reordered, widened, renamed, without Gone, with Extra.
class SecondGadget : public TarnObject {
  TARN_CLASS_NAMED(SecondGadget, TarnObject, "Gadget")
 public:
  static inline TarnClassDescriptor* current = nullptr;
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("Friend", friend_);
    out.write("Extra", extra_);
    out.write("Label", label_);
    out.addFormerName("Label", "OldName");
    out.write("Marks", marks_);
    out.write("Flag", flag_);
    out.write("Flags", flags_);
    out.write("WideFlag", wideFlag_);
    return out.write("Count", count_);
  }

 private:
  xcptref<TarnObject> friend_;
  float extra_ = 2.5F;
  TarnString label_;
  std::uint32_t marks_[4] = {};
  bool flag_ = false;
  bool flags_[3] = {};
  bool wideFlag_ = false;
  std::int64_t count_ = 0;
};
TarnClassDescriptor& SecondGadget::SelfClass() { return *current; }
TarnClassDescriptor& SecondGadget::self_class = TarnObject::SelfClass();

// Stored alike whether its members are numbers of a byte or Booleans.
template <class T>
class Switch : public TarnObject {
  TARN_CLASS_NAMED(Switch, TarnObject, "Switch")
 public:
  static inline TarnClassDescriptor* current = nullptr;
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("On", on_);
    return out.write("Each", each_);
  }

 private:
  T on_{};
  T each_[3]{};
};
template <class T>
TarnClassDescriptor& Switch<T>::SelfClass() {
  return *current;
}
template <class T>
TarnClassDescriptor& Switch<T>::self_class = TarnObject::SelfClass();

class EvolutionTest : public testing::Test {
 protected:
  // Stores a gadget at "box~gadget" with everything set, and closes.
  void storeFirst() {
    const KnownClass<FirstGadget> known;  // outlives what the session has of it
    setFirst();
    tree_.reopen();
  }
  void setFirst() {
    const TarnRef root = tree_.root();
    modify(root)->setValue("box", TarnData());
    modify(root->getChildWithName("box"))->addChild("gadget", FirstGadget::Create());
    const TarnRef gadget = root->getChildWithName("box~gadget");
    modify(gadget)->setValue("Count", TarnData(-7));
    modify(gadget)->setValue("Gone", TarnData(1.25));
    modify(gadget)->setValue("Marks_1", TarnData(200));
    modify(gadget)->setValue("Flag", TarnData(5));
    modify(gadget)->setValue("Flags_1", TarnData(200));
    modify(gadget)->setValue("WideFlag", TarnData(1000.5));
    modify(gadget)->setValue("OldName", TarnData("label"));
    modify(gadget)->setNode("Friend", root->getChildWithName("box"));
    modify(gadget)->setValue("child", TarnData("below"));
  }
  std::string text(const char* path) { return std::string(tree_.root()->getXString(path).view()); }

  stored_tree tree_;
};

TEST_F(EvolutionTest, LoadsMembersByName) {
  storeFirst();
  const KnownClass<SecondGadget> known;
  EXPECT_EQ(text("box~gadget~Count"), "-7");
  EXPECT_EQ(text("box~gadget~Marks_1"), "200");
  EXPECT_EQ(text("box~gadget~Marks_3"), "0");
  EXPECT_EQ(text("box~gadget~Label"), "label");
  EXPECT_EQ(text("box~gadget~Extra"), "2.500000") << "what is new has its default";
  EXPECT_EQ(text("box~gadget~Flag"), "True");
  EXPECT_EQ(text("box~gadget~Flags_0") + text("box~gadget~Flags_1"), "FalseTrue");
  EXPECT_EQ(text("box~gadget~WideFlag"), "True");
  EXPECT_EQ(text("box~gadget~child"), "below");
  EXPECT_EQ(tree_.root()->getChildWithName("box~gadget~Friend"),
            tree_.root()->getChildWithName("box"));
  EXPECT_FALSE(tree_.root()->valueAt("box~gadget~Gone").has_value());
  modify(tree_.root())->setValue("box~gadget~Count", TarnData(std::int64_t{1} << 40));
  tree_.reopen();
  EXPECT_EQ(text("box~gadget~Count"), "1099511627776");
  EXPECT_EQ(text("box~gadget~Label"), "label");
  tree_.reopen();
}

TEST_F(EvolutionTest, LoadsAnyByteAsABoolean) {
  {
    const KnownClass<Switch<std::uint8_t>> known;
    modify(tree_.root())->addChild("switch", Switch<std::uint8_t>::Create());
    for (const char* path : {"switch~On", "switch~Each_0", "switch~Each_2"}) {
      modify(tree_.root())->setValue(path, TarnData(5));
    }
    tree_.reopen();
  }
  const KnownClass<Switch<bool>> known;
  for (const char* path : {"switch~On", "switch~Each_0", "switch~Each_2"}) {
    const auto value = tree_.root()->valueAt(path);
    EXPECT_TRUE(value->isBoolean() && *value == TarnData(true)) << path;
  }
  EXPECT_EQ(text("switch~Each_1"), "False");
  tree_.root()->set("switch~On", TarnData(false));
  tree_.reopen();
  EXPECT_EQ(text("switch~On"), "False");
  tree_.reopen();
}

TEST_F(EvolutionTest, ListsAndKeepsWhatAnUnknownClassHas) {
  storeFirst();
  const TarnRef gadget = tree_.root()->getChildWithName("box~gadget");
  EXPECT_STREQ(gadget->getType(), "Gadget");
  EXPECT_TRUE(gadget->isDerivedFrom("TarnObject"));
  XStringList names;
  gadget->getChildNames(names);
  EXPECT_EQ(names, XStringList({"Count", "Gone", "Marks_0", "Marks_1", "Flag", "Flags_0", "Flags_1",
                                "Flags_2", "WideFlag", "OldName", "Friend", "child"}));
  EXPECT_EQ(text("box~gadget~Count"), "-7");
  EXPECT_EQ(text("box~gadget~Gone"), "1.250000");
  EXPECT_EQ(text("box~gadget~OldName"), "label");
  EXPECT_EQ(tree_.root()->getChildWithName("box~gadget~Friend"),
            tree_.root()->getChildWithName("box"));
}

TEST_F(EvolutionTest, WritesTextsAndNodesOfAnUnknownClass) {
  storeFirst();
  const TarnRef gadget = tree_.root()->getChildWithName("box~gadget");
  const TarnRef box = tree_.root()->getChildWithName("box");
  modify(tree_.root())->setValue("box~gadget~OldName", TarnData("other"));
  EXPECT_THAT([&] { modify(gadget)->setNode("Friend", TarnValue::CreateValue(TarnData(1))); },
              ThrowsTarn(11, HasSubstr("only takes objects of the class \"TarnObject\"")));
  EXPECT_EQ(gadget->getChildWithName("Friend"), box);
  const TarnRef plain = TarnObject::Create();
  modify(tree_.root())->setNode("box~gadget~Friend", plain);
  EXPECT_EQ(gadget->getChildWithName("Friend"), plain);
  modify(gadget)->setNode("Friend", nullptr);
  EXPECT_THAT([&] { modify(gadget)->setNode("Friend", box); },
              ThrowsTarn(11, HasSubstr("only takes null")));
  EXPECT_EQ(gadget->getNumAbstractChildren(), 1U) << "no child stands beside the member";
  tree_.reopen();
  const KnownClass<FirstGadget> known;
  EXPECT_EQ(text("box~gadget~OldName"), "other");
  EXPECT_TRUE(tree_.root()->getChildWithName("box~gadget~Friend").is_null());
  tree_.reopen();
}

TEST_F(EvolutionTest, LosesNothingWhenAnUnknownClassIsWritten) {
  storeFirst();
  {
    const TarnRef gadget = tree_.root()->getChildWithName("box~gadget");
    modify(gadget)->setValue("other", TarnData("added"));
    modify(gadget)->setValue("Count", TarnData(8));
    modify(tree_.root())->addChild("copy", gadget->clone());
  }
  tree_.reopen();
  const KnownClass<FirstGadget> known;
  for (const char* path : {"box~gadget", "copy"}) {
    SCOPED_TRACE(path);
    const std::string at(path);
    EXPECT_EQ(text((at + "~Count").c_str()), "8");
    EXPECT_EQ(text((at + "~Gone").c_str()), "1.250000");
    EXPECT_EQ(text((at + "~Marks_1").c_str()), "200");
    EXPECT_EQ(text((at + "~OldName").c_str()), "label");
  }
  EXPECT_EQ(text("box~gadget~other"), "added");
  tree_.reopen();
}

}  // namespace
}  // namespace tarns
