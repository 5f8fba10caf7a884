// Connecting, attaching and what a session tells of its storages.
#include <gmock/gmock.h>
#include <tarns/session/StorageID2ipMap.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

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

TEST_F(ManagerConnectionTest, BadConfigurationsAndDataLibrariesAreErrorsAtOnce) {
  TarnManager fresh;
  EXPECT_THAT([&] { fresh.connect(directory().file("none").c_str()); },
              ThrowsTarn(111, HasSubstr("none")));
  std::ofstream(directory().file("bad")) << "1\n0: gopher:x\n";
  EXPECT_THROW(fresh.connect(directory().file("bad").c_str(), 1s), TarnException);
  EXPECT_THAT([&] { fresh.connect(configuration().c_str(), true, "libs"); },
              ThrowsTarn(0, HasSubstr("Data libraries")));
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

TEST_F(TwoStoragesTest, PlacesAndMeasuresByStorage) {
  EXPECT_EQ(manager().getNumStorages(), 2U);
  EXPECT_LT(manager().getLeastUsedStorage(), 2U);
  const TarnRef node = TarnObject::Create();
  manager().attachToStorage(node, 1);
  manager().set("there", node);
  EXPECT_EQ(manager().getObjectID("there") >> 32, 1U);
  EXPECT_EQ(manager().getObject(manager().getObjectID("there")), manager().getObject("there"));
  EXPECT_EQ(manager().getStorageUsage(0x10001), manager().getStorageUsage(1));
  EXPECT_GT(manager().getNumBytesToStorage(1), 0U);
  manager().clearNumBytesFromStorage(1);
  EXPECT_EQ(manager().getNumBytesToStorage(1), 0U);
  EXPECT_GT(manager().getNumBytesToDatabase(), 0U);
  manager().clearNumBytesFromDatabase();
  EXPECT_EQ(manager().getNumBytesToDatabase(), 0U);
  reopen();
  EXPECT_FALSE(manager().getObject("there").is_null());
  EXPECT_GT(manager().getNumBytesFromDatabase(), 0U);
}

TEST(StorageID2ipMapTest, ReadsConfigurationFiles) {
  struct Case {
    const char* text;
    std::map<unsigned long, std::string> expected;
    const char* error;  // with the file's name as FILE, null for none
  };
  const Case cases[] = {
      {"", {}, nullptr},
      {"0\n", {}, nullptr},
      {"1\n0: host:100\n", {{0, "host:100"}}, nullptr},
      {"1\n3:host:100", {{3, "host:100"}}, nullptr},
      {"1\r\n0:  a:1 \r\n", {{0, "a:1"}}, nullptr},
      {"1\n0: a:1\n1: b:2\n", {{0, "a:1"}}, nullptr},
      {"2\n0: a:1\n0: b:2\n", {{0, "b:2"}}, nullptr},
      {"2\n0: a:1\n", {{0, "a:1"}}, "doesn't match the number of listed storages."},
      {"-1\n0: a:1\n", {{0, "a:1"}}, "doesn't match the number of listed storages."},
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
      EXPECT_THAT([&] { StorageID2ipMap(path.c_str(), 7); }, ThrowsX(HasSubstr(c.error)));
    }
  }
  StorageID2ipMap map(7);
  map.setAt(4, "x");
  EXPECT_STREQ(map.lookup(4), "x");
  EXPECT_EQ(map.lookup(5), nullptr);
  const StorageID2ipMapItem item(5, "x");
  for (const auto& [key, sign] : std::map<std::uint32_t, int>{{4, 1}, {5, 0}, {6, -1}}) {
    EXPECT_EQ(item.compareKey(&key), sign);
  }
}

}  // namespace
}  // namespace tarns
