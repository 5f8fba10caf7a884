#include <memory>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"

namespace tarns {

namespace {

struct TransferOptions {
  std::string from;
  std::string to;
  bool merge = false;
  bool keep = false;
};

std::shared_ptr<TransferOptions> AddPaths(CLI::App& command) {
  auto options = std::make_shared<TransferOptions>();
  command.add_option("FROM", options->from, "The branch")->required();
  command.add_option("TO", options->to, "Its new path; what is there is replaced")->required();
  return options;
}

int Cp(const Invocation& invocation, const TransferOptions& options) {
  OpenDatabase(invocation)->copyBranch(options.from, options.to);
  return ExitStatus::kDone;
}

int Mv(const Invocation& invocation, const TransferOptions& options) {
  if (options.keep && !options.merge) throw UsageError{"--keep goes with --merge."};
  OpenDatabase database(invocation);
  if (options.merge) {
    database->mergeBranch(options.from, options.to, !options.keep);
  } else {
    database->moveBranch(options.from, options.to);
  }
  return ExitStatus::kDone;
}

}  // namespace

void AddCp(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "cp", "Copy a branch", "tarns -d data cp machines~press machines~press2",
                 "tarns -d data cp settings settings~backup");
  const auto options = AddPaths(command);
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Cp(invocation, *options); };
  });
}

void AddMv(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "mv", "Move a branch", "tarns -d data mv machines~press archive~press",
                 "tarns -d data mv settings~new settings --merge");
  const auto options = AddPaths(command);
  command.add_flag("--merge", options->merge,
                   "Merge it into what is there; where both have a value, that of FROM wins");
  command.add_flag("--keep", options->keep, "With --merge: the value that is there wins");
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Mv(invocation, *options); };
  });
}

}  // namespace tarns
