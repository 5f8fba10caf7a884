// Branches exported as text and imported again.
#include "examples/Machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/PInOut.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/branch_picture.h"
#include "support/captured_log.h"
#include "support/random_tree.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

// Members that Machine does not have; one is called as a word of the text form.
class TextKinds : public TarnObject {
  TARN_CLASS(TextKinds, TarnObject)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("Name", name_);
    out.write("U64", u64_);
    out.write("S8", s8_);
    out.write("Real", real_);
    out.write("Flags", flags_);
    out.write("Max_Load", loads_);
    out.write("Texts", texts_, 2);
    out.write("Nodes", nodes_, 3);
    return out.write("Notes", notes_);
  }

  TarnString name_;
  std::uint64_t u64_ = 0;
  std::int8_t s8_ = 0;
  float real_ = 0;
  bool flags_[2] = {};
  double loads_[2] = {};
  TarnString texts_[2];
  xcptref<TarnObject> nodes_[3];
  TarnStringList notes_{this};
};
TARN_REGISTER(TextKinds, TarnObject);

// A value with a line of its own beside those of its base.
class Tagged : public TarnSint32Value {
  TARN_CLASS(Tagged, TarnSint32Value)
 public:
  bool writeConcreteMembers(PInOut& out) const override {
    return out.write("Tag", tag_) && TarnSint32Value::writeConcreteMembers(out);
  }
  bool read(PInOut& in) override {
    do {
      TarnSint32Value::read(in);
    } while (in.isCmd("Tag") && in.read(tag_) == PInOut::Continue);
    return true;
  }
  int tag_ = 0;
};
TARN_REGISTER(Tagged, TarnSint32Value);

std::string Export(const TarnRef& node) {
  std::ostringstream out;
  node->exportTo(out);
  return out.str();
}

// What the classes above hold that no member or value shows.
std::vector<branch_picture::Line> DetailsOf(const TarnRef& node) {
  std::vector<branch_picture::Line> lines;
  if (node.isA<Tagged>()) lines.emplace_back("!tag", std::to_string(xcptref<Tagged>(node)->tag_));
  if (!node.isA<TextKinds>()) return lines;
  const xcptref<TextKinds> kinds(node);
  std::string notes;
  kinds->notes_.iterateChildren([&](std::string_view name, const TarnString& text) {
    notes += std::string(name) + "=" + (text.isNull() ? "null" : text.str()) + ";";
  });
  lines.emplace_back("!Notes", notes);
  for (int i : {0, 1}) {
    const TarnString& text = kinds->texts_[i];
    lines.emplace_back("!text" + std::to_string(i), text.isNull() ? "null" : text.str());
  }
  return lines;
}

branch_picture PictureOf(const TarnRef& node) { return branch_picture(node, DetailsOf); }

class TextFormTest : public session_test {
 protected:
  TarnRef import(const std::string& text, XString* name = nullptr) {
    std::istringstream in(text);
    return manager().importFrom(in, name);
  }
  // Exports the branch, imports it, and expects the same nodes and the same text.
  void expectRoundTrip(const TarnRef& node) {
    const std::string text = Export(node);
    XString name;
    const TarnRef copy = import(text, &name);
    ASSERT_FALSE(copy.is_null());
    EXPECT_EQ(name, node->getName());
    EXPECT_FALSE(copy->hasParent());
    EXPECT_EQ(PictureOf(copy), PictureOf(node)) << text;
    modify(TarnRef(manager().getRoot()))->deleteChild("copies");
    manager().set("copies", TarnRef(TarnObject::Create()));
    const TarnRef home = manager().getObject("copies");
    modify(home)->addChild(name.isEmpty() ? "x" : name.getText(), copy);
    reopen();
    const TarnRef stored = manager().getObject("copies")->getFirstAbstractChild(nullptr);
    if (!name.isEmpty()) {
      EXPECT_EQ(Export(stored), text);
    }
  }
};

