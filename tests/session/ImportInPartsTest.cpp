// Texts that are stored part by part while they are read.
#include <gmock/gmock.h>
#include <goods/cache_manager.h>
#include <gtest/gtest.h>
#include <tarns/core/TarnException.h>
#include <tarns/util/PInOut.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "examples/Machine.h"
#include "session/NumberedBranch.h"
#include "support/branch_picture.h"
#include "support/captured_log.h"
#include "support/damage.h"
#include "support/faulty_vfs.h"
#include "support/killed_process.h"
#include "support/random_tree.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

constexpr std::size_t kPartSizes[] = {1, 2, 3, 7, 1000};

std::string Export(const TarnRef& node) {
  std::string text;
  PInOut out;
  out.writeTo(text);
  TarnObject::Write("top", node, &out);
  EXPECT_TRUE(out.close());
  return text;
}

// Gives a text piece by piece, and calls `between` before each piece.
PInOut::Source InPieces(const std::string& text, std::size_t size,
                        std::function<void(std::size_t at)> between) {
  return [&text, size, between = std::move(between), at = std::size_t{0}](
             char* into, std::size_t room) mutable {
    between(at);
    const std::size_t count = text.copy(into, std::min(size, room), at);
    at += count;
    return count;
  };
}

class ImportInPartsTest : public session_test {
 protected:
  explicit ImportInPartsTest(scratch_directory::place where = scratch_directory::place::in_memory)
      : session_test(1, "", where) {}

  TarnRef importFrom(const std::string& text) {
    std::istringstream in(text);
    return manager().importFrom(in);
  }
  TarnRef importTo(const char* path, const std::string& text, std::size_t partSize) {
    std::istringstream stream(text);
    PInOut in;
    in.readFrom(stream);
    return manager().importTo(path, in, nullptr, partSize);
  }
  // Imports the text in parts of all sizes, and expects what importFrom() makes of it.
  void expectSame(const std::string& text) {
    manager().set("expected", importFrom(text));
    const branch_picture expected(manager().getObject("expected"));
    for (const std::size_t size : kPartSizes) {
      SCOPED_TRACE(testing::Message() << "parts of " << size << " nodes of\n" << text);
      importTo("copy", text, size);
      goods::cache_manager::require().set_cache_limit(1 << 20);  // drops what it can
      const branch_picture made(manager().getObject("copy"));
      ASSERT_TRUE(made == expected) << expected.differences(made);
    }
  }
};

TEST_F(ImportInPartsTest, MakesWhatAnImportInOnePieceMakes) {
  constexpr std::uint64_t kTrees = 300;
  for (std::uint64_t tree = 0; tree < kTrees && !HasFailure(); ++tree) {
    SCOPED_TRACE(testing::Message() << "tree " << tree);
    std::string text;
    {
      TarnTransaction transaction(manager());
      const random_tree grown(manager().getNoFail("original", "TarnObject"), tree,
                              random_tree::links::any);
      text = Export(manager().getObject("original"));
      transaction.commit();  // circles of nodes that are not stored are never freed
    }
    manager().deleteBranch("original");
    expectSame(text);
  }
  EXPECT_EQ(damage_of(manager()), "");
  manager().deleteBranch("copy");
  manager().deleteBranch("expected");
  reopen();
  EXPECT_EQ(objects_after_collection(manager()), 2U) << "the root and its list of children";
}

