// Writes a large item over and over until it is killed: files_writer CONFIGURATION.
//
// Each content is made from a number, one more than that of the content before, which goes to the
// standard output when the content is durable.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "vfs/numbered_content.h"

namespace {

using namespace tarns;

void Acknowledge(int number) {
  char line[32];
  const int length = std::snprintf(line, sizeof line, "%d\n", number);
  if (::write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) != length) std::_Exit(1);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) return 2;
  TarnManager::Initialize();
  TarnManager manager;
  manager.connect(argv[1], std::chrono::seconds(20));
  const TarnAttachment attachment(manager);
  TarnVFS files(manager, manager.getNoFail("files"));
  Acknowledge(0);  // it is open
  for (int number = NumberOfContent(files) + 1;; ++number) {
    PutContent(files, number);
    Acknowledge(number);
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
