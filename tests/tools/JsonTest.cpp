// Branches as JSON and back.
#include <gmock/gmock.h>
#include <rapidcheck/gtest.h>

#include <nlohmann/json.hpp>

#include <bit>
#include <cmath>
#include <limits>

#include "examples/Machine.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"
#include "tools/BranchWalk.h"
#include "tools/JsonImporter.h"
#include "tools/JsonWriter.h"
#include "tools/json_names.h"

namespace tarns {
namespace {

using nlohmann::json;
using testing::HasSubstr;

class JsonTest : public session_test {
 protected:
  void import(const std::string& text, const std::string& path) {
    std::ofstream(file(), std::ios::binary) << text;
    JsonInput input(file());
    manager().transaction([&] { JsonImporter(manager(), input, [](auto) {}).read(path); });
  }
  std::string exported(const std::string& path) {
    {
      Output out(file());
      JsonWriter(out).write(manager().getObject(path));
      out.finish();
    }
    std::ifstream in(file(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // Every node below a path: its path, class, type and bits.
  std::vector<std::string> details(const std::string& path) {
    std::vector<std::string> lines;
    BranchWalk walk(manager().getObject(path));
    while (const auto* step = walk.next()) {
      const NodeView view(step->node);
      std::string line = walk.path() + " " + view.className;
      if (view.value) {
        const bool isReal = view.value->isRealNumber();
        line += isReal ? std::to_string(std::bit_cast<std::uint64_t>(view.value->getDouble()))
                       : std::string(view.value->getText());
      }
      lines.push_back(line);
    }
    return lines;
  }

 private:
  std::string file() const { return directory().file("json"); }
};

TEST_F(JsonTest, PlainValuesComeBack) {
  for (const char* text :
       {"{}",
        "[]",
        "null",
        "true",
        "0",
        "-1",
        "9223372036854775807",
        "18446744073709551615",
        "-9223372036854775808",
        "1.0",
        "-0.0",
        "5e-324",
        "1.7976931348623157e+308",
        "0.1",
        R"("")",
        R"("a\u0001\u001b\u007f\u0085\u202e\ud83d\ude00\"\\\/")",
        R"([[],[[]],{}])",
        R"({"":1,"%":2,"%25":3,"a~b":4,"%7E":5,"\u0000":6,"%7e":7,"%2":8,"~=%7Ex":9})",
        R"({"Items_0":1})",
        R"({"Items_0":[null],"Items_1":{"Items":[]}})",
        R"([0,1,2,3,4,5,6,7,8,9,10,11])"}) {
    SCOPED_TRACE(text);
    import(text, "x");
    EXPECT_EQ(json::parse(exported("x")).dump(), json::parse(text).dump());
    manager().deleteBranch("x");
  }
}

RC_GTEST_FIXTURE_PROP(JsonTest, AnyJsonComesBack, ()) {
  // Lists of instructions, which build a document from the leaves up.
  std::vector<json> parts{nullptr};
  const auto steps = *rc::gen::inRange(1, 25);
  for (int i = 0; i < steps; ++i) {
    const auto part = [&] {
      return parts[static_cast<std::size_t>(
          *rc::gen::inRange<int>(0, static_cast<int>(parts.size())))];
    };
    const auto text = [&] {
      std::string bytes;
      for (const std::uint16_t code : *rc::gen::container<std::vector<std::uint16_t>>(
               rc::gen::inRange<std::uint16_t>(1, 0xD800))) {
        const char16_t unit = code % 3 == 0 ? code % 128 + (code % 128 == 0 ? 1 : 0) : code;
        bytes += json::parse("\"\\u" +
                             [&] {
                               char hex[5];
                               std::snprintf(hex, sizeof hex, "%04x", static_cast<unsigned>(unit));
                               return std::string(hex);
                             }() +
                             "\"")
                     .get<std::string>();
      }
      return bytes;
    };
    switch (*rc::gen::inRange(0, 7)) {
      case 0:
        parts.emplace_back(*rc::gen::arbitrary<std::int64_t>());
        break;
      case 1:
        parts.emplace_back(*rc::gen::arbitrary<std::uint64_t>());
        break;
      case 2: {
        const auto real = std::bit_cast<double>(*rc::gen::arbitrary<std::uint64_t>());
        parts.emplace_back(std::isfinite(real) ? real : 0.5);
        break;
      }
      case 3:
        parts.emplace_back(text());
        break;
      case 4: {
        json list = json::array();
        for (int k = *rc::gen::inRange(0, 14); k > 0; --k) list.push_back(part());
        parts.push_back(list);
        break;
      }
      default: {
        json object = json::object();
        for (int k = *rc::gen::inRange(0, 5); k > 0; --k) {
          std::string key = text();
          if (!key.starts_with('~')) object[key] = part();
        }
        parts.push_back(object);
      }
    }
  }
  import(parts.back().dump(), "x");
  RC_ASSERT(json::parse(exported("x")).dump() == parts.back().dump());
  manager().deleteBranch("x");
}

TEST_F(JsonTest, BranchesOfEveryTypeComeBack) {
  const TarnData values[] = {
      true,
      std::int8_t{-8},
      std::int16_t{-16},
      std::int32_t{-32},
      std::int64_t{-64},
      std::uint8_t{8},
      std::uint16_t{16},
      std::uint32_t{32},
      std::uint64_t{64},
      std::numeric_limits<std::uint64_t>::max(),
      0.1F,
      std::nextafter(0.1F, 1.0F),
      -std::numeric_limits<float>::infinity(),
      std::numeric_limits<float>::denorm_min(),
      1.0,
      -0.0,
      std::numeric_limits<double>::quiet_NaN(),
      std::bit_cast<double>(0xFFF8'0000'0000'1234),
      std::numeric_limits<double>::infinity(),
      "text",
      "\xE9\\\xF0\x9F\x98\x80",
      "\\x41 is no byte",
      "~String",
  };
  int number = 0;
  for (const TarnData& value : values) manager().set("x~v" + std::to_string(number++), value);
  for (const char* name :
       {"%7E", "%25", "%", "%00", "100%25", "\xFF\\", "\\xFF", " ", "\n", "Items_0"}) {
    manager().set(std::string("x~names~") + name, name);
  }
  manager().set("x~v1~below~a value", 5);
  manager().set("x~Items_0");
  const TarnRef twice = manager().getObject("x~names");
  for (int i = 0; i < 3; ++i) {
    const TarnRef child = TarnObject::Create();
    modify(child)->setValue("n", i);
    modify(twice)->addChild("again", child);
  }
  import(R"([1, [2]])", "x~array");
  manager().deleteBranch("x~array~Items_0");
  const auto before = details("x");
  const std::string text = exported("x");
  EXPECT_TRUE(json::accept(text)) << text;
  import(text, "y");
  EXPECT_EQ(details("y"), before);
  EXPECT_EQ(exported("y"), text);
}

TEST_F(JsonTest, ImportMergesObjectsAndReplacesTheRest) {
  struct Case {
    const char *before, *then, *after;
  };
  const Case cases[] = {
      {R"({"a":1})", R"({"b":2})", R"({"a":1,"b":2})"},
      {R"({"a":{"x":1,"y":2}})", R"({"a":{"y":"two"}})", R"({"a":{"x":1,"y":"two"}})"},
      {R"({"a":[1,2,3]})", R"({"a":[4]})", R"({"a":[4]})"},
      {R"({"a":{"x":1}})", R"({"a":5})", R"({"a":5})"},
      {R"({"a":5})", R"({"a":{"x":1}})", R"({"a":{"x":1}})"},
      {R"({"a":{"~value":5,"x":1}})", R"({"a":6})", R"({"a":6})"},
      {R"({"a":{"~value":5,"x":1}})", R"({"a":{"~value":6}})", R"({"a":{"x":1,"~value":6}})"},
      {R"({"a":null})", R"({"a":{}})", R"({"a":{}})"},
      {R"({"a":1,"~2=a":2,"~3=a":{}})", R"({"~=a":3,"~2=a":4,"~3=a":[],"~4=a":5})",
       R"({"a":3,"~2=a":4,"~3=a":[],"~4=a":5})"},
      {R"({"a":1,"~2=a":{"b":2}})", R"({"a":{},"~2=a":{"c":3}})",
       R"({"a":{},"~2=a":{"b":2,"c":3}})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.before << " then " << c.then);
    import(c.before, "x");
    import(c.then, "x");
    EXPECT_EQ(json::parse(exported("x")), json::parse(c.after));
    manager().deleteBranch("x");
  }
  import(R"({"top":{"b":1}})", "");
  EXPECT_EQ(picture(), "top{b=1}");
}

TEST_F(JsonTest, ImportChangesNothingAboveItsTarget) {
  const TarnData values[] = {5, 2.5, std::int8_t{-3}, false, "text", std::uint64_t{7}};
  for (const TarnData& value : values) {
    SCOPED_TRACE(value.getTypeAsString());
    manager().set("v", value);
    import(R"({"x":1})", "v~below");
    import("2", "v~x");
    import("3", "v~new~y");
    EXPECT_EQ(manager().valueAt("v")->getType(), value.getType());
    EXPECT_EQ(manager().valueAt("v")->compare(value), 0);
    EXPECT_EQ(manager().getSint32("v~new~y"), 3);
    manager().deleteBranch("v");
  }
  for (const char* path : {"v~", "~v", "v~~w"}) {
    EXPECT_THAT([&] { import("1", path); }, ThrowsTarn(8, testing::_)) << path;
  }
  EXPECT_EQ(picture(), "");
}

TEST_F(JsonTest, ValuesThatFitAClassAreTaken) {
  import(R"({"a":{"~class":"TarnSint8Value","~value":-128},
             "b":{"~class":"TarnDoubleValue","~value":3},
             "c":{"~class":"TarnUint8Value","~value":{"~Sint32":255}},
             "d":{"~class":"TarnFloatValue","~value":0.5}})",
         "x");
  EXPECT_EQ(picture("x"), "a=-128 b=3.000000 c=255 d=0.500000");
  EXPECT_EQ(manager().valueAt("x~c")->getType(), TarnData::Uint8);
}

TEST_F(JsonTest, NodesOfApplicationsComeBackWithTheirMembers) {
  manager().set("m~plain", Machine::Create());
  const xcptref<Machine> press = Machine::Create();
  modify(press)->setSpeed(-1200);
  modify(press)->setLoad(0, 0.1);
  modify(press)->setLoad(2, std::numeric_limits<double>::infinity());
  modify(press)->setState(Machine::State::kBroken);
  modify(press)->setChildValue("Serial", TarnData("P-\xFF"));
  modify(press)->setLabel("the old\npress");
  manager().set("m~press", press);
  manager().set("m~press~part~Speed", 5);
  const std::string text = exported("m");
  EXPECT_THAT(text, HasSubstr(R"("Label": null, "Feeder": null})"));
  EXPECT_THAT(text, HasSubstr(R"("State": {"~Uint8": 3})"));
  import(text, "n");
  EXPECT_EQ(exported("n"), text);
  import(text, "m");
  EXPECT_EQ(exported("m"), text);
  const xcptref<Machine> read = manager().getObject("n~press");
  EXPECT_EQ(read->getSpeed(), -1200);
  EXPECT_EQ(read->getLoad(0), 0.1);
  EXPECT_EQ(read->getState(), Machine::State::kBroken);
  EXPECT_EQ(read->getLabel(), "the old\npress");
  // What is not mentioned stays, null clears.
  import(R"({"~class":"Machine","~members":{"Speed":7,"Label":null}})", "n~press");
  EXPECT_EQ(read->getSpeed(), 7);
  EXPECT_EQ(read->getLabel(), "");
  EXPECT_EQ(read->getLoad(0), 0.1);
}

TEST_F(JsonTest, MembersThatDoNotFitOrReferToNodesAreRefused) {
  manager().set("m~press", Machine::Create());
  struct Case {
    const char *members, *error;
  };
  const Case cases[] = {
      {R"({"Speed":1e12})", "\"Speed\""},
      {R"({"Speed":2147483648})", "\"Speed\""},
      {R"({"Speed":"12"})", "\"Speed\""},
      {R"({"Speed":1.5})", "\"Speed\""},
      {R"({"Speed":null})", "\"Speed\" of the class \"Machine\" cannot be null"},
      {R"({"State":256})", "\"State\""},
      {R"({"Serial":"much too long"})", "\"Serial\""},
      {R"({"Loads_0":true})", "\"Loads_0\""},
      {R"({"Loads_3":1.0})", "has no member \"Loads_3\""},
      {R"({"Loads":1.0})", "has no member \"Loads\""},
      {R"({"Feeder":5})", ""},
      {R"({"Feeder":{}})", "only a value"},
      {R"({"Label":5})", "\"Label\""},
  };
  const std::string before = exported("m");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.members);
    const std::string text = std::string(R"({"~class":"Machine","~members":)") + c.members + "}";
    EXPECT_THAT([&] { import(text, "m~press"); },
                testing::Throws<TarnException>(
                    testing::Property(&TarnException::getError, HasSubstr(c.error))));
    EXPECT_EQ(exported("m"), before);
  }
  const xcptref<Machine> press = manager().getObject("m~press");
  modify(press)->setFeeder(Machine::Create());
  EXPECT_THAT([&] { exported("m"); },
              ThrowsTarn(0, testing::AllOf(HasSubstr("The node at \"press\""),
                                           HasSubstr("The member \"Feeder\""))));
}

TEST_F(JsonTest, DamagedJsonChangesNothingAndNamesTheLine) {
  struct Case {
    const char *text, *error;
  };
  const Case cases[] = {
      {"", "Line 1: "},
      {"{", "Line 1: "},
      {"{\n\"a\": 1,\n\"b\": trie\n}", "Line 3: "},
      {"{\n\"a\": 1,\n\"a\": 2}", "Line 3: the key \"a\" is there twice."},
      {"{\"a\": 1, \"~=a\": 2}", "the key \"a\" is there twice."},
      {"{\"~2=a\": 1}", "number 2 of the children \"a\" must follow"},
      {"{\"a\": 1, \"~3=a\": 2}", "number 3 of the children \"a\" must follow"},
      {"{\"a\": 1, \"b\": 2, \"~2=a\": 3}", "must follow the one before it"},
      {"1e-400", "too small"},
      {"[-0.00012e-400]", "too small"},
      {"{\"~Float\": \"nan:7f800001\"}", "this is no Float"},
      {"{\"~class\": \"TarnSint8Value\", \"~value\": 300}", "cannot hold 300"},
      {"{\"~class\": \"TarnSint8Value\", \"~value\": \"12x\"}", "cannot hold \"12x\""},
      {"{\"~class\": \"TarnSint32Value\", \"~value\": 1.5}", "cannot hold 1.5"},
      {"{\"~class\": \"TarnUint64Value\", \"~value\": -1}", "cannot hold -1"},
      {"{\"~class\": \"TarnDoubleValue\", \"~value\": 9007199254740993}", "cannot hold"},
      {"{\"~class\": \"TarnBooleanValue\", \"~value\": 1}", "cannot hold 1"},
      {"{\"~class\": \"TarnRoot\"}", "only the root"},
      {"[1] x", "Line 1: "},
      {"[1,]", "Line 1: "},
      {"\"\\u0000\"", "u0000"},
      {"\"\xFF\"", "Line 1: "},
      {"18446744073709551616", "does not fit into 64 bits"},
      {"-9223372036854775809", "does not fit into 64 bits"},
      {"1e999", "Line 1: "},
      {"{\"~wings\": 1}", "begins with \"~\""},
      {"{\"~Sint8\": 128}", "this is no Sint8"},
      {"{\"~Sint8\": 1.0}", "this is no Sint8"},
      {"{\"~Uint8\": -1}", "this is no Uint8"},
      {"{\"~Float\": 16777217}", "this is no Float"},
      {"{\"~Float\": \"nan:7f800000\"}", "this is no Float"},
      {"{\"~String\": \"\\\\q\"}", "this is no String"},
      {"{\"~Sint8\": {}}", "cannot stand here"},
      {"{\"~Sint8\": 1, \"a\": 2}", "nothing can stand beside"},
      {"{\"a\": 2, \"~Sint8\": 1}", "nothing can stand beside"},
      {"{\"a\": 2, \"~value\": 1}", "before the children"},
      {"{\"~value\": 1, \"~class\": \"TarnObject\"}", "must come first"},
      {"{\"~value\": {}}", "only a value"},
      {"{\"~value\": null}", "null cannot"},
      {"{\"~value\": []}", "an array cannot"},
      {"{\"~class\": \"NoSuchClass\"}", "\"NoSuchClass\" is not known"},
      {"{\"~class\": 5}", "cannot stand here"},
      {"{\"~members\": {\"a\": 1}}", "has no member \"a\""},
      {"{\"~x=a\": 1}", "begins with \"~\""},
      {"{\"~=\": 1}", "Line 1: "},
      {"{\"~=a~b\": 1}", "Line 1: "},
  };
  manager().set("kept", 1);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_THAT([&] { import(c.text, "x~y"); }, testing::Throws<TarnException>(testing::Property(
                                                    &TarnException::getError, HasSubstr(c.error))));
    EXPECT_EQ(picture(), "kept=1");
  }
  for (const char* text : {"5", "[]", "null", "\"x\"", "{\"~Sint8\": 1}", "{\"~value\": 1}",
                           "{\"~class\": \"TarnJsonArray\", \"a\": 1}"}) {
    EXPECT_THROW(import(text, ""), TarnException) << text;
  }
}

TEST_F(JsonTest, AHundredThousandLevelsBothWays) {
  constexpr int kLevels = 100'000;
  std::string text;
  for (int i = 0; i < kLevels; ++i) text += i % 2 == 0 ? "{\"a\":" : "[";
  text += "7";
  for (int i = kLevels - 1; i >= 0; --i) text += i % 2 == 0 ? "}" : "]";
  import(text, "x");
  std::string again = exported("x");
  std::erase_if(again, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_TRUE(again == text);
}

TEST_F(JsonTest, NodesInSeveralPlacesAreEnteredOnce) {
  // Sixty levels, each listed twice by the one above: 2^60 paths.
  manager().transaction([&] {
    std::string path = "x";
    manager().set(path);
    for (int i = 0; i < 60; ++i) {
      const TarnRef above = manager().getObject(path);
      path += "~n";
      manager().set(path);
      const TarnRef node = manager().getObject(path);
      modify(above)->addChild("m", node);  // which makes this its place
    }
    manager().set(path + "~v", 1);
  });
  BranchWalk walk(manager().getObject("x"));
  int steps = 0, elsewhere = 0;
  while (const auto* step = walk.next()) {
    ++steps;
    if (step->isElsewhere) ++elsewhere;
  }
  EXPECT_EQ(steps, 2 * 60 + 1);
  EXPECT_EQ(elsewhere, 60);
  EXPECT_THAT([&] { exported("x"); },
              ThrowsTarn(0, testing::AllOf(HasSubstr("in several places"), HasSubstr("~m\""))));
  // A node whose place is outside is written where it is met, once.
  manager().set("y~a");
  manager().set("home~n~v", std::int64_t{2});
  const TarnRef node = manager().getObject("home~n"), home = manager().getObject("home");
  modify(manager().getObject("y"))->addChild("b", node);
  ASSERT_TRUE(modify(home)->becomeParentOf("n"));
  EXPECT_EQ(json::parse(exported("y")), json::parse(R"({"a":{},"b":{"v":2}})"));
  modify(manager().getObject("y~a"))->addChild("c", node);
  ASSERT_TRUE(modify(home)->becomeParentOf("n"));
  EXPECT_THAT([&] { exported("y"); }, ThrowsTarn(0, HasSubstr("\"home~n\"")));
}

TEST_F(JsonTest, ABranchThatContainsItselfIsRefused) {
  manager().set("x~y");
  const TarnRef y = manager().getObject("x~y");
  modify(y)->addChild("up", manager().getObject("x"));
  EXPECT_THAT([&] { exported("x"); }, ThrowsTarn(0, HasSubstr("\"y~up\"")));
}

}  // namespace
}  // namespace tarns
