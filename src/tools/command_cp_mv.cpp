#include <tarns/schema/TarnCloner.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

struct TransferOptions {
  std::string from;
  std::string to;
  bool merge = false;
  bool keep = false;
  bool values = false;
  bool dryRun = false;
  bool inBatches = false;
};

std::shared_ptr<TransferOptions> AddOptions(CLI::App& command) {
  auto options = std::make_shared<TransferOptions>();
  command.add_option("FROM", options->from, "The branch")->required();
  command.add_option("TO", options->to, "Its new path; what is there is replaced")->required();
  command.add_flag("--merge", options->merge,
                   "Merge it into what is there; where both have a value, that of FROM wins");
  command.add_flag("--keep", options->keep, "With --merge: the value that is there wins");
  command.add_flag("--values", options->values,
                   "With --merge: nodes that are there keep their types and take over values");
  command.add_flag("--dry-run", options->dryRun,
                   "With --merge: only list what would become of each node");
  return options;
}

void VerifyOptions(const TransferOptions& options) {
  if (options.keep && options.values) throw UsageError{"--keep and --values exclude each other."};
  if (options.merge) return;
  if (options.keep) throw UsageError{"--keep goes with --merge."};
  if (options.values) throw UsageError{"--values goes with --merge."};
  if (options.dryRun) throw UsageError{"--dry-run goes with --merge."};
}

void Merge(TarnManager& manager, const TransferOptions& options, bool keepsSource) {
  TarnCloneOptions rules{.rule = options.keep     ? TarnMergeRule::kKeep
                                 : options.values ? TarnMergeRule::kMergeValues
                                                  : TarnMergeRule::kReplace,
                         .keepsSource = keepsSource,
                         .changesNothing = options.dryRun};
  Output out;
  if (options.dryRun) {
    rules.report = [&](const TarnMergeChange& change) {
      const bool isJoined = !options.to.empty() && !change.path.empty();
      out << ToText(change.effect) << '\t'
          << Shown(options.to + (isJoined ? "~" : "") + change.path) << '\n';
    };
  }
  manager.mergeBranch(options.from, options.to, rules);
  out.finish();
}

int Cp(const Invocation& invocation, const TransferOptions& options) {
  VerifyOptions(options);
  if (options.merge && options.inBatches) {
    throw UsageError{"--in-batches and --merge exclude each other."};
  }
  OpenDatabase database(invocation);
  if (options.merge) {
    Merge(*database, options, true);
  } else if (options.inBatches) {
    const SignalWatch watch;  // to leave nothing unfinished
    const auto progress = [](std::uint64_t) { ThrowIfInterrupted(); };
    database->copyBranch(options.from, options.to, {.progress = progress});
  } else {
    database->copyBranch(options.from, options.to);
  }
  return ExitStatus::kDone;
}

int Mv(const Invocation& invocation, const TransferOptions& options) {
  VerifyOptions(options);
  OpenDatabase database(invocation);
  if (options.merge) {
    Merge(*database, options, false);
  } else {
    database->moveBranch(options.from, options.to);
  }
  return ExitStatus::kDone;
}

}  // namespace

void AddCp(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "cp", "Copy a branch", "tarns -d data cp machines~press machines~press2",
                 "tarns -d data cp --merge --keep defaults settings");
  const auto options = AddOptions(command);
  command.add_flag("--in-batches", options->inBatches,
                   "In several transactions, for branches that are too large for one");
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Cp(invocation, *options); };
  });
}

void AddMv(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "mv", "Move a branch", "tarns -d data mv machines~press archive~press",
                 "tarns -d data mv settings~new settings --merge");
  const auto options = AddOptions(command);
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Mv(invocation, *options); };
  });
}

}  // namespace tarns
