// Connecting, attaching and what a session tells of its storages.
#include <gmock/gmock.h>
#include <tarns/session/StorageID2ipMap.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <thread>

#include "support/killed_process.h"
#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class ManagerConnectionTest : public session_test {};

class TwoStoragesTest : public session_test {
 protected:
  TwoStoragesTest() : session_test(2) {}
};

// Sets the number of attempts back.
class Attempts {
 public:
  explicit Attempts(unsigned long count) { TarnManager::SetNumConnectAttempts(count); }
  ~Attempts() { TarnManager::SetNumConnectAttempts(1); }
};

TEST_F(ManagerConnectionTest, ADisconnectedSessionSaysSo) {
  TarnManager fresh;
  const auto failure = ThrowsTarn(4, HasSubstr("not connected to the database server"));
  EXPECT_THAT([&] { fresh.verifyIsInitialized(); }, failure);
  EXPECT_THAT([&] { fresh.getRoot(); }, failure);
  EXPECT_THAT([&] { fresh.getSint32("a", 0); }, failure);
  EXPECT_THAT([&] { fresh.set("a", 1); }, failure);
  EXPECT_THAT([&] { fresh.getObject(std::uint64_t{65536}); }, failure);
  EXPECT_THAT([&] { TarnAttachment attachment(fresh); }, failure);
  EXPECT_THAT([&] { fresh.attach(); }, failure);
  EXPECT_THAT([&] { fresh.getNumStorages(); }, failure);
  EXPECT_THAT([&] { fresh.getLeastUsedStorage(); }, failure);
  EXPECT_THAT([&] { fresh.getStorageUsage(0); }, failure);
  EXPECT_THAT([&] { fresh.getNumBytesFromDatabase(); }, failure);
  EXPECT_THAT([&] { fresh.clearNumBytesFromStorage(0); }, failure);
  EXPECT_THAT([&] { fresh.startGarbageCollection(); }, failure);
  EXPECT_THAT([&] { fresh.attachToStorage(TarnObject::Create(), 0); }, failure);
  EXPECT_EQ(fresh.getDBconfigFilePath(), nullptr);
  EXPECT_EQ(manager().getDBconfigFilePath(), configuration());
}

TEST_F(ManagerConnectionTest, WithNoAttemptsConnectThrowsAtOnce) {
  const Attempts none(0);
  TarnManager fresh;
  EXPECT_THAT([&] { fresh.connect("/nowhere/at/all"); },
              ThrowsTarn(5, "Unable to connect to database server."));
  EXPECT_THAT([&] { fresh.getRoot(); }, ThrowsTarn(4, testing::_));
}

TEST_F(ManagerConnectionTest, BadConfigurationsAreErrorsAtOnce) {
  TarnManager fresh;
  EXPECT_THAT([&] { fresh.connect(directory().file("none").c_str()); },
              ThrowsTarn(111, HasSubstr("none")));
  std::ofstream(directory().file("bad")) << "1\n0: gopher:x\n";
  EXPECT_THROW(fresh.connect(directory().file("bad").c_str(), 1s), TarnException);
  for (const auto& attempt : {+[](TarnManager& m) { m.connect(nullptr); },
                              +[](TarnManager& m) { m.connect(nullptr, 1s); }}) {
    EXPECT_THROW(attempt(fresh), TarnException);
    EXPECT_THAT([&] { fresh.getNumStorages(); }, ThrowsTarn(4, testing::_));
  }
  fresh.connect(configuration().c_str(), true, "no such folder of libraries");
  EXPECT_EQ(fresh.getNumStorages(), 1U);
}

