#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnException.h>

#include <utility>

#include "support/throws_tarn.h"

namespace tarns {
namespace {

TEST(TarnExceptionTest, ThrowsTheFixedMessages) {
  EXPECT_THAT([] { TarnException::ThrowDBuninitialized(); },
              ThrowsTarn(4,
                         "The operation failed because the client is not connected to the "
                         "database server."));
  EXPECT_THAT([] { TarnException::ThrowFileNotFound("x.txt"); },
              ThrowsTarn(17, "The specified file \"x.txt\" cannot be found."));
  EXPECT_THAT([] { TarnException::ThrowMissingDescriptor("Car"); },
              ThrowsTarn(3,
                         "Application or third-party developer error: the class \"Car\"does not "
                         "have a class descriptor.  Please contact the software vendor."));
  EXPECT_THAT([] { TarnException::ThrowBadDataType(13); },
              ThrowsTarn(10, "Unrecognized data type \"13\""));
  EXPECT_THAT([] { TarnException::ThrowNonExistentPath("a~b"); },
              ThrowsTarn(7, "The specified path \"a~b\" does not exist."));
  EXPECT_THAT([] { TarnException::ThrowNonExistentValue("a~b"); },
              ThrowsTarn(7, "No value exists at the specified path \"a~b\"."));
  EXPECT_THAT([] { TarnException::ThrowNonExistentPath(nullptr); },
              ThrowsTarn(7, "The specified path \"\" does not exist."));
  EXPECT_THAT([] { ThrowBadRef("NULL TarnRef read dereference"); },
              ThrowsTarn(0, "NULL TarnRef read dereference"));
}

TEST(TarnExceptionTest, KeepsMessageAndIdentifierWhenCopiedAndCaughtAsBase) {
  TarnException error("first", 12);
  const TarnException copy = error;
  error.setError("second", 13);
  error << '!';
  EXPECT_STREQ(copy.what(), "first");
  EXPECT_EQ(copy.getErrorID(), 12U);
  const TarnException moved = std::move(error);
  EXPECT_STREQ(moved.what(), "second!");
  EXPECT_EQ(moved.getErrorID(), 13U);
  EXPECT_EQ(TarnException().getErrorID(), 0U);
  EXPECT_THAT([&] { throw copy; }, ThrowsX("first"));
}

}  // namespace
}  // namespace tarns
