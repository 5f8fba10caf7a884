#include <goods/WWWconnection.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "goods/errors_matcher.h"

namespace goods {
namespace {

using attribute_list = std::vector<std::pair<std::string, std::string>>;

attribute_list all_of(const WWWconnection& request) {
  attribute_list all;
  request.for_each(
      [&](const std::string& name, const std::string& text) { all.emplace_back(name, text); });
  return all;
}

TEST(WWWconnectionTest, DecodesAttributes) {
  struct {
    const char* query;
    attribute_list attributes;
  } const cases[] = {
      {"", {}},
      {"?", {}},
      {"a=1&b=2", {{"a", "1"}, {"b", "2"}}},
      {"?a=1#b=2", {{"a", "1"}}},
      {"&&a&=x&b=&", {{"a", ""}, {"b", ""}}},
      {"a=x=y", {{"a", "x=y"}}},
      {"full+name=a+b%2Bc%26d%3d", {{"full name", "a b+c&d="}}},
      {"a=%c3%A9%7E", {{"a", "\xC3\xA9~"}}},
      {"a=100%&b=%4&c=%zz%20", {{"a", "100%"}, {"b", "%4"}, {"c", "%zz "}}},
      {"a=2&b=0&a=1", {{"a", "2"}, {"a", "1"}, {"b", "0"}}},
  };
  for (const auto& c : cases) {
    WWWconnection request;
    request.add_query(c.query);
    EXPECT_EQ(all_of(request), c.attributes) << c.query;
  }
}

TEST(WWWconnectionTest, AnswersFromQueryFormAndWhatWasAdded) {
  WWWconnection request;
  request.add_query("a=1");
  request.add_form("a=2&b=#x");
  request.add("c", "%41");
  EXPECT_STREQ(request.get("a"), "1");
  EXPECT_STREQ(request.get("a", 1), "2");
  EXPECT_EQ(request.get("a", 2), nullptr);
  EXPECT_STREQ(request.get("b"), "#x");
  EXPECT_STREQ(request.get("c"), "%41");
  EXPECT_EQ(request.get("d"), nullptr);
  EXPECT_EQ(request.get(nullptr), nullptr);
  request.clear();
  EXPECT_FALSE(request.has("a"));
}

TEST(WWWconnectionTest, RefusesWhatGoesBeyondItsLimitsAndKeepsWhatItHas) {
  WWWconnection request;
  request.add_query("kept=1");
  std::string many;
  for (std::size_t i = 0; i < WWWconnection::kMaxAttributes; ++i) many += "a&";
  const std::string large = "a=" + std::string(WWWconnection::kMaxLength, 'x');
  for (const std::string& form :
       {std::string("a=1&b=%00"), std::string("a%00=1"), std::string("a=1\0", 4), many, large}) {
    EXPECT_EQ(code_of([&] { request.add_form(form); }), error_code::usage) << form.substr(0, 20);
  }
  EXPECT_EQ(code_of([&] { request.add("a", std::string_view("\0", 1)); }), error_code::usage);
  EXPECT_EQ(all_of(request), (attribute_list{{"kept", "1"}}));
  many.resize(many.size() - 2);
  request.add_form(many);
  EXPECT_EQ(request.count("a"), WWWconnection::kMaxAttributes - 1);
}

}  // namespace
}  // namespace goods
