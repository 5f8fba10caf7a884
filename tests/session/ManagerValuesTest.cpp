// Values by path.
#include <gmock/gmock.h>

#include <cmath>
#include <functional>
#include <limits>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class ManagerValuesTest : public session_test {};

TEST_F(ManagerValuesTest, KeepsEveryTypeByItsWidthOverARestart) {
  struct Case {
    TarnData value;
    TarnData::Type type;
  };
  const Case cases[] = {
      {true, TarnData::Boolean},
      {-1.5e-300, TarnData::Double},
      {std::numeric_limits<double>::infinity(), TarnData::Double},
      {1.25F, TarnData::Float},
      {std::int8_t{-128}, TarnData::Sint8},
      {std::int16_t{-32768}, TarnData::Sint16},
      {std::numeric_limits<std::int32_t>::min(), TarnData::Sint32},
      {std::numeric_limits<std::int64_t>::min(), TarnData::Sint64},
      {std::numeric_limits<long>::max(), TarnData::Sint64},
      {std::numeric_limits<long long>::max(), TarnData::Sint64},
      {std::uint8_t{255}, TarnData::Uint8},
      {std::uint16_t{65535}, TarnData::Uint16},
      {std::numeric_limits<std::uint32_t>::max(), TarnData::Uint32},
      {std::numeric_limits<std::uint64_t>::max(), TarnData::Uint64},
      {"text with \xFF and \n", TarnData::String},
      {"", TarnData::String},
  };
  int number = 0;
  for (const Case& c : cases) manager().set("a~b~" + std::to_string(number++), c.value);
  reopen();
  number = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(number);
    const auto read = manager().valueAt("a~b~" + std::to_string(number++));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->getType(), c.type);
    EXPECT_EQ(read->getText(), c.value.getText());
    EXPECT_EQ(read->getUint64(), c.value.getUint64());
  }
}

