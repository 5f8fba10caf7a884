#include <gtest/gtest.h>
#include <tarns/core/TarnValues.h>

#include <array>
#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "session/path_shortcuts.h"
#include "session/value_ring.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

TEST(PathShortcutsTest, FindsWhatWasRememberedForTheSameNumberOfRelinks) {
  PathShortcuts table(1 << 20);
  const auto key = [&](const std::string& path, std::uint64_t relinks) {
    return table.withRelinks(table.keyOf(path), relinks);
  };
  EXPECT_EQ(table.find(key("a", 0)), 0U);
  for (std::uint64_t i = 1; i <= 1000; ++i) table.remember(key("a~" + std::to_string(i), 3), i);
  table.remember(key("a~7", 3), 70);
  for (std::uint64_t i = 1; i <= 1000; ++i) {
    EXPECT_EQ(table.find(key("a~" + std::to_string(i), 3)), i == 7 ? 70 : i);
    EXPECT_EQ(table.find(key("a~" + std::to_string(i), 4)), 0U);
    EXPECT_EQ(table.find(key("b~" + std::to_string(i), 3)), 0U);
  }
}

TEST(PathShortcutsTest, ForgetsRatherThanGrow) {
  PathShortcuts table(1);  // one bucket
  for (std::uint64_t i = 1; i <= 100; ++i) table.remember(table.keyOf(std::to_string(i)), i);
  int known = 0;
  for (std::uint64_t i = 1; i <= 100; ++i) {
    const std::uint64_t found = table.find(table.keyOf(std::to_string(i)));
    EXPECT_TRUE(found == 0 || found == i);
    known += found == i ? 1 : 0;
  }
  EXPECT_EQ(known, 4);
}

