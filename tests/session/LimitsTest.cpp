// Names, values and depths at the ends of what is allowed.
#include <gmock/gmock.h>
#include <goods/task.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnValue.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <string>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class LimitsTest : public session_test {};

TEST_F(LimitsTest, NamesOfAnyBytesAndLengths) {
  std::vector<std::string> names;
  for (const std::size_t length : {1U, 2U, 255U, 256U, 4096U, 65'534U, 65'535U}) {
    names.emplace_back(length, static_cast<char>('a' + length % 26));
  }
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '~') names.push_back(std::string("b") + static_cast<char>(byte));
  }
  names.push_back(std::string(65'535, '\xFF'));
  manager().transaction([&] {
    for (const std::string& name : names) manager().set("n~" + name, name.size());
  });
  reopen();
  EXPECT_EQ(manager().getNumChildren("n"), names.size());
  for (const std::string& name : names) {
    EXPECT_EQ(manager().getUint64("n~" + name, 0), name.size()) << name.substr(0, 20);
  }
  EXPECT_THROW(manager().set("n~" + std::string(65'536, 'x'), 1), TarnException);
  EXPECT_EQ(manager().getNumChildren("n"), names.size());
}

TEST_F(LimitsTest, TextsFromNothingTo64MiB) {
  std::vector<std::size_t> sizes{0, 1, 1023, 1024, 65'536, 1 << 20, 64 << 20};
  const auto text = [](std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(1 + (i * 31 + size) % 255);
    return bytes;
  };
  for (const std::size_t size : sizes) manager().set("t~" + std::to_string(size), text(size));
  reopen();
  for (const std::size_t size : sizes) {
    const auto read = manager().valueAt("t~" + std::to_string(size));
    ASSERT_TRUE(read.has_value()) << size;
    EXPECT_TRUE(read->getText() == text(size)) << size;
  }
  manager().set("t~67108864", "short");
  EXPECT_STREQ(manager().getXString("t~67108864"), "short");
}

// What the task is given, and how it went.
struct DeepWork {
  TarnManager& manager;
  const std::string& path;
  std::exception_ptr failure;
};

TEST_F(LimitsTest, AChainOfManyLevelsOnASmallStack) {
  constexpr int kLevels = 100'000;
  std::string path = "d";
  for (int i = 1; i < kLevels; ++i) path += "~d";
  DeepWork work{manager(), path, nullptr};
  goods::task task = goods::task::create(
      [](void* argument) {
        auto& [m, deep, failure] = *static_cast<DeepWork*>(argument);
        try {
          const TarnAttachment attachment(m);
          m.set(deep + "~value", 42);
          EXPECT_EQ(m.getSint32(deep + "~value", 0), 42);
          EXPECT_EQ(std::ranges::distance(TarnBranchWalk(m.getRoot())), kLevels + 1);
          m.copyBranch("d", "copy");
          EXPECT_EQ(m.getSint32("copy" + deep.substr(1) + "~value", 0), 42);
          EXPECT_TRUE(m.deleteBranch("d"));
          EXPECT_EQ(m.getSint32(deep + "~value", 0), 0);
          m.mergeBranch("copy", "merged", true);
          m.moveBranch("merged", "moved");
        } catch (...) {
          failure = std::current_exception();
        }
      },
      &work, goods::task::priority::normal, goods::task::normal_stack);
  task.join();
  if (work.failure) std::rethrow_exception(work.failure);
  reopen();
  EXPECT_EQ(manager().getSint32("moved" + path.substr(1) + "~value", 0), 42);
}

// Whatever takes the memory, the transaction ends with an error that says so; nothing of it is
// kept, its memory is given back, and the session goes on.
TEST_F(LimitsTest, ATransactionThatTakesTooMuchMemory) {
  constexpr std::size_t kLimit = std::size_t{4} << 20;
  manager().setTransactionLimit(kLimit);
  for (int i = 0; i < 100; ++i) manager().set("there~" + std::to_string(i), std::to_string(i));
  const std::string large(kLimit / 16, 'x');
  const std::string before = picture();
  struct Case {
    const char* what;
    std::function<void(TarnManager&, int)> step;
  };
  const Case cases[] = {
      {"new values", [](auto& m, int i) { m.set("new~" + std::to_string(i), i); }},
      {"new nodes at once",
       [](auto& m, int) {
         const TarnRef node = TarnObject::Create();
         for (int k = 0; k < 100; ++k) {
           modify(node)->addChild(std::to_string(k).c_str(), TarnValue::CreateValue(TarnData(k)));
         }
         m.addUnique("new", node);
       }},
      {"large texts", [&](auto& m, int i) { m.set("text~" + std::to_string(i), large); }},
      {"large texts in place of others",
       [&](auto& m, int i) { m.set("there~" + std::to_string(i % 100), large); }},
      {"a text that grows",
       [&](auto& m, int i) {
         m.set("there~7", std::string(static_cast<std::size_t>(i) * (kLimit / 16), 'x'));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto isRefused = ThrowsTarn(103, HasSubstr("more than the 4 MiB of memory"));
    for (int round = 0; round < 2; ++round) {
      TarnTransaction transaction(manager());
      EXPECT_THAT(
          [&] {
            for (int i = 0; i < 100'000; ++i) c.step(manager(), i);
            transaction.commit();
          },
          isRefused);
      EXPECT_THAT([&] { manager().set("there~0", 1); }, isRefused);
      EXPECT_THAT([&] { transaction.commit(); }, isRefused);
    }
    EXPECT_EQ(picture(), before);
    manager().transaction([&] {  // less is possible, again and again
      for (int i = 0; i < 100; ++i) manager().set("there~" + std::to_string(i), std::to_string(i));
    });
  }
  EXPECT_THAT([&] { manager().set("there~7", std::string(2 * kLimit, 'x')); },
              ThrowsTarn(103, HasSubstr("more than the 4 MiB")))
      << "a call by itself";
  EXPECT_EQ(picture(), before);
  manager().setTransactionLimit(4 * kLimit);
  manager().set("there~7", std::string(2 * kLimit, 'x'));
  EXPECT_EQ(manager().valueAt("there~7")->getText().size(), 2 * kLimit);
}

}  // namespace
}  // namespace tarns
