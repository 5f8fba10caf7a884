// Imports a branch over and over until it is killed: import_writer CONFIGURATION GROUPS.
//
// Each branch is made from a number, one more than that of the branch before, which goes to the
// standard output when the branch is durable.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <cstdio>
#include <exception>
#include <string>

#include "session/NumberedBranch.h"
#include "support/acknowledge.h"

int main(int argc, char** argv) try {
  using namespace tarns;
  if (argc != 3) return 2;
  TarnManager::Initialize();
  TarnManager manager;
  manager.connect(argv[1], std::chrono::seconds(20));
  const TarnAttachment attachment(manager);
  const NumberedBranch branch(std::stoi(argv[2]));
  acknowledge("0");  // it is open
  for (int number = branch.numberOf(manager) + 1;; ++number) {
    branch.import(manager, number);
    acknowledge(std::to_string(number));
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