TEST_F(ManagerConnectionTest, AThreadThatIsNotAttachedGetsAnError) {
  manager().set("a", 1);
  const TarnRef node = manager().getObject("a");
  TarnManager& m = manager();
  std::thread([&] {
    const auto failure = ThrowsTarn(110, HasSubstr("attach"));
    EXPECT_THAT([&] { m.getRoot(); }, failure);
    EXPECT_THAT([&] { m.getSint32("a", 0); }, failure);
    EXPECT_THAT([&] { m.valueAt("a"); }, failure);
    EXPECT_THAT([&] { m.set("a", 2); }, failure);
    EXPECT_THAT([&] { m.deleteBranch("a"); }, failure);
    EXPECT_THAT([&] { m.getObject("a"); }, failure);
    EXPECT_THAT([&] { m.getObject(std::uint64_t{65536}); }, failure);
    EXPECT_THAT([&] { node->getNumChildren(); }, failure);
    EXPECT_THAT([&] { modify(node)->setValue("", 3); }, failure);
    EXPECT_THAT([&] { TarnTransaction transaction; }, failure);
    {
      const TarnAttachment attachment(m);
      const TarnAttachment again(m);
      EXPECT_EQ(m.getSint32("a"), 1);
    }
    EXPECT_THAT([&] { m.getSint32("a"); }, failure);
  }).join();
  EXPECT_EQ(manager().getSint32("a"), 1);
}

TEST_F(ManagerConnectionTest, AThreadWorksInTheSessionItAttachedToLast) {
  TarnManager other;
  other.connect(configuration().c_str());
  manager().set("a", 1);
  other.attach();
  EXPECT_EQ(other.getSint32("a"), 1);
  EXPECT_THAT([&] { manager().getSint32("a"); }, ThrowsTarn(110, testing::_));
  manager().attach();
  EXPECT_EQ(manager().getSint32("a"), 1);
}

TEST_F(ManagerConnectionTest, AnAttachmentGoesBackToTheSessionBefore) {
  TarnManager other;
  other.connect(configuration().c_str());
  manager().set("a", 1);
  {
    const TarnAttachment there(other);
    other.set("a", 2);
    {
      const TarnAttachment here(manager());
      EXPECT_EQ(manager().getSint32("a"), 2);
    }
    EXPECT_EQ(other.getSint32("a"), 2);
  }
  EXPECT_EQ(manager().getSint32("a"), 2);
  // What somebody has attached meanwhile stays attached.
  {
    const TarnAttachment there(other);
    manager().attach();
  }
  EXPECT_EQ(manager().getSint32("a"), 2);
}

TEST_F(ManagerConnectionTest, NoGuardLeavesASessionWithAnOpenTransaction) {
  TarnManager other;
  other.connect(configuration().c_str());
  manager().set("a", 1);
  {
    TarnTransaction transaction(manager());
    manager().set("a", 2);
    const auto failure = ThrowsTarn(111, HasSubstr("transaction open"));
    EXPECT_THAT([&] { TarnAttachment there(other); }, failure);
    EXPECT_THAT([&] { TarnTransaction there(other); }, failure);
    const TarnAttachment here(manager());
    EXPECT_EQ(manager().getSint32("a"), 2);
    transaction.commit();
  }
  const TarnAttachment there(other);
  EXPECT_EQ(other.getSint32("a"), 2);
}

TEST_F(ManagerConnectionTest, FreshRootsAreMadeOnceAlsoInsideOfTransactions) {
  TarnManager other;
  other.connect(configuration().c_str());
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> threads;
    for (TarnManager* m : {&manager(), &other, &manager(), &other}) {
      threads.emplace_back([m, &wrong] {
        const TarnAttachment attachment(*m);
        if (TarnObject::GetObjectID(m->getRoot()) != 65536) ++wrong;
      });
    }
  }
  EXPECT_EQ(wrong, 0);
  scratch_directory second;
  std::ofstream(second.file("c")) << "1\n0: file:d\n";
  TarnManager fresh;
  fresh.connect(second.file("c").c_str());
  {
    TarnTransaction transaction(fresh);
    fresh.set("a", 1);
    fresh.set("b", 2);
    transaction.rollback();
  }
  EXPECT_EQ(fresh.getNumChildren(""), 0U);
  manager().attach();
}