TEST_F(ManagerValuesTest, GettersConvertFailOrTakeTheDefault) {
  manager().set("n", 300);
  struct Case {
    const char* name;
    std::function<TarnData(const char*)> required;
    std::function<TarnData(const char*)> defaulted;
    const char *converted, *dflt;
  };
  TarnManager& m = manager();
  const Case cases[] = {
      {"Boolean", [&](auto p) { return m.getBoolean(p); },
       [&](auto p) { return m.getBoolean(p, false); }, "True", "False"},
      {"Double", [&](auto p) { return m.getDouble(p); },
       [&](auto p) { return m.getDouble(p, 2.5); }, "300.000000", "2.500000"},
      {"Float", [&](auto p) { return m.getFloat(p); }, [&](auto p) { return m.getFloat(p, 2.5F); },
       "300.000000", "2.500000"},
      {"Sint8", [&](auto p) { return m.getSint8(p); }, [&](auto p) { return m.getSint8(p, -7); },
       "44", "-7"},
      {"Sint16", [&](auto p) { return m.getSint16(p); }, [&](auto p) { return m.getSint16(p, -7); },
       "300", "-7"},
      {"Sint32", [&](auto p) { return m.getSint32(p); }, [&](auto p) { return m.getSint32(p, -7); },
       "300", "-7"},
      {"Sint64", [&](auto p) { return m.getSint64(p); }, [&](auto p) { return m.getSint64(p, -7); },
       "300", "-7"},
      {"Uint8", [&](auto p) { return m.getUint8(p); }, [&](auto p) { return m.getUint8(p, 7); },
       "44", "7"},
      {"Uint16", [&](auto p) { return m.getUint16(p); }, [&](auto p) { return m.getUint16(p, 7); },
       "300", "7"},
      {"Uint32", [&](auto p) { return m.getUint32(p); }, [&](auto p) { return m.getUint32(p, 7); },
       "300", "7"},
      {"Uint64", [&](auto p) { return m.getUint64(p); }, [&](auto p) { return m.getUint64(p, 7); },
       "300", "7"},
      {"XString", [&](auto p) { return m.getXString(p); },
       [&](auto p) { return m.getXString(p, "none"); }, "300", "none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_STREQ(c.required("n").getString(), c.converted);
    EXPECT_STREQ(c.defaulted("n").getString(), c.converted);
    EXPECT_STREQ(c.defaulted("n~missing").getString(), c.dflt);
    EXPECT_THAT([&] { c.required("missing~x"); },
                ThrowsTarn(7, "No value exists at the specified path \"missing~x\"."));
  }
  EXPECT_EQ(picture(), "n=300") << "reading creates nothing";
}

TEST_F(ManagerValuesTest, AbsenceLeavesTheOutputAlone) {
  manager().set("node");
  TarnData out("before");
  for (const char* path : {"node", "missing", "node~missing", ""}) {
    EXPECT_FALSE(manager().get(path, out)) << path;
    EXPECT_STREQ(out.getString(), "before");
  }
  EXPECT_FALSE(manager().get("missing", out, TarnData(5)));
  EXPECT_EQ(out.getType(), TarnData::Sint32);
  XString text("before");
  EXPECT_THAT([&] { manager().copyAsStringTo("missing", text); },
              ThrowsTarn(7, "The specified path \"missing\" does not exist."));
  EXPECT_STREQ(text, "before");
}

TEST_F(ManagerValuesTest, SetMakesParentsAndKeepsTheTypeOfWhatIsThere) {
  manager().set("a~b~c", std::int8_t{1});
  EXPECT_EQ(picture(), "a{b{c=1}}");
  manager().set("a~b~c", 300);
  EXPECT_EQ(manager().valueAt("a~b~c")->getType(), TarnData::Sint8);
  EXPECT_EQ(manager().getSint32("a~b~c"), 44);
  manager().set("a~b~c~d", "below a value");
  manager().set("a~e");
  manager().set("a~e");
  EXPECT_EQ(picture(), "a{b{c=44{d=below a value}} e{}}");
  EXPECT_THAT([&] { manager().set("a~b", 5); }, ThrowsTarn(11, HasSubstr("Cannot store value")));
  for (const char* path : {"a~~b", "~a", "a~"}) {
    EXPECT_THROW(manager().set(path, 5), TarnException) << path;
  }
  EXPECT_EQ(picture(), "a{b{c=44{d=below a value}} e{}}");
}

TEST_F(ManagerValuesTest, TextIsConvertedToTheTypeAskedFor) {
  struct Case {
    const char* text;
    TarnData::Type type;
    const char* stored;
  };
  const Case cases[] = {
      {"-12", TarnData::Sint8, "-12"},
      {"70000", TarnData::Sint16, "4464"},
      {"-2147483648", TarnData::Sint32, "-2147483648"},
      {"-9223372036854775808", TarnData::Sint64, "-9223372036854775808"},
      {"255", TarnData::Uint8, "255"},
      {"65535", TarnData::Uint16, "65535"},
      {"4294967295", TarnData::Uint32, "4294967295"},
      {"18446744073709551615", TarnData::Uint64, "18446744073709551615"},
      {"-2.5", TarnData::Double, "-2.500000"},
      {".5", TarnData::Float, "0.500000"},
      {"True", TarnData::Boolean, "True"},
      {"fish", TarnData::Boolean, "False"},
      {"5", TarnData::String, "5"},
  };
  int number = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string path = "v~" + std::to_string(number++);
    manager().set(path, c.text, c.type);
    EXPECT_EQ(manager().valueAt(path)->getType(), c.type);
    EXPECT_STREQ(manager().getXString(path), c.stored);
  }
  for (int type = TarnData::Boolean; type <= TarnData::Uint64; ++type) {
    const char* nothing = nullptr;
    const auto as = static_cast<TarnData::Type>(type);
    SCOPED_TRACE(TarnData::GetTypeAsString(as));
    try {
      manager().set("null", nothing, as);
      EXPECT_EQ(manager().valueAt("null")->getType(), as);
      EXPECT_EQ(manager().getSint32("null"), 0);
      manager().deleteBranch("null");
    } catch (const TarnException&) {
      EXPECT_TRUE(as == TarnData::Boolean || as == TarnData::Double || as == TarnData::Float);
      EXPECT_TRUE(manager().getObject("null").is_null());
    }
  }
  EXPECT_THAT([&] { manager().set("bad", "1e5x", TarnData::Double); },
              ThrowsTarn(0, HasSubstr("does not appear to be a real number")));
  EXPECT_THAT([&] { manager().set("bad", "yes", TarnData::Boolean); },
              ThrowsTarn(10, HasSubstr("\"yes\"")));
  EXPECT_TRUE(manager().getObject("bad").is_null());
  manager().set("none", "ignored", TarnData::None);
  EXPECT_FALSE(manager().valueAt("none").has_value());
}

