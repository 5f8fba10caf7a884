// What is left when a program is killed that puts a large item.
#include <gmock/gmock.h>

#include <random>
#include <string>

#include "support/damage.h"
#include "support/killed_process.h"
#include "vfs/numbered_content.h"
#include "vfs/vfs_fixture.h"

namespace tarns {
namespace {

class VFSKillTest : public vfs_test {
 protected:
  // Lets a program put contents for some time; returns the last number that it acknowledged.
  int putAndKill(std::chrono::microseconds time) {
    close();
    killed_process program({PROGRAM_FILES_WRITER, configuration()});
    EXPECT_EQ(program.next_line(std::chrono::seconds(60)), "0");
    const auto lines = program.kill_after(time);
    open();
    return lines.empty() ? 0 : std::stoi(lines.back());
  }

  void close() {
    unmount();
    session_test::close();
  }
};

TEST_F(VFSKillTest, AnItemIsWholeAndNothingIsLeftOfTheNextOne) {
  constexpr int kKills = 24, kNumberAtFirst = 1;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  PutContent(vfs(), kNumberAtFirst);
  PutContent(vfs(), kNumberAtFirst);
  const std::uint64_t objects = objects_after_collection(manager());
  int number = kNumberAtFirst;
  for (int i = 0; i < kKills; ++i) {
    const int acknowledged =
        std::max(number, putAndKill(std::chrono::microseconds(random() % 100'000)));
    mount();
    EXPECT_THAT(NumberOfContent(vfs()), testing::AnyOf(acknowledged, acknowledged + 1));
    EXPECT_EQ(damage_of(manager()), "");
    if (i % 3 != 0) {  // else the next program finds what this one has left
      number = NumberOfContent(vfs());
      continue;
    }
    number = kNumberAtFirst;
    PutContent(vfs(), number);
    EXPECT_EQ(NumberOfContent(vfs()), number);
    EXPECT_EQ(objects_after_collection(manager()), objects);
    ASSERT_FALSE(HasFailure()) << "kill " << i;
  }
}

}  // namespace
}  // namespace tarns