TEST_F(TextFormTest, WritesTheFormThatIsDocumented) {
  const TarnRef hall = TarnObject::Create();
  modify(TarnRef(manager().getRoot()))->addChild("hall", hall);
  const auto press = Machine::Create();
  modify(hall)->addChild("press", press);
  modify(press)->setSpeed(40);
  modify(press)->setLoad(1, 0.1);
  modify(press)->setState(Machine::State::kRunning);
  modify(press)->setLabel("the \"old\" press\n");
  modify(press)->setFeeder(Machine::Create());
  modify(hall)->addChild("mirror", press->getFeeder());
  modify(hall)->setValue("open", true);
  modify(hall)->setValue("rooms~north", "42 m2");
  const std::string text =
      "TarnObject hall\n"
      "  Children {\n"
      "    Machine mirror\n"
      "      Speed 0\n"
      "      Loads_0 0\n"
      "      Loads_1 0\n"
      "      Loads_2 0\n"
      "      State 0 (Idle)\n"
      "      Serial \"\"\n"
      "      On False\n"
      "      Label\n"
      "      Feeder NULL\n"
      "    TarnBooleanValue open\n"
      "      Value True\n"
      "    Machine press\n"
      "      Speed 40\n"
      "      Loads_0 0\n"
      "      Loads_1 0.1\n"
      "      Loads_2 0\n"
      "      State 1 (Running)\n"
      "      Serial \"\"\n"
      "      On False\n"
      "      Label \"the \\\"old\\\" press\\n\"\n"
      "      Feeder\n"
      "        Machine Feeder\n"
      "          = mirror\n"
      "    TarnObject rooms\n"
      "      Children {\n"
      "        TarnStringValue north\n"
      "          Value 42 m2\n"
      "      }\n"
      "  }\n";
  EXPECT_EQ(Export(hall), text);
  expectRoundTrip(manager().getObject("hall"));
}

TEST_F(TextFormTest, KeepsEveryValue) {
  const TarnRef node = TarnObject::Create();
  const auto add = [&](const char* name, const TarnData& value) {
    modify(node)->addChild(name, TarnValue::CreateValue(value));
  };
  using Real = std::numeric_limits<double>;
  for (const double real : {0.0, -0.0, 0.1, 1e300, Real::denorm_min(), Real::max(), Real::lowest(),
                            Real::infinity(), -Real::infinity(), Real::quiet_NaN(), 2.0 / 3}) {
    add("double", real);
    add("float", static_cast<float>(real));
  }
  add("bool", true);
  add("bool", false);
  add("s8", std::int8_t{-128});
  add("s16", std::int16_t{-32768});
  add("s32", std::numeric_limits<std::int32_t>::min());
  add("s64", std::numeric_limits<std::int64_t>::min());
  add("u8", std::uint8_t{255});
  add("u16", std::uint16_t{65535});
  add("u32", std::numeric_limits<std::uint32_t>::max());
  add("u64", std::numeric_limits<std::uint64_t>::max());
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  for (const std::string& text :
       {std::string(), std::string(" "), std::string("NULL"), std::string("}"), std::string("{"),
        bytes, std::string("line\r\nline"), std::string("= a")}) {
    add("text", TarnData(text));
    std::string name = text.empty() ? "x" : text;
    std::erase(name, '~');
    add(name.c_str(), TarnData(text));
  }
  add("Children", "{");
  add("Name", "x");
  add(std::string(TarnObject::kMaxNameLength, 'n').c_str(), 1);
  modify(node)->addChild("null", TarnStringValue::Create());
  modify(node)->addChild("plain", TarnObject::Create());
  manager().set("a~b", node);
  expectRoundTrip(manager().getObject("a~b"));
}

// An export of a branch without shared nodes, for which each node is asked for its own lines.
void WriteByNodes(std::string_view name, const TarnRef& node, bool isMinLocking, PInOut& out) {
  out.write(node->getType(), name);
  out.indentIn();
  if (isMinLocking) out.write("Name", name);
  node->writeConcreteMembers(out);
  const bool isEmpty = node->getNumAbstractChildren() == 0;
  if (!node->getChildren().is_null() && !(isMinLocking && isEmpty)) {
    out.write("Children", "{");
    out.indentIn();
    for (const auto& [below, child] : node->children())
      WriteByNodes(below, child, isMinLocking, out);
    out.indentOut();
    out.write("}");
  }
  out.indentOut();
}