TEST_F(ManagerValuesTest, SetTakesEveryScalarByItsOwnType) {
  struct Case {
    std::function<void(TarnManager&)> set;
    TarnData::Type type;
    const char* stored;
  };
  const char* text = "text";
  const Case cases[] = {
      {[](auto& m) { m.set("v", true); }, TarnData::Boolean, "True"},
      {[](auto& m) { m.set("v", 2.5); }, TarnData::Double, "2.500000"},
      {[](auto& m) { m.set("v", 2.5F); }, TarnData::Float, "2.500000"},
      {[](auto& m) { m.set("v", std::int8_t{-1}); }, TarnData::Sint8, "-1"},
      {[](auto& m) { m.set("v", short{-2}); }, TarnData::Sint16, "-2"},
      {[](auto& m) { m.set("v", -3); }, TarnData::Sint32, "-3"},
      {[](auto& m) { m.set("v", -4L); }, TarnData::Sint64, "-4"},
      {[](auto& m) { m.set("v", -5LL); }, TarnData::Sint64, "-5"},
      {[](auto& m) { m.set("v", static_cast<unsigned char>(1)); }, TarnData::Uint8, "1"},
      {[](auto& m) { m.set("v", static_cast<unsigned short>(2)); }, TarnData::Uint16, "2"},
      {[](auto& m) { m.set("v", 3U); }, TarnData::Uint32, "3"},
      {[](auto& m) { m.set("v", 4UL); }, TarnData::Uint64, "4"},
      {[](auto& m) { m.set("v", 5ULL); }, TarnData::Uint64, "5"},
      {[=](auto& m) { m.set("v", text); }, TarnData::String, "text"},
      {[](auto& m) { m.set("v", XString("x")); }, TarnData::String, "x"},
      {[](auto& m) { m.set("v", std::string("s")); }, TarnData::String, "s"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    manager().deleteBranch("v");
    c.set(manager());
    ASSERT_TRUE(manager().valueAt("v").has_value());
    EXPECT_EQ(manager().valueAt("v")->getType(), c.type);
    EXPECT_STREQ(manager().getXString("v"), c.stored);
  }
}

TEST_F(ManagerValuesTest, TheEmptyValueIsWrittenAndAMissingNodeIsMadeWithout) {
  struct Case {
    TarnData value;
    const char* emptied;
  };
  for (const Case& c : {Case{5, "1"}, {2.5, "1.000000"}, {false, "True"}, {"text", ""}}) {
    SCOPED_TRACE(c.emptied);
    manager().deleteBranch("v");
    manager().set("v", c.value);
    manager().getNoFail("v");
    EXPECT_EQ(manager().valueAt("v")->compare(c.value), 0);
    manager().set("v");
    EXPECT_STREQ(manager().getXString("v"), c.emptied);
  }
  EXPECT_STREQ(manager().getNoFail("a~b")->getType(), "TarnObject");
  EXPECT_EQ(manager().getNoFail(""), manager().getRoot());
  EXPECT_THAT([&] { manager().set("n", TarnRef()); }, ThrowsTarn(0, HasSubstr("NULL")));
  EXPECT_THROW(manager().addUnique("", TarnObject::Create()), TarnException);
  EXPECT_EQ(manager().getChildName("a", 1).view(), "");
}

TEST_F(ManagerValuesTest, APathOrTextMayComeInAnyForm) {
  const std::string path = "p~q";
  manager().set(path, std::string_view("x"));
  manager().set(TarnPath("p", "r"), XString("y"));
  manager().set(std::string_view("p~sX").substr(0, 3), 'c');
  EXPECT_STREQ(manager().getXString(TarnPath("p~q")), "x");
  EXPECT_STREQ(manager().getXString(std::string_view("p~r")), "y");
  EXPECT_EQ(manager().valueAt("p~s")->getType(), TarnData::Sint8);
}

}  // namespace
}  // namespace tarns
