// Changes a bundle, imports into one, balances a node or copies a branch, and writes a line for
// each step that is durable. Is killed.
#include <tarns/containers/BundleSync.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnCloner.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using namespace tarns;

void say(int number) {
  std::printf("%d\n", number);
  std::fflush(stdout);
}

// Number n adds the objects "n" and "n more" and deletes the one of n / 2.
void fill(TarnManager& manager) {
  const xcptref<TarnBundle> bundle(manager.getObject("b"));
  for (int number = manager.getSint32("last", 0) + 1;; ++number) {
    manager.transaction([&] {
      const std::string name = std::to_string(number);
      modify(bundle)->newChild(name.c_str());
      modify(bundle)->newChild((name + " more").c_str());
      if (number % 2 == 0) {
        modify(bundle)->deleteBundledChild(std::to_string(number / 2).c_str());
      }
      manager.set("last", number);
    });
    say(number);
  }
}

void balance(TarnManager& manager) {
  say(0);
  TarnCollection::Balance(manager, manager.getRoot(), "c", nullptr);
  say(1);
}

// What stands beside the configuration.
void import(TarnManager& manager, const std::string& configuration) {
  std::ifstream file(configuration + ".export", std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  BundleSync sync(xcptref<SyncedBundle>(manager.getObject("synced")));
  say(0);
  sync.import(text);
  say(1);
}

void copy(TarnManager& manager) {
  say(0);
  manager.copyBranch("from", "to~copy", {.batchSize = 40});
  say(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect(argv[1], std::chrono::seconds(20));
    const TarnAttachment attachment(manager);
    if (std::strcmp(argv[2], "balance") == 0) {
      balance(manager);
    } else if (std::strcmp(argv[2], "copy") == 0) {
      copy(manager);
    } else if (std::strcmp(argv[2], "import") == 0) {
      import(manager, argv[1]);
    } else {
      fill(manager);
    }
    return 0;
  } catch (const TarnException& error) {
    std::fprintf(stderr, "%s\n", error.getError());
    return 1;
  }
}
