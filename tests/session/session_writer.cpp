// Counts in a database and writes each number on a line of its own once it is durable. Is killed.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <chrono>
#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  using namespace tarns;
  if (argc != 2) return 2;
  try {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect(argv[1], std::chrono::seconds(20));
    const TarnAttachment attachment(manager);
    for (int number = manager.getSint32("last", 0) + 1;; ++number) {
      // Three calls as one, and one call that makes several nodes.
      manager.transaction([&] {
        manager.set("last", number);
        manager.set("log~" + std::to_string(number) + "~half", number);
        manager.set("log~" + std::to_string(number) + "~other half", -number);
      });
      manager.set("tree~" + std::to_string(number) + "~leaf", number);
      std::printf("%d\n", number);
      std::fflush(stdout);
    }
  } catch (const TarnException& error) {
    std::fprintf(stderr, "%s\n", error.getError());
    return 1;
  }
}
