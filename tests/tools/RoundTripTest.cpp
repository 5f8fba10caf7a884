// Random trees, exported and imported in both forms.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/branch_picture.h"
#include "support/random_tree.h"
#include "support/session_fixture.h"
#include "tools/BranchPlacer.h"
#include "tools/JsonImporter.h"
#include "tools/JsonWriter.h"

namespace tarns {
namespace {

// How many trees each form is tried with: the environment variable TARNS_ROUND_TRIPS, else what
// takes some seconds.
std::uint64_t NumTrees() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no test changes the environment
  const char* const wanted = std::getenv("TARNS_ROUND_TRIPS");
  return wanted != nullptr ? std::stoull(wanted) : 5'000;
}

constexpr std::uint64_t kTreesPerBatch = 50;
constexpr std::uint64_t kBatchesPerStored = 10;  // the others are compared before they are stored

class RoundTripTest : public session_test {
 protected:
  RoundTripTest() : session_test(1, "?durability=relaxed", scratch_directory::place::in_memory) {}

  // Makes trees, lets `copy` make "copy" like "original", and compares.
  template <class Copy>
  void compareAll(random_tree::links links, const Copy& copy) {
    const std::uint64_t count = NumTrees();
    ASSERT_GT(count, 0U);
    std::uint64_t differences = 0;
    for (std::uint64_t first = 0; first < count && differences < 5; first += kTreesPerBatch) {
      const std::uint64_t end = std::min(first + kTreesPerBatch, count);
      std::optional<TarnTransaction> transaction(std::in_place, manager());
      manager().set("original");
      for (std::uint64_t tree = first; tree < end; ++tree) {
        const std::string path = "original~" + std::to_string(tree);
        const random_tree grown(manager().getNoFail(path.c_str(), "TarnObject"), tree, links);
      }
      const bool isStored = first / kTreesPerBatch % kBatchesPerStored == 0;
      if (isStored) {
        transaction->commit();
        transaction.emplace(manager());
      }
      copy();
      if (isStored) {
        transaction->commit();
        transaction.reset();
        reopen();
      }
      for (std::uint64_t tree = first; tree < end; ++tree) differences += !isSame(tree);
      if (isStored) {
        manager().deleteBranch("original");
        manager().deleteBranch("copy");
      } else {
        transaction->rollback();
      }
    }
    EXPECT_EQ(differences, 0U);
  }

  std::string file() const { return directory().file("branch"); }

 private:
  bool isSame(std::uint64_t tree) {
    const std::string number = std::to_string(tree);
    const branch_picture original(manager().getObject("original~" + number));
    const branch_picture copy(manager().getObject("copy~" + number));
    EXPECT_TRUE(copy == original) << "tree " << number << ":\n" << original.differences(copy);
    return copy == original;
  }
};

TEST_F(RoundTripTest, TheTextFormKeepsEveryTree) {
  const auto text = [&](const char* path) {
    std::string lines;
    PInOut out;
    out.writeTo(lines);
    TarnObject::Write("trees", manager().getObject(path), &out);
    EXPECT_TRUE(out.close());
    return lines;
  };
  compareAll(random_tree::links::any, [&] {
    const std::string lines = text("original");
    std::istringstream in(lines);
    manager().set("copy", manager().importFrom(in));
    EXPECT_TRUE(text("copy") == lines) << "the same trees have the same text";
  });
}

TEST_F(RoundTripTest, TheTextFormWithMinimalLockingKeepsEveryTree) {
  compareAll(random_tree::links::any, [&] {
    std::stringstream lines;
    PInOut out;
    out.writeTo(lines);
    manager().exportMinLockingTo("original", out);
    EXPECT_TRUE(out.close());
    manager().set("copy", manager().importFrom(lines));
  });
}

TEST_F(RoundTripTest, PlacingNodeByNodeKeepsEveryTree) {
  compareAll(random_tree::links::any, [&] {
    std::stringstream lines;
    PInOut out;
    out.writeTo(lines);
    manager().exportTo("original", out);
    EXPECT_TRUE(out.close());
    BranchPlacer(manager(), {.isNodeByNode = true}).place("copy", manager().importFrom(lines));
  });
}

TEST_F(RoundTripTest, JsonKeepsEveryTreeWithoutLinks) {
  compareAll(random_tree::links::none, [&] {
    Output out(file());
    JsonWriter(out).write(manager().getObject("original"));
    out.finish();
    JsonInput in(file());
    JsonImporter(manager(), in, [](std::uint64_t) {}).read("copy");
  });
}

}  // namespace
}  // namespace tarns
