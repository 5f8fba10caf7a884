// Writes a large item over and over until it is killed: files_writer CONFIGURATION.
//
// Each content is made from a number, one more than that of the content before, which goes to the
// standard output when the content is durable.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <cstdio>
#include <exception>
#include <string>

#include "support/acknowledge.h"
#include "vfs/numbered_content.h"

int main(int argc, char** argv) try {
  using namespace tarns;
  if (argc != 2) return 2;
  TarnManager::Initialize();
  TarnManager manager;
  manager.connect(argv[1], std::chrono::seconds(20));
  const TarnAttachment attachment(manager);
  TarnVFS files(manager, manager.getNoFail("files"));
  acknowledge("0");  // it is open
  for (int number = NumberOfContent(files) + 1;; ++number) {
    PutContent(files, number);
    acknowledge(std::to_string(number));
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