TEST_F(ManagerConnectionTest, ConnectWaitsUntilTheDatabaseIsFreeOrAttemptsEnd) {
  close();
  killed_process holder({PROGRAM_SESSION_WRITER, configuration(), "work"});
  ASSERT_FALSE(holder.next_line(20s).empty());
  const auto connecting = [this](auto... limit) {
    return std::async(std::launch::async, [this, limit...] {
      auto m = std::make_unique<TarnManager>();
      m->connect(configuration().c_str(), limit...);
      return m;
    });
  };
  {
    auto waiting = connecting();
    EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    const Attempts none(0);
    EXPECT_THAT([&] { waiting.get(); }, ThrowsTarn(5, "Unable to connect to database server."));
  }
  EXPECT_THAT([&] { connecting(std::chrono::milliseconds::min()).get(); },
              ThrowsTarn(105, testing::_));
  auto waiting = connecting(std::chrono::milliseconds::max());
  EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
  holder.kill_after(0us);
  const auto m = waiting.get();
  const TarnAttachment attachment(*m);
  EXPECT_GT(m->getNumChildren("last"), 0U);
}

TEST_F(ManagerConnectionTest, ConnectingAnewLeavesTheDatabaseBefore) {
  const scratch_directory second;
  std::ofstream(second.file("c")) << "1\n0: file:d\n";
  manager().set("a", 1);
  manager().detach();
  manager().connect(second.file("c").c_str());
  manager().attach();
  EXPECT_EQ(manager().getNumChildren(""), 0U);
  manager().set("b", 2);
  EXPECT_EQ(manager().getDBconfigFilePath(), second.file("c"));
  manager().detach();
  manager().connect(configuration().c_str());
  manager().attach();
  EXPECT_EQ(picture(), "a=1");
}

TEST_F(ManagerConnectionTest, TheCacheKeepsToItsLimit) {
  constexpr std::size_t kLimit = 4 << 20;
  manager().transaction([&] {
    for (int i = 0; i < 40; ++i) manager().set("a~" + std::to_string(i), std::string(500'000, 'x'));
  });
  reopen();
  manager().setCacheLimit(kLimit);
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 40; ++i) {
      ASSERT_EQ(manager().getXString("a~" + std::to_string(i)).getLength(), 500'000U);
    }
  }
  EXPECT_LT(manager().db().getCacheManager().cached_bytes(), 2 * kLimit);
  EXPECT_EQ(manager().db().getCacheManager().cache_limit(), kLimit);
  manager().supportDependencies(true);
  EXPECT_TRUE(manager().supportsDependencies());
}

TEST_F(TwoStoragesTest, PlacesAndMeasuresByStorage) {
  EXPECT_EQ(manager().getNumStorages(), 2U);
  EXPECT_LT(manager().getLeastUsedStorage(), 2U);
  const TarnRef node = TarnObject::Create();
  manager().attachToStorage(node, 1);
  manager().set("there", node);
  EXPECT_EQ(manager().getObjectID("there") >> 32, 1U);
  EXPECT_EQ(manager().getObject(manager().getObjectID("there")), manager().getObject("there"));
  const TarnRef other = TarnObject::Create();
  manager().attachToLeastUsedStorage(other);
  const unsigned long least = manager().getLeastUsedStorage();
  manager().set("other", other);
  EXPECT_EQ(manager().getObjectID("other") >> 32, least);
  EXPECT_EQ(manager().getStorageUsage(0x10001), manager().getStorageUsage(1));
  EXPECT_GT(manager().getNumBytesToStorage(1), 0U);
  manager().clearNumBytesFromStorage(1);
  EXPECT_EQ(manager().getNumBytesToStorage(1), 0U);
  EXPECT_GT(manager().getNumBytesToDatabase(), 0U);
  manager().clearNumBytesFromDatabase();
  EXPECT_EQ(manager().getNumBytesToDatabase(), 0U);
  reopen();
  EXPECT_FALSE(manager().getObject("there").is_null());
  EXPECT_EQ(manager().getObject("there")->getNumChildren(), 0U);
  EXPECT_GT(manager().getNumBytesFromStorage(1), 0U);
  EXPECT_EQ(manager().getNumBytesFromDatabase(),
            manager().getNumBytesFromStorage(0) + manager().getNumBytesFromStorage(1));
}

TEST(StorageID2ipMapTest, ReadsConfigurationFiles) {
  struct Case {
    const char* text;
    std::map<unsigned long, std::string> expected;
    const char* error;  // null for none; FILE stands for the file's path
  };
  const char* const kMismatch =
      "Error detected in database configuration file \"FILE\": the first line of the file doesn't "
      "match the number of listed storages.";
  const Case cases[] = {
      {"", {}, nullptr},
      {"0\n", {}, nullptr},
      {"1\n0: host:100\n", {{0, "host:100"}}, nullptr},
      {"1\n3:host:100", {{3, "host:100"}}, nullptr},
      {"1\r\n0:  a:1 \r\n", {{0, "a:1"}}, nullptr},
      {"1\n0: a:1\n1: b:2\n", {{0, "a:1"}}, nullptr},
      {"2\n0: a:1\n0: b:2\n", {{0, "b:2"}}, nullptr},
      {"2\n0: a:1\n", {{0, "a:1"}}, kMismatch},
      {"-1\n0: a:1\n", {{0, "a:1"}}, kMismatch},
      {"1\n3: host\n", {}, "Invalid storage entry \"3: host\"."},
      {"1\n3: a:b:c\n", {}, "Invalid storage entry \"3: a:b:c\"."},
  };
  const scratch_directory directory;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string path = directory.file("c");
    std::ofstream(path) << c.text;
    const auto listed = [](const StorageID2ipMap& map) {
      std::map<unsigned long, std::string> found;
      XMapIter place;
      unsigned long id = 0;
      XString address;
      while (map.getNextAssoc(place, id, address)) found[id] = address.view();
      return found;
    };
    if (c.error == nullptr) {
      EXPECT_EQ(listed(StorageID2ipMap(path.c_str(), 7)), c.expected);
    } else {
      std::string error = c.error;
      const std::size_t file = error.find("FILE");
      if (file != std::string::npos) error.replace(file, 4, path);
      EXPECT_THAT([&] { StorageID2ipMap(path.c_str(), 7); }, ThrowsX(error));
    }
  }
  const std::string missing = directory.file("missing");
  EXPECT_THAT([&] { StorageID2ipMap(missing.c_str(), 7); }, ThrowsX(HasSubstr(missing)));
}

