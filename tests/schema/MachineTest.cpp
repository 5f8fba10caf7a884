// Reflection on an application's class.
#include "examples/Machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/util/XStringList.h>

#include <string>

#include "support/node_test.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class MachineTest : public node_test {
 protected:
  MachineTest() { modify(root())->addChild("press", Machine::Create()); }
  xcptref<Machine> press() const { return root()->getChildWithName("press"); }
};
INSTANTIATE_NODE_TEST(MachineTest);

TEST_P(MachineTest, ReadsAndWritesMembersByPath) {
  struct Case {
    const char* path;
    TarnData set;
    TarnData::Type type;
    const char* text;
  };
  const Case cases[] = {
      {"press~Speed", TarnData("-1200"), TarnData::Sint32, "-1200"},
      {"press~Speed", TarnData(2.9), TarnData::Sint32, "2"},
      {"press~Loads_0", TarnData(1.5F), TarnData::Double, "1.500000"},
      {"press~Loads_2", TarnData(7), TarnData::Double, "7.000000"},
      {"press~State", TarnData(3), TarnData::String, "3 (Broken)"},
      {"press~State", TarnData("1 (Running)"), TarnData::String, "1 (Running)"},
      {"press~State", TarnData("nonsense"), TarnData::String, "0 (Idle)"},
      {"press~Serial", TarnData("P-100"), TarnData::String, "P-100"},
      {"press~Serial", TarnData("much too long"), TarnData::String, "much to"},
      {"press~Serial", TarnData(""), TarnData::String, ""},
      {"press~On", TarnData("TRUE"), TarnData::Boolean, "True"},
      {"press~On", TarnData(256), TarnData::Boolean, "True"},
      {"press~On", TarnData(0.5), TarnData::Boolean, "True"},
      {"press~On", TarnData(0), TarnData::Boolean, "False"},
      {"press~Label", TarnData("the old press"), TarnData::String, "the old press"},
      {"press~Feeder~Speed", TarnData(5), TarnData::Sint32, "5"},
      {"press~Feeder~Feeder~Label", TarnData("x"), TarnData::String, "x"},
      {"press~wheel", TarnData(std::uint8_t{9}), TarnData::Uint8, "9"},
      {"press~Speed_total", TarnData(std::uint16_t{8}), TarnData::Uint16, "8"},
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
  EXPECT_EQ(press()->getLoad(2), 7.0);
  EXPECT_STREQ(press()->getFeeder()->getType(), "Machine") << "made to fit the member";
  EXPECT_EQ(press()->getNumAbstractChildren(), 2U) << "members are no entries";
}

TEST_P(MachineTest, AnswersWhatIsNotThere) {
  TarnData value(5);
  for (const char* path :
       {"press~speed", "press~Loads", "press~Loads_3", "press~Loads_x", "press~Loads_-1",
        "press~Speed_x", "press~Feeder~Speed", "press~Speed~x"}) {
    EXPECT_FALSE(root()->get(path, value)) << path;
  }
  EXPECT_EQ(value.getSint32(), 5);
  EXPECT_THAT([&] { root()->set("press~Loads_3", TarnData(1)); },
              ThrowsTarn(9, HasSubstr("Loads_3")));
  EXPECT_TRUE(root()->get("press~Feeder", value)) << "a null reference is an empty value";
  EXPECT_EQ(value.getType(), TarnData::None);
  EXPECT_TRUE(root()->get("press~Label", value));
  EXPECT_EQ(value.getType(), TarnData::None);
}

TEST_P(MachineTest, ReadsEnumerationsAsNumbersOrNames) {
  modify(press())->setState(Machine::State::kBroken);
  TarnData number(TarnData::Uint32);
  EXPECT_TRUE(root()->get("press~State", number));
  EXPECT_EQ(number.getType(), TarnData::Uint8);
  EXPECT_EQ(number.getUint32(), 3U);
  root()->set("press~State", TarnData("2"));
  TarnData text;
  EXPECT_THAT([&] { root()->get("press~State", text); },
              ThrowsTarn(0, "Invalid TarnEnumeration value 2 encountered."));
}

TEST_P(MachineTest, CountsAndNamesMembersBeforeChildren) {
  modify(root())->setValue("press~zone", TarnData(1));
  EXPECT_EQ(press()->getNumChildren(), 1U + 3 + 1 + 8 + 1 + 1 + 1 + 1);
  XStringList names;
  press()->getChildNames(names);
  EXPECT_EQ(names, XStringList({"Speed", "Loads_0", "Loads_1", "Loads_2", "State", "Serial", "On",
                                "Label", "Feeder", "zone"}));
  EXPECT_EQ(press()->getChildName(3), "Loads_2");
  EXPECT_EQ(press()->getChildName(5), "Serial");
  EXPECT_EQ(press()->getChildName(16), "zone");
  EXPECT_TRUE(press()->hasChild("Loads_1"));
  EXPECT_EQ(press()->getUniqueChildName("Speed"), "Speed_1") << "Speed_0 is Speed itself";
}

TEST_P(MachineTest, PutsNodesIntoReferenceMembers) {
  const auto feeder = Machine::Create();
  modify(root())->setNode("press~Feeder", feeder);
  EXPECT_EQ(press()->getFeeder(), feeder);
  EXPECT_EQ(root()->getChildWithName("press~Feeder"), feeder);
  EXPECT_FALSE(feeder->hasParent());
  EXPECT_THAT([&] { modify(root())->setNode("press~Feeder", TarnObject::Create()); },
              ThrowsTarn(12, HasSubstr("to a \"Machine\"")));
  modify(root())->setNode("press~Feeder", nullptr);
  EXPECT_TRUE(press()->getFeeder().is_null());
  const TarnRef made = modify(root())->getChildWithNameNoFail("press~Feeder", "Machine");
  EXPECT_EQ(press()->getFeeder(), made);
  const TarnRef namesake = modify(press())->getChildWithNameNoFail("Speed", "TarnObject");
  EXPECT_EQ(press()->getChildWithName("Speed"), namesake) << "a member that is no node hides none";
}

TEST_P(MachineTest, MovesNodesIntoMembersOrLeavesThem) {
  modify(root())->setValue("spare~x", TarnData(1));
  modify(root())->addChild("drill", Machine::Create());
  const xcptref<Machine> drill = root()->getChildWithName("drill");
  const auto before = picture_of(root());
  atomically([&] {  // within a transaction nothing is rolled back
    EXPECT_THAT(
        [&] { modify(press())->moveChild("Feeder", root()->getChildWithName("spare")); },
        ThrowsTarn(12, HasSubstr("casting a \"TarnObject\" at \"spare\" to a \"Machine\"")));
    EXPECT_THAT([&] { root()->set("press~Feeder~Feeder", TarnObject::Create()); },
                ThrowsTarn(12, HasSubstr("to a \"Machine\"")));
    EXPECT_THAT(
        [&] { modify(root())->getChildWithNameNoFail("press~Feeder~Feeder", "TarnObject"); },
        ThrowsTarn(12, HasSubstr("to a \"Machine\"")));
  });
  EXPECT_EQ(picture_of(root()), before);
  EXPECT_TRUE(press()->getFeeder().is_null());
  modify(press())->moveChild("Feeder", drill);
  EXPECT_EQ(press()->getFeeder(), drill);
  EXPECT_FALSE(drill->hasParent());
  EXPECT_FALSE(root()->hasChild("drill"));
  root()->set("press~Feeder~Feeder~Feeder", Machine::Create());
  EXPECT_FALSE(drill->getFeeder()->getFeeder().is_null());
}

TEST_P(MachineTest, MakesMissingBranchesForSet) {
  root()->set("press~Feeder~Feeder~Speed", TarnData(4));
  reload();
  EXPECT_EQ(root()->getSint32("press~Feeder~Feeder~Speed"), 4);
  EXPECT_EQ(press()->getNumAbstractChildren(), 0U);
  const auto before = picture_of(root());
  for (const char* path : {"press~Speed~x", "press~Label~x~y"}) {
    SCOPED_TRACE(path);
    EXPECT_THAT([&] { modify(root())->setValue(path, TarnData(1)); },
                ThrowsTarn(9, "Programmer error: set() cannot create the childBranch for \"" +
                                  std::string(path) + "\""));
    EXPECT_EQ(picture_of(root()), before);
  }
}

TEST_P(MachineTest, ClonesMembersWithTextsOfTheirOwn) {
  modify(press())->setLabel("old");
  modify(press())->setFeeder(press());
  const xcptref<Machine> copy = press()->clone();
  modify(press())->setLabel("new");
  EXPECT_EQ(copy->getLabel(), "old");
  EXPECT_EQ(copy->getFeeder(), press());
  EXPECT_FALSE(copy->hasParent());
  modify(copy)->copyFrom(press());
  EXPECT_EQ(copy->getLabel(), "new");
  modify(press())->setFeeder(nullptr);  // undoes the circle
  EXPECT_THAT([&] { modify(copy)->setNode(nullptr, TarnObject::Create()); },
              ThrowsTarn(11,
                         "Cannot mutate this object into the specified object of type "
                         "\"TarnObject\"; the parent should have made this mutation."));
}

TEST_P(MachineTest, CopiesBranchesWithReferencesInsideThem) {
  modify(root())->setValue("press~part~weight", TarnData(3));
  modify(press())->setLabel("press");
  modify(press())->addChild("drill", Machine::Create());
  const xcptref<Machine> drill = press()->getChildWithName("drill");
  modify(press())->setFeeder(drill);               // inside
  modify(drill)->setFeeder(Machine::Create());     // owned by the member
  modify(drill->getFeeder())->setFeeder(press());  // a circle
  const TarnRef outside = add("outside");
  const TarnRef hall = add("hall");
  press()->addChildrenTo(outside);
  outside->addChildrenTo(press());  // every child once more, as a mere link
  const xcptref<Machine> copy = press()->deepClone();
  modify(hall)->addChild("copy", copy);
  reload();
  const xcptref<Machine> read = root()->getChildWithName("hall~copy");
  EXPECT_EQ(read->getLabel(), "press");
  const xcptref<Machine> readDrill = read->getChildWithName("drill");
  EXPECT_EQ(read->getFeeder(), readDrill);
  EXPECT_NE(readDrill, press()->getChildWithName("drill"));
  EXPECT_EQ(path_of(readDrill), "hall~copy~drill");
  EXPECT_EQ(readDrill->getFeeder()->getFeeder(), read);
  EXPECT_NE(readDrill->getFeeder(),
            xcptref<Machine>(press()->getChildWithName("drill"))->getFeeder());
  EXPECT_EQ(names_of(read), names_of(press()));
  EXPECT_EQ(read->getSint32("part~weight"), 3);
  modify(root())->setValue("press~part~weight", TarnData(4));
  EXPECT_EQ(read->getSint32("part~weight"), 3);
  for (const char* path : {"press~drill", "hall~copy~drill"}) {  // undoes the circles
    modify(xcptref<Machine>(root()->getChildWithName(path))->getFeeder())->setFeeder(nullptr);
  }
  modify(root()->getChildWithName("press"))->shatter();
  modify(root()->getChildWithName("hall"))->shatter();
}

TEST_P(MachineTest, TakesBranchesApart) {
  modify(root())->setValue("press~part~weight", TarnData(3));
  modify(press())->setFeeder(Machine::Create());
  const xcptref<Machine> feeder = press()->getFeeder();
  modify(feeder)->addChild("x", TarnObject::Create());
  modify(feeder)->addChild("circle", press());
  const TarnRef weight = press()->getChildWithName("part~weight");
  const xcptref<Machine> machine = press();
  modify(machine)->shatter();
  EXPECT_EQ(machine->getNumAbstractChildren(), 0U);
  EXPECT_EQ(feeder->getNumAbstractChildren(), 0U);
  EXPECT_FALSE(weight->hasParent());
}

TEST_P(MachineTest, ClearsValuesAndKeepsTheShape) {
  modify(root())->setValue("press~Speed", TarnData(3));
  modify(root())->setValue("press~Loads_1", TarnData(3));
  modify(root())->setValue("press~Label", TarnData("l"));
  modify(root())->setValue("press~a~b", TarnData("text"));
  modify(root())->setValue("press~a~b~c", TarnData(true));
  TarnValue::ClearValuesIn(press());
  reload();
  EXPECT_EQ(press()->getSpeed(), 0);
  EXPECT_EQ(press()->getLoad(1), 0.0);
  EXPECT_EQ(press()->getLabel(), "");
  EXPECT_STREQ(root()->getChildWithName("press~a~b")->getType(), "TarnStringValue");
  EXPECT_EQ(root()->getXString("press~a~b"), "");
  EXPECT_FALSE(root()->getBoolean("press~a~b~c"));
}

TEST(TarnFieldDescriptorTest, DescribesMembers) {
  const TarnClassDescriptor& cls = Machine::SelfClass();
  EXPECT_EQ(cls.getNumDataMembers(), 16U);
  EXPECT_EQ(TarnObject::SelfClass().getNumDataMembers(), 0U);
  EXPECT_EQ(TarnSint32Value::SelfClass().getNumDataMembers(), 0U);
  EXPECT_EQ(cls.getPageN(), 2);
  struct Case {
    const char* name;
    const char* field;    // null: none
    std::int64_t offset;  // from the array's begin; -1: no such element
  };
  const Case cases[] = {
      {"Loads_0", "Loads", 0},   {"Loads_2", "Loads", 16}, {"Loads_3", nullptr, -1},
      {"Loads_x", nullptr, -1},  {"Loads", "Loads", -1},   {"Serial", "Serial", 0},
      {"loads_0", nullptr, -1},  {"", nullptr, -1},        {"Loads_0_1", nullptr, -1},
      {"Children", nullptr, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TarnFieldDescriptor* field = cls.findField(c.name);
    ASSERT_EQ(field != nullptr, c.field != nullptr);
    if (field == nullptr) continue;
    EXPECT_TRUE(field->hasName(c.field));
    const std::int64_t offset = field->getValueOffset(c.name);
    EXPECT_EQ(offset < 0 ? -1 : offset - field->offset(), c.offset);
  }
  EXPECT_TRUE(cls.findField("Feeder")->isForClass("Machine"));
  EXPECT_TRUE(cls.findField("Feeder")->isForClass(&Machine::SelfClass()));
  EXPECT_FALSE(cls.findField("Speed")->isForClass("Machine"));
  EXPECT_TRUE(cls.findField("Serial")->isNullTerminated());
  EXPECT_LT(cls.findField("Loads")->compareName(*cls.findField("Speed")), 0);
  int visited = 0;
  EXPECT_EQ(cls.iterateFields(
                [](const TarnFieldDescriptor&, const void* arg) {
                  return ++*static_cast<int*>(const_cast<void*>(arg)) < 2;
                },
                &visited, true),
            2U);
}

TEST(TarnFactoryTest, MakesNodesOfRegisteredClassesOnly) {
  const TarnFactory& head = TarnFactory::GetHead();
  EXPECT_STREQ(TarnObject::CreateOfType("TarnObject")->getType(), "TarnObject");
  EXPECT_STREQ(TarnObject::CreateOfType("Machine")->getType(), "Machine");
  for (const char* name : {"TarnObject_t", "machine", "", "TarnObjects"}) {
    EXPECT_TRUE(TarnObject::CreateOfType(name).is_null()) << name;
  }
  EXPECT_TRUE(TarnObject::CreateOfType(nullptr).is_null());
  XStringList names;
  head.getClassList(names);
  EXPECT_EQ(names[0], "TarnObject");
  EXPECT_TRUE(names.contains("TarnStringValue"));
  EXPECT_TRUE(names.contains("Machine"));
  const auto machine = Machine::Create();
  EXPECT_TRUE(machine->isOfType("Machine") && machine->isDerivedFrom("TarnObject"));
  EXPECT_FALSE(machine->isOfType("TarnObject") || machine->isDerivedFrom("TarnValue"));
  EXPECT_STREQ(machine->constructor()->getType(), "Machine");
}

}  // namespace
}  // namespace tarns
