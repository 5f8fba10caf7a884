// Bundles, collections and copies when the program that changes them is killed.
#include <gmock/gmock.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>

#include <random>

#include "containers/bundle_check.h"
#include "support/branch_picture.h"
#include "support/damage.h"
#include "support/killed_process.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

constexpr std::chrono::seconds kLimit(20);

class ContainerCrashTest : public session_test {
 protected:
  std::minstd_rand random_{std::random_device()()};

  std::chrono::microseconds someTime(unsigned most) {
    return std::chrono::microseconds(random_() % most);
  }
  void verifyStore() { EXPECT_EQ(damage_of(manager()), ""); }
};

TEST_F(ContainerCrashTest, ABundleIsWholeAfterEveryKill) {
  manager().set("b", TarnBundle::Create("TarnObject"));
  int acknowledged = 0;
  for (int cycle = 0; cycle < 25; ++cycle) {
    SCOPED_TRACE(testing::Message() << "cycle " << cycle);
    close();
    {
      killed_process writer({PROGRAM_CONTAINER_WRITER, configuration(), "bundle"});
      const std::string first = writer.next_line(kLimit);
      ASSERT_FALSE(first.empty());
      acknowledged = std::stoi(first);
      for (const std::string& line : writer.kill_after(someTime(60'000))) {
        acknowledged = std::stoi(line);
      }
    }
    open();
    const int last = manager().getSint32("last", 0);
    ASSERT_GE(last, acknowledged);
    ASSERT_LE(last, acknowledged + 1);
    const auto names = VerifyBundle(xcptref<TarnBundle>(manager().getObject("b")));
    EXPECT_EQ(names.size(), static_cast<std::size_t>(2 * last - last / 2));
    for (int n = 1; n <= last; ++n) {
      ASSERT_EQ(names.contains(std::to_string(n)), n > last / 2) << n << " of " << last;
    }
  }
}

TEST_F(ContainerCrashTest, ABalanceThatIsKilledLosesNothingAndIsFinishedByTheNext) {
  constexpr int kChildren = 800;
  manager().transaction([&] {
    for (int i = 0; i < kChildren; ++i) manager().set("c~" + std::to_string(i), i);
  });
  std::uint64_t made = 0;
  bool isFinished = false;
  int kills = 0;
  for (; !isFinished; ++kills) {
    ASSERT_LT(kills, 2000);
    SCOPED_TRACE(testing::Message() << "kill " << kills);
    close();
    {
      killed_process balancer({PROGRAM_CONTAINER_WRITER, configuration(), "balance"});
      ASSERT_EQ(balancer.next_line(kLimit), "0");
      isFinished = !balancer.kill_after(kills < 3 ? someTime(3'000) : someTime(150'000)).empty();
    }
    open();
    const TarnRef node = manager().getObject("c");
    if (!node.isA<TarnCollection>()) continue;
    const xcptref<TarnCollection> collection(node);
    if (made == 0) made = TarnObject::GetObjectID(node);
    ASSERT_EQ(TarnObject::GetObjectID(node), made) << "one collection only";
    isFinished = isFinished || !collection->isBalancing();  // killed before it could say so
    ASSERT_EQ(collection->getNumChildren(), static_cast<unsigned long>(kChildren));
    for (int i = 0; i < kChildren; ++i) {
      ASSERT_EQ(manager().getSint32("c~" + std::to_string(i), -1), i);
    }
  }
  TarnCollection::Balance(manager(), manager().getRoot(), "absent", nullptr);
  EXPECT_FALSE(xcptref<TarnCollection>(manager().getObject("c"))->isBalancing());
  verifyStore();
}

TEST_F(ContainerCrashTest, ACopyInBatchesThatIsKilledIsThereAsAWholeOrNotAtAll) {
  manager().transaction([&] {
    for (int i = 0; i < 1'500; ++i) {
      manager().set("from~" + std::to_string(i % 30) + "~" + std::to_string(i), i);
    }
  });
  const branch_picture original(manager().getObject("from"));
  bool isFinished = false;
  for (int kills = 0; !isFinished; ++kills) {
    ASSERT_LT(kills, 200);
    SCOPED_TRACE(testing::Message() << "kill " << kills);
    close();
    {
      killed_process copier({PROGRAM_CONTAINER_WRITER, configuration(), "copy"});
      ASSERT_EQ(copier.next_line(kLimit), "0");
      isFinished = !copier.kill_after(someTime(15'000 * (kills + 1))).empty();
    }
    open();
    EXPECT_EQ(branch_picture(manager().getObject("from")).differences(original), "");
    const TarnRef copy = manager().getObject("to~copy");
    if (copy.is_null()) continue;
    EXPECT_EQ(branch_picture(copy).differences(original), "");
    EXPECT_EQ(manager().getNumChildren(""), 2U) << "nothing unfinished is left";
    manager().deleteBranch("to");
  }
  verifyStore();
}

}  // namespace
}  // namespace tarns
