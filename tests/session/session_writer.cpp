// Works on a database until it is killed: session_writer CONFIGURATION MODE.
//
// Each of some threads counts: every number leaves traces in two storages (counted_numbers.h),
// replaces those of an older one, and is written to the standard output ("THREAD NUMBER") once it
// is durable. Meanwhile one thread collects garbage and another one makes backups. Modes: "work";
// and, for those who check the traces to show that they would notice, "early" acknowledges before
// it commits, and "torn" makes two transactions of one.
#include <goods/database.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "session/counted_numbers.h"
#include "support/acknowledge.h"

namespace {

using namespace tarns;

void Count(TarnManager& manager, int thread, const std::string& mode) {
  const int last = LastNumber(manager, thread);
  // What a crash may have prevented.
  if (last > 0) PutTree(manager, thread, last);
  for (int number = last + 1;; ++number) {
    if (mode == "early") acknowledge(std::to_string(thread) + ' ' + std::to_string(number));
    if (mode == "torn") {
      PutNear(manager, thread, number);
      PutFar(manager, thread, number);
    } else {
      manager.transaction([&] {
        PutNear(manager, thread, number);
        PutFar(manager, thread, number);
      });
    }
    PutTree(manager, thread, number);
    if (mode != "early") acknowledge(std::to_string(thread) + ' ' + std::to_string(number));
  }
}

// Each is left for the parent to look at; after a crash the first names are used again.
void BackUp(TarnManager& manager, const std::string& place) {
  for (int i = 0;; ++i) {
    std::string name = place;
    name += "/backup";
    name += std::to_string(i);
    if (!std::filesystem::exists(name)) manager.backup(name.c_str());
  }
}

template <class Work>
void RunAttached(TarnManager& manager, const Work& work) try {
  const TarnAttachment attachment(manager);
  work();
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  std::_Exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string configuration = argv[1], mode = argv[2];
  const std::string place = std::filesystem::path(configuration).parent_path();
  TarnManager::Initialize();
  TarnManager manager;
  try {
    manager.connect(configuration.c_str(), std::chrono::seconds(20));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  std::vector<std::thread> threads;
  for (int i = 0; i < kCountingThreads; ++i) {
    threads.emplace_back([&, i] { RunAttached(manager, [&] { Count(manager, i, mode); }); });
  }
  threads.emplace_back([&] {
    RunAttached(manager, [&] {
      while (true) manager.startGarbageCollection();
    });
  });
  threads.emplace_back([&] { RunAttached(manager, [&] { BackUp(manager, place); }); });
  for (std::thread& thread : threads) thread.join();
}