TEST_F(ImportInPartsTest, ReadsWhatEditorsAndOtherProgramsWrite) {
  const char* const texts[] = {
      // Names that come late, for nodes whose parents are stored and for stored nodes.
      "TarnObject a\n  Children {\n    TarnObject b\n      Children {\n        TarnObject c\n"
      "        TarnObject d\n      }\n      Name e\n    TarnSint32Value f\n      Value 1\n"
      "      Name g\n  }\n  Name h\n",
      // Lists in several pieces, values and members behind them.
      "TarnSint32Value a\n  Children {\n    TarnObject b\n    TarnObject d\n  }\n  Value 5\n"
      "  Children {\n    TarnObject c\n  }\n  Children {\n  }\n  Value 6\n",
      "Machine a\n  Children {\n    Machine b\n      Feeder\n        Machine Feeder\n          "
      "Speed 1\n    Machine c\n      Feeder\n        Machine Feeder\n          = b~~.Feeder\n  }\n"
      "  Speed 2\n  Feeder\n    Machine Feeder\n      Feeder\n        Machine Feeder\n"
      "          = b\n      Speed 7\n  Loads_1 3\n  Feeder NULL\n  Feeder\n    Machine Feeder\n"
      "      Children {\n        Machine d\n          == c~~.Feeder\n        Machine e\n"
      "          = ~.Feeder~d\n      }\n  On True\n",
      // Children of one name in several parts, and places among them.
      "TarnObject a\n  Children {\n    TarnObject x\n    TarnObject x\n    TarnObject x\n"
      "      Children {\n        TarnObject y\n          = x~~2\n      }\n    TarnObject x\n"
      "      = x~~3~y\n    TarnObject x\n      = x~~4\n    TarnObject z\n      = x~~3\n  }\n",
      // What is not known.
      "TarnObject a\n  Children {\n    Nobody b\n      Value 1\n    Machine c\n      Other 1\n"
      "      Speed 1\n    Machine d\n      Feeder\n        Nobody Feeder\n      Speed 1\n  }\n"
      "  Other 1\n  Children {\n    TarnObject e\n  }\n",
  };
  captured_log log;
  for (const char* text : texts) expectSame(text);
  EXPECT_TRUE(importTo("copy", "Nobody a\n  Value 1\n", 1).is_null());
  EXPECT_FALSE(manager().getObject("copy").is_null());
}

TEST_F(ImportInPartsTest, FollowsLongChains) {
  constexpr int kLength = 5'000;
  xcptref<Machine> first;
  TarnRef top = TarnObject::Create();
  for (int i = 0; i < kLength; ++i) {
    const auto machine = Machine::Create();
    modify(machine)->setSpeed(i);
    modify(machine)->setFeeder(first);
    first = machine;
    const TarnRef above = TarnObject::Create();
    modify(above)->addChild("x", top);
    modify(above)->setValue("number", i);
    top = above;
  }
  for (const TarnRef& chain : {TarnRef(first), top}) {
    const std::string text = Export(chain);
    importTo("copy", text, 100);
    EXPECT_TRUE(Export(manager().getObject("copy")) == text);
  }
}

// Wherever the text is wrong, the error is the one of an import in one piece, and nothing shows.
TEST_F(ImportInPartsTest, ChangesNothingWhenALineIsWrong) {
  manager().set("place~old", 1);
  std::string text = "TarnObject top\n  Children {\n";
  for (int i = 0; i < 4; ++i) {
    text += "    Machine m" + std::to_string(i) + "\n      Feeder\n        Machine Feeder\n";
    text += i == 0 ? "          Speed 1\n" : "          = m0\n";
    text += "      Children {\n        TarnSint32Value v\n          Value 1\n      }\n";
  }
  text += "  }\n";
  const std::uint64_t objects = objects_after_collection(manager());
  std::size_t begin = 0;
  for (int line = 1; begin != text.size(); ++line) {
    for (const std::string wrong : {"   x\n", "(1000) x\n", "  Speed x\n", ""}) {
      const std::string damaged = text.substr(0, begin) + wrong;
      std::string expected;
      try {
        captured_log log;
        importFrom(damaged);
      } catch (const TarnException& error) {
        expected = error.what();
      }
      for (const std::size_t size : {std::size_t{1}, std::size_t{3}}) {
        SCOPED_TRACE(testing::Message() << "parts of " << size << " of\n" << damaged);
        captured_log log;
        if (expected.empty()) continue;
        EXPECT_THAT([&] { importTo("place", damaged, size); },
                    testing::Throws<XException>(
                        testing::Property(&XException::what, testing::StrEq(expected))));
        ASSERT_EQ(picture(), "place{old=1}");
      }
    }
    begin = text.find('\n', begin) + 1;
  }
  EXPECT_EQ(objects_after_collection(manager()), objects);
  EXPECT_THAT([&] { importTo("", text, 1); }, ThrowsTarn(0, HasSubstr("root")));
  EXPECT_THAT([&] { importTo("a~~b", text, 1); }, ThrowsTarn(0, HasSubstr("no child name")));
}

