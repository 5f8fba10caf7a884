// Ten thousand changes, with a hundred watchers that come and go.
#include <gtest/gtest.h>
#include <tarns/services/TarnWatcher.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/session_fixture.h"

namespace {

using namespace std::chrono_literals;
using namespace tarns;

constexpr int kNodes = 20;
constexpr int kChanges = 10'000;
constexpr int kClients = 100;
constexpr int kRounds = 3;  // with a new watcher for each

// Follows the number of one node: reads it, watches from the version that it has read, and reads
// again when it is called. What it has seen last at the end is what was written last, or a change
// was lost; a call without a change is one too many.
class Follower : public XObject {
 public:
  Follower(TarnManager& manager, std::string path)
      : manager_(manager), path_(std::move(path)), id_(manager.getObjectID(path_)) {}

  void begin() {
    {
      const std::lock_guard guard(lock_);
      isRemoved_ = false;
    }
    follow();
  }
  void end() {
    TarnWatcher::GetWatcher()->removeAllEventsForClient(this);
    const std::lock_guard guard(lock_);
    isRemoved_ = true;
  }

  void called(const void*) {
    {
      const std::lock_guard guard(lock_);
      if (isRemoved_) ++afterRemoval;
      if (!isWatching_) ++doubled;
      isWatching_ = false;
    }
    const TarnAttachment attachment(manager_);
    follow();
  }

  // Whether it sees `last` before long.
  bool sees(int last) {
    std::unique_lock guard(lock_);
    return seenMore_.wait_for(guard, 20s, [&] { return seen_ == last; });
  }

  int afterRemoval = 0, doubled = 0;  // under lock_, or when all is over

 private:
  void follow() {
    const std::uint64_t version = manager_.getVersion(id_);
    const int now = manager_.getSint32(path_);
    {
      const std::lock_guard guard(lock_);
      seen_ = now;
      isWatching_ = true;
      seenMore_.notify_all();
    }
    TarnWatcher::GetWatcher()->watch(id_, this, &Follower::called, nullptr, version);
  }

  TarnManager& manager_;
  const std::string path_;
  const std::uint64_t id_;
  std::mutex lock_;
  std::condition_variable seenMore_;
  int seen_ = -1;
  bool isWatching_ = false;
  bool isRemoved_ = true;
};

class WatcherStormTest : public session_test {
 protected:
  WatcherStormTest() : session_test(1, "?durability=relaxed") {}
  static std::string PathOf(int node) { return "nodes~" + std::to_string(node); }
};

TEST_F(WatcherStormTest, NothingIsLostDoubledOrCalledAfterItsRemoval) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (int node = 0; node < kNodes; ++node) manager().set(PathOf(node), 0);
  std::vector<std::unique_ptr<Follower>> followers;
  for (int i = 0; i < kClients; ++i) {
    followers.push_back(std::make_unique<Follower>(manager(), PathOf(i % kNodes)));
  }
  std::array<int, kNodes> last{};
  int written = 0;
  for (int round = 0; round < kRounds; ++round) {
    TarnWatcher::Initialize(configuration().c_str());
    std::atomic<bool> stops{false};
    std::jthread comesAndGoes([&] {  // half of them; the others follow all the time
      const TarnAttachment attachment(manager());
      std::minstd_rand random(seed + static_cast<unsigned>(round));
      std::array<bool, kClients> isThere{};
      while (!stops) {
        const int one = static_cast<int>(random() % (kClients / 2));
        isThere[one] ? followers[one]->end() : followers[one]->begin();
        isThere[one] = !isThere[one];
        std::this_thread::yield();
      }
      for (int one = 0; one < kClients / 2; ++one) {
        if (!isThere[one]) followers[one]->begin();
      }
    });
    for (int i = kClients / 2; i < kClients; ++i) followers[i]->begin();
    TarnManager other;
    other.connect(configuration().c_str());
    {
      const TarnAttachment attachment(other);
      std::minstd_rand random(seed + 1000u + static_cast<unsigned>(round));
      for (int i = 0; i < (kChanges + kRounds - 1) / kRounds; ++i) {
        const int node = static_cast<int>(random() % kNodes);
        last[node] = ++written;
        other.set(PathOf(node), written);
      }
    }
    stops = true;
    comesAndGoes.join();
    for (int i = 0; i < kClients; ++i) {
      EXPECT_TRUE(followers[i]->sees(last[i % kNodes])) << "follower " << i << " lost a change";
    }
    // Shut down while the last one still changes.
    std::jthread writes([&] {
      const TarnAttachment attachment(manager());
      for (int i = 0; i < 50; ++i) manager().set(PathOf(0), last[0] = ++written);
    });
    for (const auto& follower : followers) follower->end();
    TarnWatcher::Destroy();
  }
  EXPECT_GE(written, kChanges);
  for (const auto& follower : followers) {
    EXPECT_EQ(follower->afterRemoval, 0);
    EXPECT_EQ(follower->doubled, 0);
  }
}

}  // namespace