// An export writes the lines of plain nodes and values without asking the nodes.
TEST_F(TextFormTest, WritesWhatTheNodesWriteOfThemselves) {
  constexpr int kTrees = 200;
  manager().transaction([&] {
    for (int number = 0; number < kTrees; ++number) {
      manager().set("top~" + std::to_string(number), TarnRef(TarnObject::Create()));
      const TarnRef tree = manager().getObject("top~" + std::to_string(number));
      const random_tree grown(tree, static_cast<std::uint64_t>(number), random_tree::links::none);
      modify(tree)->addChild("null", TarnStringValue::Create());
      modify(tree)->addChild("tagged", Tagged::Create());
    }
  });
  manager().set("top~emptied~child", 1);
  manager().deleteBranch("top~emptied~child");
  for (const bool isMinLocking : {false, true}) {
    SCOPED_TRACE(isMinLocking);
    reopen();
    const auto text = [&](const auto& write) {
      std::string written;
      PInOut out;
      out.writeTo(written);
      write(out);
      EXPECT_TRUE(out.close());
      return written;
    };
    const auto exported = [&] {
      return text([&](PInOut& out) {
        isMinLocking ? manager().exportMinLockingTo("top", out) : manager().exportTo("top", out);
      });
    };
    const std::string outside = exported();
    EXPECT_EQ(manager().transaction(exported), outside);
    EXPECT_EQ(outside, text([&](PInOut& out) {
                WriteByNodes("top", manager().getObject("top"), isMinLocking, out);
              }));
  }
}

TEST_F(TextFormTest, LetsClassesHaveLinesOfTheirOwn) {
  const xcptref<Tagged> tagged = Tagged::Create();
  modify(tagged)->tag_ = 5;
  modify(tagged)->setValue(nullptr, 7);
  modify(tagged)->setValue("below", 8);
  EXPECT_EQ(PictureOf(import(Export(tagged))), PictureOf(tagged));
  // In another order, with something nested in between.
  EXPECT_EQ(PictureOf(import("Tagged x\n  Value 7\n  Children {\n    TarnSint32Value below\n"
                             "      Value 8\n  }\n  Tag 5\n")),
            PictureOf(tagged));
}

TEST_F(TextFormTest, KeepsMembersOfEveryKind) {
  const auto kinds = xcptref<TextKinds>(TextKinds::Create());
  {
    auto body = modify(kinds);
    body->name_.set("");
    body->u64_ = std::numeric_limits<std::uint64_t>::max();
    body->s8_ = -128;
    body->real_ = 0.1F;
    body->flags_[1] = true;
    body->loads_[1] = -INFINITY;
    body->texts_[1].set("NULL");
    body->nodes_[0] = TarnValue::CreateValue(5);
    modify(body->nodes_[0])->setValue("below~deeper", "x");
    body->nodes_[2] = Machine::Create();
    body->notes_.insert("b", TarnString("two"));
    body->notes_.insert("", TarnString(""));
    body->notes_.insert("b", TarnString());
    body->addChild("child", TarnObject::Create());
  }
  manager().set("kinds", TarnRef(kinds));
  expectRoundTrip(manager().getObject("kinds"));
  const TarnRef unnamedState = import("Machine m\n  State 2\n");
  EXPECT_THAT(Export(unnamedState), HasSubstr("  State 2\n"));
}

TEST_F(TextFormTest, KeepsSharedNodesAndCircles) {
  const TarnRef top = TarnObject::Create();
  const auto first = xcptref<TextKinds>(TextKinds::Create());
  const auto second = xcptref<TextKinds>(TextKinds::Create());
  modify(top)->addChild("a", TarnObject::Create());
  const TarnRef a = top->getChildWithName("a");
  modify(top)->addChild("twin", TarnValue::CreateValue(1));
  modify(top)->addChild("twin", first);
  modify(top)->addChild("twin", TarnValue::CreateValue(3));
  modify(a)->addChild("z", top);  // lists itself
  modify(a)->addChildrenTo(a);    // every entry twice
  modify(first)->nodes_[0] = TarnRef(second);
  modify(second)->nodes_[0] = TarnRef(first);   // a circle of members
  modify(second)->nodes_[1] = TarnRef(second);  // refers to itself
  modify(second)->nodes_[2] = a;                // a node with its own place
  const TarnRef listed = TarnObject::Create();
  modify(top)->addChild("zz", listed);  // at home behind where it is met first
  modify(top.read()->getChildWithName("a"))->addChild("b", TarnValue::CreateValue(2));
  {
    auto list = modify(a);
    listed->addChildrenTo(a);
    modify(listed)->addChild("below", TarnValue::CreateValue(9));
  }
  const TarnRef holder = TarnObject::Create();
  modify(holder)->addChild("zz", listed);
  modify(top)->addChild("0", holder);
  modify(top)->becomeParentOf("zz");
  manager().set("top", top);
  expectRoundTrip(manager().getObject("top"));
}