TEST(PathShortcutsTest, ThreadsNeverFindAnotherPathsEntry) {
  PathShortcuts table(256);  // so small that everybody meets in the same places
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> threads;
    threads.reserve(4);
    for (unsigned seed = 0; seed < 4; ++seed) {
      threads.emplace_back([&, seed] {
        std::minstd_rand random(seed);
        for (int i = 0; i < 50'000; ++i) {
          const std::uint64_t id = random() % 50 + 1;
          const auto key = table.withRelinks(table.keyOf(std::to_string(id)), i / 1000);
          const std::uint64_t found = table.find(key);
          if (found != 0 && found != id) ++wrong;
          table.remember(key, id);
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
}

TEST(MappedWordsTest, BringsInMemoryAroundWhatIsUsed) {
  constexpr std::size_t kCount = 100'001;  // ends within a block
  MappedWords words(kCount, MappedWords::Use::kScattered);
  EXPECT_EQ(words.memory(), 0U);
  for (const std::size_t i : {kCount - 1, std::size_t{0}, kCount / 2}) {
    EXPECT_FALSE(words.has(i));
    words.provide(i);
    EXPECT_TRUE(words.has(i));
    EXPECT_EQ(words[i].load(), 0U);
    words[i] = i + 1;
  }
  const std::size_t provided = words.memory();
  EXPECT_LT(provided, kCount * sizeof(std::uint64_t) / 2);
  words.provide(1);
  EXPECT_EQ(words.memory(), provided) << "there already";
  EXPECT_EQ(words[kCount - 1].load(), kCount);
}

constexpr auto kAnything = [](const ValueRing::Origin&) { return true; };

TEST(ValueRingTest, GivesBackEveryTypeBitForBit) {
  ValueRing ring(1 << 20);
  const TarnData values[] = {true,
                             false,
                             -0.0,
                             std::numeric_limits<double>::denorm_min(),
                             -std::numeric_limits<double>::infinity(),
                             std::nextafter(1.0F, 2.0F),
                             std::numeric_limits<std::int8_t>::min(),
                             std::numeric_limits<std::int16_t>::min(),
                             std::numeric_limits<std::int32_t>::min(),
                             std::numeric_limits<std::int64_t>::min(),
                             std::numeric_limits<std::uint8_t>::max(),
                             std::numeric_limits<std::uint16_t>::max(),
                             std::numeric_limits<std::uint32_t>::max(),
                             std::numeric_limits<std::uint64_t>::max(),
                             "",
                             "12345678",
                             std::string(ValueRing::kLongestText, 'x')};
  for (const TarnData& value : values) {
    SCOPED_TRACE(value.getTypeAsString());
    const ValueRing::Origin origin = {0xFFFF'FFFF'FFFF, 1, 0xFFFF, 7};
    TarnData out;
    ValueRing::Origin found;
    ASSERT_TRUE(ring.read(ring.add(origin, &value), found, out, kAnything));
    EXPECT_EQ(out.getType(), value.getType());
    EXPECT_EQ(out.compare(value), 0);
    EXPECT_EQ(std::signbit(out.getDouble()), std::signbit(value.getDouble()));
    EXPECT_EQ(found.node, origin.node);
    EXPECT_EQ(found.nodeCounter, 1);
    EXPECT_EQ(found.textCounter, 0xFFFF);
    EXPECT_EQ(found.changes, 7U);
  }
}

TEST(ValueRingTest, GivesBackWhatATransactionHasToLock) {
  ValueRing ring(1 << 20);
  const TarnData value("a text of some words");
  std::vector<goods::stored_neighbours> groups;
  const auto words = [](const auto& some) {
    std::vector<std::uint64_t> all;
    for (const goods::stored_neighbours& g : some) {
      all.insert(all.end(), {g.storage, g.objects.group, g.objects.members});
    }
    return all;
  };
  for (unsigned i = 0; i <= goods::passed_objects::most; ++i) {
    SCOPED_TRACE(i);
    const ValueRing::Position at = ring.add({.node = 9}, &value, {groups, 0xFFFF'FFFF});
    TarnData out, outside;
    ValueRing::Origin origin;
    std::vector<std::uint64_t> locks;
    const auto isKept = [&](const ValueRing::Locks& found) {
      EXPECT_EQ(found.changes, 0xFFFF'FFFFU);
      locks = words(found.objects);
      return true;
    };
    EXPECT_EQ(ring.readLocking(at, out, isKept), !groups.empty());
    EXPECT_EQ(locks, words(groups));
    EXPECT_STREQ(out.getString(), groups.empty() ? "" : value.getString());
    EXPECT_FALSE(ring.readLocking(at, outside, [](const auto&) { return false; }));
    EXPECT_TRUE(ring.read(at, origin, outside, kAnything));
    EXPECT_EQ(outside.compare(value), 0);
    groups.push_back(
        {static_cast<goods::storage_number>(0xFFFF - i), {0x03FF'FFFF - i, ~std::uint64_t{0} - i}});
  }
  TarnData out;
  EXPECT_FALSE(ring.readLocking(ring.add({.node = 9}, &value, {groups, 1}), out, [](const auto&) {
    return true;
  })) << "too many";
}

TEST(ValueRingTest, LeavesOutWhatIsTooLongOrHoldsNoLonger) {
  ValueRing ring(1 << 20);
  const TarnData longer(std::string(ValueRing::kLongestText + 1, 'x')), kept(5);
  TarnData out("before");
  ValueRing::Origin found;
  EXPECT_FALSE(ring.read(ring.add({.node = 9}, &longer), found, out, kAnything));
  EXPECT_EQ(found.node, 9U);
  EXPECT_FALSE(ring.read(ring.add({.node = 8}, &kept), found, out,
                         [](const ValueRing::Origin&) { return false; }));
  EXPECT_EQ(found.node, 8U);
  EXPECT_STREQ(out.getString(), "before");
}

// Writers go round a small ring many times, while readers look for what may be overwritten.
TEST(ValueRingTest, NeverGivesOutWhatIsOverwritten) {
  ValueRing ring(1);  // as small as can be
  const auto textOf = [](std::uint64_t node) {
    return std::string(node % 900, static_cast<char>('a' + node % 26));
  };
  std::atomic<ValueRing::Position> newest = 0;
  std::atomic<int> wrong = 0;
  const auto isRight = [&] {
    TarnData out;
    ValueRing::Origin found;
    const ValueRing::Position at = newest;
    if (at == 0 || !ring.read(at, found, out, kAnything)) return false;
    if (out != textOf(found.node).c_str()) ++wrong;
    return true;
  };
  {
    std::atomic<int> writers = 2;
    std::vector<std::jthread> threads;
    threads.reserve(4);
    for (unsigned seed = 0; seed < 4; ++seed) {
      threads.emplace_back([&, seed] {
        if (seed % 2 != 0) {
          while (writers > 0) isRight();
          return;
        }
        std::minstd_rand random(seed);
        for (int i = 0; i < 20'000; ++i) {
          const std::uint64_t node = random() % 100'000 + 1;
          const TarnData text(textOf(node));
          if (const auto at = ring.add({.node = node}, &text)) newest = at;
        }
        --writers;
      });
    }
  }
  EXPECT_EQ(wrong, 0);
  const TarnData text(textOf(77));
  newest = ring.add({.node = 77}, &text);
  EXPECT_TRUE(isRight()) << "what was added last is there";
  EXPECT_EQ(wrong, 0);
}

class RememberedValuesTest : public session_test {
 protected:
  // Reads twice: the second time, the value is remembered.
  XString twice(const char* path) {
    XString first = manager().getXString(path, "none");
    EXPECT_STREQ(manager().getXString(path, "none"), first);
    return first;
  }
};

TEST_F(RememberedValuesTest, AreForgottenWithEveryKindOfChange) {
  TarnManager other;
  other.connect(configuration().c_str());
  const std::string longText(ValueRing::kLongestText + 1, 'x');
  const auto node = [&] { return manager().getObject("a~v"); };
  struct Change {
    const char* what;
    std::function<void()> make;
    std::string expected;
  };
  const Change changes[] = {
      {"made", [&] { manager().set("a~v", "one"); }, "one"},
      {"set", [&] { manager().set("a~v", "two"); }, "two"},
      {"set to a long text", [&] { manager().set("a~v", longText.c_str()); }, longText},
      {"set to a short one again", [&] { manager().set("a~v", "three"); }, "three"},
      {"the text itself changed",
       [&] {
         const auto text = goods::checked_cast<goods::String>(
             xcptref<TarnStringValue>(node())->getTarnString().getReference());
         modify(text)->append("!");
       },
       "three!"},
      {"set by another session",
       [&] {
         const TarnAttachment attachment(other);
         other.set("a~v", "four");
       },
       "four"},
      {"rolled back",
       [&] {
         TarnTransaction transaction(manager());
         manager().set("a~v", "never");
         transaction.rollback();
       },
       "four"},
      {"renamed away", [&] { modify(node())->setName("w"); }, "none"},
      {"renamed back", [&] { modify(manager().getObject("a~w"))->setName("v"); }, "four"},
      {"put in the place of another class",
       [&] { manager().set("a~v", TarnSint32Value::Create()); }, "0"},
      {"set in a branch that takes its place",
       [&] {
         manager().set("b~v", 6);
         manager().deleteBranch("a");
         manager().moveBranch("b", "a");
       },
       "6"},
      {"deleted", [&] { manager().deleteBranch("a"); }, "none"},
  };
  for (const Change& change : changes) {
    SCOPED_TRACE(change.what);
    change.make();
    const TarnAttachment attachment(manager());
    EXPECT_STREQ(twice("a~v"), change.expected.c_str());
  }
}

// One thread counts, in either session; nobody ever sees a number go down.
TEST_F(RememberedValuesTest, AreNeverOlderThanWhatWasReadBefore) {
  constexpr int kTimes = 300;
  TarnManager other;
  other.connect(configuration().c_str());
  manager().set("a~number", 0);
  manager().set("a~text", "0");
  std::atomic<int> acknowledged = 0, wrong = 0;
  {
    std::vector<std::jthread> readers;
    readers.reserve(4);
    for (int i = 0; i < 4; ++i) {
      readers.emplace_back([&, i] {
        TarnManager& mine = i % 2 == 0 ? manager() : other;
        const TarnAttachment attachment(mine);
        while (acknowledged < kTimes) {
          const int least = acknowledged;
          const int number = mine.getSint32("a~number");
          const int text = mine.valueAt("a~text")->getSint32();
          if (number < least || text < least) ++wrong;
        }
      });
    }
    for (int i = 1; i <= kTimes; ++i) {
      TarnManager& writer = i % 3 == 0 ? other : manager();
      const TarnAttachment attachment(writer);
      writer.transaction([&] {
        writer.set("a~number", i);
        writer.set("a~text", std::to_string(i).c_str());
      });
      acknowledged = i;
    }
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(RememberedValuesTest, CountTowardTheLimitOfTheCache) {
  constexpr std::size_t kLimit = std::size_t{2} << 20;
  manager().setCacheLimit(kLimit);
  manager().transaction([&] {
    for (int i = 0; i < 20'000; ++i) {
      manager().set(("many~" + std::to_string(i)).c_str(), std::string(100, 'x').c_str());
    }
  });
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 20'000; ++i) {
      ASSERT_EQ(manager().valueAt("many~" + std::to_string(i))->getText().size(), 100U);
    }
  }
  EXPECT_LT(goods::cache_manager::require().cached_bytes(), kLimit + kLimit / 4);
}

// A path that one thread remembers is given to other values by another.
TEST_F(RememberedValuesTest, NeverBelongToWhereThePathNoLongerLeads) {
  // Two values change places, by moving, again and again: 1 is at "a~x" when 2 is at "b~x".
  manager().set("a~x", 1);
  manager().set("b~x", 2);
  std::atomic<bool> isDone = false;
  std::atomic<int> wrong = 0, reads = 0;
  TarnManager& m = manager();
  {
    std::vector<std::jthread> readers;
    readers.reserve(2);
    for (int i = 0; i < 2; ++i) {
      readers.emplace_back([&] {
        const TarnAttachment attachment(m);
        while (!isDone || reads == 0) {
          const int value = m.getSint32("a~x", 0);
          if (value != 1 && value != 2) ++wrong;
          ++reads;
        }
      });
    }
    for (int i = 0; i < 200; ++i) {
      m.transaction([&] {
        m.moveBranch("a", "c");
        m.moveBranch("b", "a");
        m.moveBranch("c", "b");
      });
      // What this thread has committed it sees at once.
      EXPECT_EQ(m.getSint32("a~x"), i % 2 == 0 ? 2 : 1);
      EXPECT_EQ(m.getSint32("b~x"), i % 2 == 0 ? 1 : 2);
    }
    isDone = true;
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace tarns
