#pragma once

#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/util/XException.h>

#include <string>

// Matchers for callables that must throw:
//
//   EXPECT_THAT([&] { path.addBranch("b~c"); }, ThrowsTarn(8, HasSubstr("\"b~c\"")));
//   EXPECT_THAT([&] { map.addStorage("3"); }, ThrowsX("Invalid storage entry \"3\"."));
//
// The message matcher is one for std::string; a plain text means exactly that message.

template <typename Message>
auto ThrowsX(const Message& message) {
  return testing::Throws<tarns::XException>(testing::ResultOf(
      "the message", [](const tarns::XException& error) { return std::string(error.what()); },
      testing::SafeMatcherCast<std::string>(message)));
}

template <typename Message>
auto ThrowsTarn(unsigned long id, const Message& message) {
  return testing::Throws<tarns::TarnException>(testing::AllOf(
      testing::Property("the identifier", &tarns::TarnException::getErrorID, id),
      testing::ResultOf(
          "the message",
          [](const tarns::TarnException& error) { return std::string(error.what()); },
          testing::SafeMatcherCast<std::string>(message))));
}
