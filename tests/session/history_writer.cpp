// Works on lists with several sessions and threads, and writes a line for each step of its
// transactions before it is taken. Is killed. Arguments: the configuration file, the first element
// to append, the first list, a seed.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <string>
#include <thread>

#include "support/history.h"
#include "support/history_workload.h"

namespace {

class Printer : public history_workload::observer {
 public:
  void commits(const history_transaction& transaction) override {
    history_transaction open = transaction;
    open.end = history_transaction::outcome::unknown;
    Print(open);
  }
  void ended(history_transaction transaction) override { Print(transaction); }

 private:
  // One call, so that lines of several threads do not mix.
  static void Print(const history_transaction& transaction) {
    const std::string line = line_of(transaction) + '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
  }
};

void work(const char* configuration, std::uint64_t firstElement, unsigned firstList,
          unsigned seed) {
  constexpr int sessions = 2, threads = 4;
  tarns::TarnManager::Initialize();
  std::deque<tarns::TarnManager> managers(sessions);
  for (tarns::TarnManager& manager : managers)
    manager.connect(configuration, std::chrono::seconds(20));
  {
    const tarns::TarnAttachment attachment(managers[0]);
    history_workload::prepare(managers[0]);
  }
  Printer log;
  history_workload workload(log, firstElement, firstList);
  std::vector<std::jthread> running;
  for (int number = 0; number < threads; ++number) {
    running.emplace_back([&, number] {
      tarns::TarnManager& manager = managers[static_cast<std::size_t>(number % sessions)];
      const tarns::TarnAttachment attachment(manager);
      const std::string who =
          "element " + std::to_string(firstElement) + ", thread " + std::to_string(number);
      try {
        workload.run(manager, who, seed + static_cast<unsigned>(number), [] { return false; });
      } catch (const tarns::TarnException& error) {
        std::printf("error: %s\n", error.getError());
        std::fflush(stdout);
      }
    });
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  try {
    work(argv[1], std::stoull(argv[2]), static_cast<unsigned>(std::stoul(argv[3])),
         static_cast<unsigned>(std::stoul(argv[4])));
  } catch (const tarns::TarnException& error) {
    std::fprintf(stderr, "%s\n", error.getError());
  }
  return 1;
}
