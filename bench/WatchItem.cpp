// How long a change takes to the callback of a watcher: tarns alone, through its own interface.
#include <fmt/format.h>
#include <goods/semaphore.h>
#include <tarns/services/TarnWatcher.h>
#include <tarns/session/TarnAttachment.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "Bench.h"

namespace tarns::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPath = "machines~press~speed";
constexpr double kMedianTarget = 100, kLateTarget = 1000;  // microseconds

std::string MakeConfiguration(const std::filesystem::path& directory, const char* options) {
  std::filesystem::create_directories(directory);
  std::string path = (directory / "watch.conf").string();
  std::ofstream(path) << "1\n0: file:./data" << options << '\n';
  return path;
}

struct Delays {
  std::vector<double> fromCall, fromReturn;  // microseconds; below 0: before set() returned
};

// A change in one session, the callback reading in another one what it has become; then the next.
Delays MeasureDelays(const std::string& configuration, std::size_t count) {
  TarnManager reader, writer;
  reader.connect(configuration.c_str());
  writer.connect(configuration.c_str());
  const TarnAttachment attachment(writer);
  writer.set(kPath, -1);
  const std::uint64_t id = writer.getObjectID(kPath);
  TarnWatcher::Initialize(configuration.c_str());
  Delays delays;
  Clock::time_point calledBack;
  std::atomic<std::int32_t> seen{-1};
  goods::semaphore called;
  const std::function<void()> callback = [&] {
    calledBack = Clock::now();
    const TarnAttachment reading(reader);
    seen = reader.getSint32(kPath);
    called.signal();
  };
  for (std::size_t i = 0; i < count; ++i) {
    const TarnWatch watch = TarnWatcher::GetWatcher()->watch(id, callback);
    const auto value = static_cast<std::int32_t>(i);
    const Clock::time_point before = Clock::now();
    writer.set(kPath, value);
    const Clock::time_point after = Clock::now();
    called.wait();
    Verify(seen == value, kPeer, "a callback saw another value than was committed");
    using Microseconds = std::chrono::duration<double, std::micro>;
    delays.fromCall.push_back(Microseconds(calledBack - before).count());
    delays.fromReturn.push_back(Microseconds(calledBack - after).count());
  }
  Verify(called.count() == 0, kPeer, "a callback came twice");
  TarnWatcher::Destroy();
  return delays;
}

double OneInAHundred(std::vector<double> delays) {
  std::ranges::sort(delays);
  return delays.at(delays.size() * 99 / 100);
}

}  // namespace

void Bench::watch() {
  const std::size_t count = scaled(10'000);
  const Delays relaxed = MeasureDelays(
      MakeConfiguration(options_.scratch / "watch-relaxed", "?durability=relaxed"), count);
  const Target median{Target::kAtMost, 1, "", kMedianTarget, "100 microseconds"};
  const Target late{Target::kAtMost, 1, "", kLateTarget, "1 ms"};
  report_.add({"watch: call of set() to callback, without sync, median",
               "us",
               {{kPeer, Median(relaxed.fromCall)}},
               median});
  report_.add({"watch: the same, 99 of 100 within",
               "us",
               {{kPeer, OneInAHundred(relaxed.fromCall)}},
               late});
  const Delays durable =
      MeasureDelays(MakeConfiguration(options_.scratch / "watch-durable", ""), count);
  report_.note(fmt::format(
      "watch: with a sync in each commit, the callback comes {:.0f} us after set() has returned "
      "(median; 99 of 100 within {:.0f} us)",
      Median(durable.fromReturn), OneInAHundred(durable.fromReturn)));
}

}  // namespace tarns::bench