TEST(StorageID2ipMapTest, IsAMapOfNumbersOf32Bits) {
  StorageID2ipMap map(7);
  map.setAt(4, "x");
  EXPECT_STREQ(map.lookup(4), "x");
  EXPECT_EQ(map.lookup(5), nullptr);
  map.setAt(4, "y");
  map.setAt(0x1'0000'0006, "z");  // only the low 32 bits count
  EXPECT_STREQ(map.lookup(6), "z");
  EXPECT_STREQ(map.lookup(0x1'0000'0004), "y");
  std::map<unsigned long, std::string> forward, backward;
  XMapIter place;
  unsigned long id = 99;
  XString address;
  EXPECT_FALSE(map.getAt(place, id, address));
  EXPECT_EQ(id, 99U);
  while (map.getNextAssoc(place, id, address)) {
    forward[id] = address.view();
    unsigned long again = 0;
    EXPECT_TRUE(map.getAt(place, again, address));
    EXPECT_EQ(again, id);
  }
  while (map.getPrevAssoc(place, id, address)) backward[id] = address.view();
  EXPECT_EQ(forward, (std::map<unsigned long, std::string>{{4, "y"}, {6, "z"}}));
  EXPECT_EQ(backward, forward);
  StorageID2ipMapItem item(5, "x");
  const std::uint32_t other = 7;
  const XString value("copied");
  const auto made = item.create(&other, &value);
  EXPECT_EQ(item.compare(*made), -1);
  EXPECT_EQ(made->compare(item), 1);
  item.setValue(&value);
  item.getValue(address);
  EXPECT_STREQ(address, "copied");
  for (const auto& [key, sign] : std::map<std::uint32_t, int>{{4, 1}, {5, 0}, {6, -1}}) {
    EXPECT_EQ(item.compareKey(&key), sign);
  }
}

}  // namespace
}  // namespace tarns