// "a" is written where "c" lists it, and its place in the tree is below "b", which it lists.
TEST_F(TextFormTest, FindsThePlaceOfANodeBelowTheNodeItself) {
  const TarnRef top = TarnObject::Create();
  modify(top)->addChild("z", TarnObject::Create());
  const TarnRef b = top->getChildWithName("z");
  const TarnRef a = TarnObject::Create();
  const TarnRef c = TarnObject::Create();
  modify(c)->addChild("a", a);
  modify(b)->addChild("a", a);
  modify(a)->addChild("b", b);  // is above it
  modify(top)->addChild("c", c);
  manager().set("top", top);
  const TarnRef stored = manager().getObject("top");
  ASSERT_EQ(stored->getChildWithName("c~a")->getParent(), stored->getChildWithName("z"));
  expectRoundTrip(stored);
}

TEST_F(TextFormTest, KeepsEmptyIndexesAndNothingElseOfDeletedChildren) {
  manager().set("a~b", 1);
  manager().deleteBranch("a~b");
  EXPECT_EQ(Export(manager().getObject("a")), "TarnObject a\n  Children {\n  }\n");
  expectRoundTrip(manager().getObject("a"));
  EXPECT_EQ(Export(TarnObject::Create()), "TarnObject \"\"\n");
}

