#include <goods/database.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

// Copies the open database. A signal ends that before the copy gets its name, and removes it.
int Copy(OpenDatabase& database, const std::string& directory) {
  SignalWatch watch;
  std::uint64_t bytes = 0;
  {
    std::unique_ptr<Progress> progress;  // made when it is known how much there is
    goods::copy_options options;
    options.progress = [&](const goods::copy_progress& reached) {
      ThrowIfInterrupted();
      bytes = reached.bytes;
      if (progress == nullptr) progress = std::make_unique<Progress>("Copying", 2 * bytes, "KiB");
      const std::uint64_t done = reached.written + reached.verified;
      progress->show(done, reached.written / 1024);
      return true;
    };
    database->backup(directory.c_str(), options);
  }
  if (TalksToTerminal()) {
    std::fprintf(stderr, "%llu KiB were copied to %s.\n",
                 static_cast<unsigned long long>(bytes / 1024), ShownInFull(directory).c_str());
  }
  return ExitStatus::kDone;
}

int Restore(const Invocation& invocation, const std::string& backup, const std::string& directory) {
  const std::string& target = directory.empty() ? invocation.database : directory;
  if (target.empty()) throw UsageError{"Name the directory to restore the database in."};
  Invocation from = invocation;
  from.database = backup;
  OpenDatabase database(from);
  return Copy(database, target);
}

}  // namespace

void AddBackup(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "backup", "Copy the database to a new directory",
                 "tarns -d data backup backups/monday", "tarns -d backups/monday ls");
  auto directory = std::make_shared<std::string>();
  command.add_option("DIR", *directory, "The directory that is to be made")->required();
  command.callback([&invocation, directory] {
    invocation.action = [&invocation, directory] {
      OpenDatabase database(invocation);
      return Copy(database, *directory);
    };
  });
}

void AddRestore(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "restore", "Make a database from a backup",
                 "tarns restore backups/monday data", "tarns -d data restore backups/monday");
  auto backup = std::make_shared<std::string>();
  auto directory = std::make_shared<std::string>();
  command.add_option("BACKUP", *backup, "The backup, which stays as it is")->required();
  command.add_option("DIR", *directory, "The directory that is to be made; otherwise that of -d");
  command.callback([&invocation, backup, directory] {
    invocation.action = [&invocation, backup, directory] {
      return Restore(invocation, *backup, *directory);
    };
  });
}

}  // namespace tarns