TEST_F(ImportInPartsTest, ChangesNothingWhenTheSourceFails) {
  const NumberedBranch branch(100);
  branch.import(manager(), 1);
  const std::uint64_t objects = objects_after_collection(manager());
  const std::string text = Export(manager().getObject(NumberedBranch::kPath));
  for (std::size_t end = 0; end < text.size(); end += text.size() / 5) {
    PInOut in;
    EXPECT_THROW(
        {
          in.readFrom(InPieces(text, 500, [end](std::size_t at) {
            if (at >= end) throw std::runtime_error("interrupted");
          }));
          manager().importTo("other", in, nullptr, 50);
        },
        std::runtime_error);
    EXPECT_TRUE(manager().getObject("other").is_null());
  }
  EXPECT_EQ(objects_after_collection(manager()), objects);
}

// In a session that may hold little the same text cannot be imported in one transaction.
TEST_F(ImportInPartsTest, TakesLittleMemory) {
  constexpr std::size_t kMostBytes = 3 << 20;
  std::string text = "TarnObject top\n  Children {\n";
  for (int i = 0; i < 40'000; ++i) {
    text += "    TarnSint32Value " + std::to_string(i) + "\n      Value 1\n";
  }
  text += "  }\n";
  goods::cache_manager::require().set_transaction_limit(kMostBytes);
  {
    TarnTransaction transaction(manager());
    EXPECT_THAT([&] { importTo("a", text, 1000); }, ThrowsTarn(103, HasSubstr("3 MiB")));
    transaction.rollback();
  }
  EXPECT_TRUE(manager().getObject("a").is_null());
  importTo("a", text, 1000);
  EXPECT_EQ(manager().getNumChildren("a"), 40'000U);
}

TEST_F(ImportInPartsTest, IsOneCommitForASmallTextAndPartOfAnOpenTransaction) {
  const auto version = [&] { return goods::cache_manager::require().version(); };
  const std::string text =
      "TarnObject a\n  Children {\n    TarnObject b\n    TarnObject c\n    TarnObject d\n  }\n";
  importTo("first", text, 1);  // the classes are stored as well
  const auto before = version();
  importTo("whole", text, 5);
  EXPECT_EQ(version(), before + 1);
  importTo("parts", text, 1);
  EXPECT_GT(version(), before + 3);
  const auto between = version();
  {
    TarnTransaction transaction(manager());
    manager().set("mine", 1);
    importTo("undone", text, 1);
    EXPECT_EQ(manager().getNumChildren("undone"), 3U);
    EXPECT_EQ(version(), between);
    transaction.rollback();
  }
  EXPECT_FALSE(manager().valueAt("mine").has_value());
  EXPECT_TRUE(manager().getObject("undone").is_null());
  {
    TarnTransaction transaction(manager());
    importTo("whole", text, 1);
    importTo("done", text, 1);
    transaction.commit();
  }
  EXPECT_EQ(version(), between + 1);
  EXPECT_EQ(manager().getNumChildren("done"), 3U);
}

TEST_F(ImportInPartsTest, PutsTheBranchInThePlaceOfAnother) {
  const NumberedBranch branch(50);
  branch.import(manager(), 1);
  branch.import(manager(), 2);
  EXPECT_EQ(branch.numberOf(manager()), 2);
  const TarnRef there = manager().getObject(NumberedBranch::kPath);
  EXPECT_EQ(there->getParent(), manager().getObject("imported"));
  EXPECT_EQ(there->getName(), "branch");
}

// A collection comes at every point of the import, and at each one the import may be given up.
TEST_F(ImportInPartsTest, KeepsWhatIsStoredFromBeingCollected) {
  const NumberedBranch branch(60);
  branch.import(manager(), 1);
  const TarnRef original = manager().getObject(NumberedBranch::kPath);
  const std::string text = Export(original);
  const branch_picture expected(original);
  int collections = 0;
  PInOut in;
  in.readFrom(InPieces(text, 1000, [&](std::size_t) {
    EXPECT_TRUE(manager().startGarbageCollection());
    ++collections;
  }));
  manager().importTo("copy", in, nullptr, 10);
  EXPECT_GT(collections, 10);
  const branch_picture made(manager().getObject("copy"));
  EXPECT_TRUE(made == expected) << expected.differences(made);
  EXPECT_EQ(damage_of(manager()), "");
}

TEST_F(ImportInPartsTest, GoesOnBesideCollectionsAndOtherImports) {
  constexpr int kImports = 15;
  const NumberedBranch branch(120);
  std::atomic<int> running = 2;
  const auto import = [&] {
    const TarnAttachment attachment(manager());
    for (int number = 1; number <= kImports; ++number) branch.import(manager(), number);
    --running;
  };
  std::thread first(import), second(import);
  std::thread collector([&] {
    const TarnAttachment attachment(manager());
    while (running > 0) manager().startGarbageCollection();
  });
  while (running > 0) EXPECT_GE(branch.numberOf(manager()), 0);
  first.join();
  second.join();
  collector.join();
  EXPECT_EQ(branch.numberOf(manager()), kImports);
  EXPECT_EQ(damage_of(manager()), "");
  manager().deleteBranch("imported");
  EXPECT_EQ(objects_after_collection(manager()), 2U);
}

class ImportOnDiskTest : public testing::Test {
 protected:
  faulty_vfs disk_;
};

TEST_F(ImportOnDiskTest, ChangesNothingWhenTheDiskFails) {
  const scratch_directory directory;
  const std::string configuration = directory.file("tarns.conf");
  std::ofstream(configuration) << "1\n0: file:./data?log=64K\n";
  const NumberedBranch branch(60);
  TarnManager::Initialize();
  const auto inSession = [&](const auto& work) {
    TarnManager manager;
    manager.connect(configuration.c_str());
    const TarnAttachment attachment(manager);
    work(manager);
  };
  inSession([&](TarnManager& manager) { branch.import(manager, 1); });
  int failures = 0;
  for (std::uint64_t after = 0;; after += 1 + after / 4) {
    SCOPED_TRACE(testing::Message() << "after " << after << " writes");
    bool isDone = false;
    inSession([&](TarnManager& manager) {
      disk_.arm(
          {faulty_vfs::bit(faulty_vfs::operation::write), after, faulty_vfs::fault::full, false});
      try {
        branch.import(manager, 2);
        isDone = true;
      } catch (const TarnException& error) {
        ++failures;
        EXPECT_THAT(error.getErrorID(), testing::AnyOf(102, 103, 106)) << error.getError();
      }
      isDone = isDone && !disk_.has_failed();
      disk_.disarm();
    });
    inSession(
        [&](TarnManager& manager) { EXPECT_THAT(branch.numberOf(manager), testing::AnyOf(1, 2)); });
    if (isDone) break;
  }
  EXPECT_GE(failures, 5);
}

class ImportKillTest : public ImportInPartsTest {};

TEST_F(ImportKillTest, ABranchIsWholeAndACollectionRemovesWhatIsLeftOfTheNextOne) {
  constexpr int kKills = 30, kGroups = 150;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  const NumberedBranch branch(kGroups);
  branch.import(manager(), 1);
  const std::uint64_t objects = objects_after_collection(manager());
  int number = 1;
  for (int i = 0; i < kKills && !HasFailure(); ++i) {
    close();
    {
      killed_process program({PROGRAM_IMPORT_WRITER, configuration(), std::to_string(kGroups)});
      ASSERT_EQ(program.next_line(std::chrono::seconds(60)), "0");
      const auto lines = program.kill_after(std::chrono::microseconds(random() % 50'000));
      if (!lines.empty()) number = std::stoi(lines.back());
    }
    open();
    EXPECT_THAT(branch.numberOf(manager()), testing::AnyOf(number, number + 1));
    number = branch.numberOf(manager());
    EXPECT_EQ(damage_of(manager()), "");
    if (i % 3 == 0) {
      EXPECT_EQ(objects_after_collection(manager()), objects);
    }
  }
}

}  // namespace
}  // namespace tarns