TEST_F(TextFormTest, WritesNamesAndNoEmptyListsWithMinimalLocking) {
  manager().set("a~b", 1);
  manager().set("a~c~d", "x");
  manager().deleteBranch("a~c~d");
  modify(manager().getObject("a"))->addChild("k", TextKinds::Create());
  const XString file =
      TarnObject::ExportMinLockingToTempFile(manager().getObject("a"), "other name");
  const std::string text = FileFP::ReadBytes(file);
  EXPECT_THAT(text, testing::StartsWith("TarnObject other name\n"
                                        "  Name other name\n"
                                        "  Children {\n"
                                        "    TarnSint32Value b\n"
                                        "      Name b\n"
                                        "      Value 1\n"
                                        "    TarnObject c\n"
                                        "      Name c\n"
                                        "    TextKinds k\n"
                                        "      Name\n"
                                        "      U64 0\n"));
  struct stat status {};
  ASSERT_EQ(::lstat(file, &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
  XString name;
  const TarnRef copy = manager().importFromFile(file, &name);
  EXPECT_EQ(name, "other name");
  EXPECT_EQ(copy->getSint32("b"), 1);
  ::unlink(file);
}

TEST_F(TextFormTest, GivesTheSameBytesAndOneChangedLineForOneChangedValue) {
  manager().transaction([&] {
    for (int i = 0; i < 300; ++i) {
      manager().set("a~" + std::to_string(i) + "~x", i);
      manager().set("a~" + std::to_string(i) + "~y", "text");
    }
  });
  const std::string before = Export(manager().getObject("a"));
  reopen();
  EXPECT_EQ(Export(manager().getObject("a")), before);
  manager().set("a~17~x", -1);
  std::istringstream left(before), right(Export(manager().getObject("a")));
  std::string one, other;
  int differing = 0;
  while (std::getline(left, one) && std::getline(right, other)) differing += one != other;
  EXPECT_EQ(differing, 1);
  EXPECT_TRUE(right.eof() || !std::getline(right, other));
}

TEST_F(TextFormTest, ReadsAsTheFormSays) {
  struct Case {
    const char *text, *exported;
  };
  const Case cases[] = {
      // A member that the class does not know ends the node; so do all lines behind it.
      {"TarnObject a\n  Nonsense 5\n    deep\n  Children {\n    TarnObject b\n  }\n",
       "TarnObject \"\"\n"},
      {"Machine a\n  Speed 5\n  Other_3 1\n  On True\n", nullptr},
      // Children and members of unknown classes.
      {"TarnObject a\n  Children {\n    Nobody b\n      Value 1\n    TarnObject c\n  }\n",
       "TarnObject \"\"\n  Children {\n    TarnObject c\n  }\n"},
      // The name that the body gives has the last word.
      {"TarnObject a\n  Name other\n  Children {\n    TarnObject \"\"\n      Name c\n"
       "    TarnObject d\n      Name e\n  }\n",
       "TarnObject \"\"\n  Children {\n    TarnObject c\n    TarnObject e\n  }\n"},
      // Children before a value, in two lists, with an editor's line ends.
      {"TarnSint32Value a\r\n  Children {\r\n    TarnObject b\r\n  }\r\n  Value 5\r\n  Children "
       "{\r\n"
       "  }",
       "TarnSint32Value \"\"\n  Value 5\n  Children {\n    TarnObject b\n  }\n"},
  };
  captured_log log;
  for (const Case& c : cases) {
    const TarnRef node = import(c.text);
    ASSERT_FALSE(node.is_null()) << c.text;
    if (c.exported != nullptr) {
      EXPECT_EQ(Export(node), c.exported);
    }
  }
  const xcptref<Machine> machine(
      import("Machine a\n  Speed 5\n  Feeder\n    Nobody Feeder\n      Speed 3\n  Loads_7 1\n"
             "  On yes\n  Loads_2 1,234.5\n"));
  EXPECT_TRUE(machine->getFeeder().is_null());
  EXPECT_TRUE(machine->isOn());
  EXPECT_EQ(machine->getLoad(2), 1234.5);
  EXPECT_TRUE(import("Nobody a\n  Value 1\n").is_null());
  EXPECT_TRUE(import("}").is_null());
}

TEST_F(TextFormTest, RefusesWhatIsDamagedWithTheNumberOfTheLine) {
  struct Case {
    const char *text, *error;
    unsigned long id;
  };
  const Case cases[] = {
      {"", "Line 1: there is no node in the file.", 15},
      {"TarnObject a\nTarnObject b\n", "Line 2: something follows the end of the first node.", 15},
      {"TarnObject a\n  Children\n", "Line 2: Children are followed by {.", 15},
      {"TarnObject a\n  Children {\n    TarnObject b\n",
       "Line 3: the } that ends the children is missing.", 15},
      {"TarnObject a\n  Children {\n    TarnObject b\n}\n",
       "Line 4: the } that ends the children is missing.", 15},
      {"TarnObject a\n  Children {\n  TarnObject b\n  }\n",
       "Line 3: the } that ends the children is missing.", 15},
      {"TarnObject a\n  Children {\n        TarnObject b\n  }\n",
       "Line 3: this line is indented too far.", 15},
      {"TarnObject a\n    Children {\n    }\n", "Line 2: this line is indented too far.", 15},
      {"TarnSint32Value a\n  Value x\n", "Line 2: this is no number that fits.", 15},
      {"TarnSint8Value a\n  Value 128\n", "Line 2: this is no number that fits.", 15},
      {"TarnBooleanValue a\n  Value maybe\n", "Line 2: this is neither True nor False.", 15},
      {"Machine a\n  Speed 5x\n", "Line 2: this is no number that fits.", 15},
      {"Machine a\n  State Idle\n", "Line 2: this is no number of an enumeration.", 15},
      {"Machine a\n  Feeder x\n", "Line 2: a reference is NULL or has a block of its own.", 15},
      {"Machine a\n  Feeder\n", "Line 2: the node of the member \"Feeder\" is missing.", 15},
      {"Machine a\n  Feeder\n    Machine Feeder\n      = b\n",
       "Line 4: no node above this line stands at \"b\".", 15},
      {"TextKinds a\n  Notes {\n    .a 1\n", "Line 3: the } that ends a list of texts is missing.",
       15},
      {"TarnStringValue a\n  Value \"x\n", "Line 2: the closing quotation mark is missing.", 15},
  };
  for (const Case& c : cases) {
    EXPECT_THAT([&] { import(c.text); }, ThrowsTarn(c.id, c.error)) << c.text;
  }
  EXPECT_THAT([&] { import("Machine a\n  Feeder\n    TarnObject Feeder\n"); },
              ThrowsTarn(12, HasSubstr("Line 3: ")));
  for (const char* name : {"\"\"", "", "a~b"}) {
    EXPECT_THAT(
        [&] {
          import("TarnObject a\n  Children {\n    TarnObject " + std::string(name) + "\n  }\n");
        },
        testing::Throws<TarnException>(
            testing::Property(&TarnException::what, HasSubstr("Line 4: "))));
  }
}

TEST_F(TextFormTest, RefusesEveryCutWithinAList) {
  manager().set("a~b~c", "x");
  modify(manager().getObject("a"))->addChild("m", Machine::Create());
  manager().set("a~z", 5);
  const std::string text = Export(manager().getObject("a"));
  captured_log log;
  for (std::size_t length = 0; length < text.size() - 2; ++length) {
    SCOPED_TRACE(text.substr(0, length));
    try {
      const TarnRef node = import(text.substr(0, length));
      EXPECT_TRUE(node.is_null() || length <= std::string("TarnObject a\n").size() + 10);
    } catch (const TarnException& error) {
      EXPECT_THAT(error.what(), HasSubstr("Line "));
    }
  }
}

TEST_F(TextFormTest, SaysWhereAFileMayHaveBeenCut) {
  const auto warnings = [&](const char* text) {
    captured_log log;
    import(text);
    return log.lines();
  };
  EXPECT_THAT(warnings("TarnStringValue a\n  Value 12"),
              testing::ElementsAre(HasSubstr("Line 2: the last line does not end")));
  for (const char* whole :
       {"TarnStringValue a\n  Value 12\n", "TarnStringValue a\n  Value 12\n  ",
        "TarnObject a\n  Children {\n  }", "TarnObject a\n  Children {\n  }\n "}) {
    EXPECT_THAT(warnings(whole), testing::IsEmpty()) << whole;
  }
}

TEST_F(TextFormTest, SaysWhatIsWrongWithFiles) {
  const std::string none = directory().file("none");
  EXPECT_THAT([&] { manager().importFromFile(none.c_str()); }, ThrowsTarn(17, HasSubstr(none)));
  EXPECT_THAT([&] { manager().importFromFile(directory().path().c_str()); },
              ThrowsTarn(15, "Bad export file detected.  Aborting import."));
  EXPECT_THAT([&] { manager().exportTo("none", none.c_str()); }, ThrowsTarn(7, HasSubstr("none")));
  EXPECT_THAT([&] { manager().exportTo("", directory().file("no/file").c_str()); },
              ThrowsTarn(16, HasSubstr("no/file")));
  const TarnRef root = manager().getRoot();
  PInOut out;
  out.writeTo([](std::string_view) { return false; });
  manager().set("a", std::string(100'000, 'x'));
  EXPECT_THAT([&] { root->exportTo(out); },
              ThrowsTarn(16, "Error while writing to temporary file; is the disk full?"));
  manager().exportTo("", none.c_str());
  EXPECT_EQ(manager().importFromFile(none.c_str())->getXString("a").getLength(), 100'000U);
}

TEST_F(TextFormTest, GoesAMillionLevelsDeep) {
  constexpr int kLevels = 1'000'000;
  std::string text = "TarnObject top\n";
  std::size_t level = 1;
  const auto line = [&](const char* words) {
    if (level <= PInOut::kDeepestIndentation) {
      text.append(2 * level, ' ');
    } else {
      text += "(" + std::to_string(level) + ") ";
    }
    text += words;
  };
  for (int i = 0; i < kLevels; ++i) {
    line("Children {\n");
    ++level;
    line("TarnObject x\n");
    ++level;
  }
  while (level > 1) {
    level -= 2;
    line("}\n");
  }
  TarnRef node = import(text);
  std::ostringstream out;
  PInOut exported;
  exported.writeTo(out);
  TarnObject::Write("top", node, &exported);
  exported.close();
  EXPECT_TRUE(out.str() == text);
}

TEST_F(TextFormTest, FollowsLongChainsOfMembers) {
  xcptref<Machine> first;
  for (int i = 0; i < 20'000; ++i) {
    const auto machine = Machine::Create();
    modify(machine)->setFeeder(first);
    first = machine;
  }
  const std::string text = Export(first);
  EXPECT_TRUE(Export(import(text)) == text);
}

TEST_F(TextFormTest, KeepsVeryLargeValues) {
  const std::string large(64 * 1024 * 1024, '\n');
  const TarnRef node = TarnValue::CreateValue(TarnData(large));
  const TarnRef copy = import(Export(node));
  EXPECT_TRUE(copy->getXString(nullptr).view() == large);
}

// What was written below "a" is met again below "z", and through members that lead to it.
TEST_F(TextFormTest, TellsNoWrongPlaceOfNodesThatMoveDuringTheExport) {
  const auto first = Machine::Create(), second = Machine::Create(), third = Machine::Create();
  manager().transaction([&] {
    modify(first)->setFeeder(second);
    modify(second)->setFeeder(first);
    modify(third)->setFeeder(second);
    manager().set("top~a~x", TarnRef(first));
    manager().set("top~a~x~below", 7);
    manager().set("top~z~third", TarnRef(third));
    for (int i = 0; i < 3000; ++i)
      manager().set("top~m~" + std::to_string(i), std::string(90, 'v'));
  });
  for (const bool isMinLocking : {true, false}) {
    bool hasMoved = false;
    std::string text;
    PInOut out;
    out.writeTo([&](std::string_view bytes) {
      text += bytes;
      if (!std::exchange(hasMoved, true)) manager().moveBranch("top~a~x", "top~z~x");
      return true;
    });
    if (isMinLocking) {
      manager().exportMinLockingTo("top", out);
    } else {
      manager().exportTo("top", out);
    }
    ASSERT_TRUE(out.close());
    ASSERT_TRUE(hasMoved);
    if (isMinLocking) {
      const TarnRef copy = import(text);
      EXPECT_EQ(copy->getChildWithName("m")->getNumAbstractChildren(), 3000U);
      for (const char* place : {"a~x", "z~x"}) {
        const xcptref<Machine> machine(copy->getChildWithName(place));
        ASSERT_FALSE(machine.is_null()) << place;
        EXPECT_EQ(machine->getSint32("below"), 7);
        EXPECT_EQ(machine->getFeeder()->getFeeder(), machine) << place;
      }
      // Nodes in memory that refer to each other in a circle would stay.
      for (const char* place : {"a~x", "z~x"}) {
        modify(xcptref<Machine>(copy->getChildWithName(place)))->setFeeder(nullptr);
      }
    }
    manager().moveBranch("top~z~x", "top~a~x");
  }
}

TEST_F(TextFormTest, ExportsWhileOthersChangeTheBranch) {
  for (int i = 0; i < 50; ++i) manager().set("a~" + std::to_string(i) + "~fixed", i);
  std::atomic<bool> isDone = false;
  std::atomic<int> rounds = 0;
  std::thread writer([&] {
    const TarnAttachment attachment(manager());
    for (int i = 0; !isDone; ++i) {
      const std::string path = "a~" + std::to_string(i % 50) + "~moving";
      manager().set(path, i);
      if (i % 3 == 0) manager().deleteBranch(path);
      ++rounds;
    }
  });
  while (rounds == 0) std::this_thread::yield();
  for (int i = 0; i < 20; ++i) {
    std::ostringstream out;
    PInOut text;
    text.writeTo(out);
    manager().exportMinLockingTo("a", text);
    ASSERT_TRUE(text.close());
    const TarnRef copy = import(out.str());
    ASSERT_EQ(copy->getNumAbstractChildren(), 50U);
    for (int child = 0; child < 50; ++child) {
      ASSERT_EQ(copy->getSint32((std::to_string(child) + "~fixed").c_str()), child);
    }
  }
  isDone = true;
  writer.join();
}

}  // namespace
}  // namespace tarns
