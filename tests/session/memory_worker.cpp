// Goes through a database that is much larger than its memory may be, in several ways, and writes a
// line for each: its name and the most anonymous memory (KiB) that the process had meanwhile.
// Mapped files are not counted: the system takes such pages back when it needs them. Arguments: the
// configuration file, bytes of cache, number of texts.
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>

namespace {

using tarns::TarnBranchWalk;
using tarns::TarnManager;

constexpr unsigned kPerBranch = 200;
constexpr unsigned kTextSize = 800;

std::uint64_t AnonymousKib() {
  std::ifstream status("/proc/self/status");
  std::string word;
  std::uint64_t number = 0;
  while (status >> word) {
    if (word == "RssAnon:" && status >> number) return number;
  }
  return 0;
}

// Looks at the memory again and again.
class Watch {
 public:
  // The most since the last call.
  std::uint64_t takeMost() { return most_.exchange(0); }

 private:
  std::atomic<std::uint64_t> most_{0};
  std::jthread thread_{[this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      most_ = std::max(most_.load(), AnonymousKib());
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }};
};

std::string Path(unsigned number) {
  return "t~" + std::to_string(number / kPerBranch) + "~" + std::to_string(number);
}

// Texts that hardly get shorter when they are packed.
std::string Text(std::minstd_rand& random) {
  std::string text(kTextSize, '\0');
  for (char& c : text) c = static_cast<char>('!' + random() % 90);
  return text;
}

void Work(const char* configuration, std::size_t cache, unsigned texts) {
  TarnManager::Initialize();
  TarnManager manager;
  manager.connect(configuration);
  manager.setCacheLimit(cache);
  const tarns::TarnAttachment attachment(manager);
  std::minstd_rand random;
  Watch watch;
  std::uint64_t met = 0;
  const auto phase = [&](const char* name, const std::function<void()>& work) {
    watch.takeMost();
    work();
    std::printf("%s %lu\n", name, std::max(watch.takeMost(), AnonymousKib()));
    std::fflush(stdout);
  };
  const auto writeAll = [&] {
    for (unsigned i = 0; i < texts; i += kPerBranch) {
      manager.transaction([&] {
        for (unsigned k = i; k < i + kPerBranch; ++k) manager.set(Path(k), Text(random));
      });
    }
  };
  phase("fill", writeAll);
  std::printf("stored %lu\n", manager.getNumBytesToDatabase());
  phase("read", [&] {
    for (unsigned i = 0; i < texts; ++i) {
      met += manager.getXString(Path(static_cast<unsigned>(random()) % texts)).getLength();
    }
  });
  phase("walk", [&] {
    for (const TarnBranchWalk::Step& step : TarnBranchWalk(manager.getRoot())) {
      met += step.value.getText().size();
    }
  });
  phase("list", [&] {
    for (const auto& [branch, node] : manager.children("t")) {
      for (const auto& [name, child] : node->children()) met += child->getXString("").getLength();
    }
  });
  phase("update", writeAll);
  phase("delete", [&] {
    for (unsigned i = 0; i < texts / 2; ++i) manager.deleteBranch(Path(i));
  });
  phase("collect", [&] { manager.startGarbageCollection(); });
  std::printf("texts %lu\n", met / kTextSize);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  try {
    Work(argv[1], std::stoull(argv[2]), static_cast<unsigned>(std::stoul(argv[3])));
  } catch (const tarns::TarnException& error) {
    std::printf("error: %s\n", error.getError());
    return 1;
  }
  return 0;
}
