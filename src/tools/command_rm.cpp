#include <tarns/core/TarnException.h>

#include <memory>
#include <vector>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"

namespace tarns {

namespace {

// All or, when one of them does not exist, none.
int Rm(const Invocation& invocation, const std::vector<std::string>& paths) {
  OpenDatabase database(invocation);
  database->transaction([&] {
    for (const std::string& path : paths) {
      if (path.empty()) throw UsageError{"The root cannot be removed."};
      if (!database->deleteBranch(path)) TarnException::ThrowNonExistentPath(path.c_str());
    }
  });
  return ExitStatus::kDone;
}

}  // namespace

void AddRm(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "rm", "Remove branches with everything in them: all that are named, or none",
      "tarns -d data rm machines~press~remark", "tarns -d data rm machines~press machines~saw");
  auto paths = std::make_shared<std::vector<std::string>>();
  command.add_option("PATH", *paths, "The branches")->required();
  command.callback([&invocation, paths] {
    invocation.action = [&invocation, paths] { return Rm(invocation, *paths); };
  });
}

}  // namespace tarns
