#include <tarns/core/TarnException.h>
#include <tarns/session/TarnSalvage.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
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

namespace fs = std::filesystem;

// A directory for the new database, which has nothing in it: taken away again unless it is kept.
class NewDirectory {
 public:
  explicit NewDirectory(const std::string& path) : path_(path) {
    if (fs::exists(fs::symlink_status(path_))) {
      TarnException error;
      error << "There is something at \"" << path << "\" already.";
      throw error;
    }
    fs::create_directories(path_);
    fs::permissions(path_, fs::perms::owner_all);
  }
  ~NewDirectory() {
    std::error_code ignored;  // there is an error on its way that matters more
    if (!isKept_) fs::remove_all(path_, ignored);
  }
  NewDirectory(const NewDirectory&) = delete;
  NewDirectory& operator=(const NewDirectory&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }
  void keep() { isKept_ = true; }

 private:
  const fs::path path_;
  bool isKept_ = false;
};

// As many storages as the damaged database has.
void WriteConfiguration(const std::string& damaged, const std::string& file) {
  std::ifstream in(damaged);
  unsigned count = 0;
  if (!(in >> count) || count == 0) {
    TarnException error;
    error << "The configuration file \"" << damaged << "\" cannot be understood.";
    throw error;
  }
  std::ofstream out(file);
  out << count << '\n';
  for (unsigned i = 0; i < count; ++i) {
    out << i << ": file:./data" << (i == 0 ? "" : std::to_string(i)) << '\n';
  }
}

int SalvageInto(const Invocation& invocation, const std::string& directory) {
  const std::string damaged = ConfigurationOf(invocation);
  if (!fs::exists(damaged)) {
    TarnException error;
    error << "There is no database at \"" << invocation.database << "\".";
    throw error;
  }
  SignalWatch watch;
  NewDirectory place(directory);
  const std::string unfinished = place.file(std::string(OpenDatabase::kConfigurationName) + ".new");
  WriteConfiguration(damaged, unfinished);
  TarnSalvageResult result;
  {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect(unfinished.c_str());
    const TarnAttachment attachment(manager);
    Progress progress("Salvaging", 0, "objects");
    result = Salvage(damaged, manager, [&](std::uint64_t count) {
      ThrowIfInterrupted();
      progress.show(0, count);
    });
  }
  fs::rename(unfinished, place.file(OpenDatabase::kConfigurationName));
  place.keep();
  watch.end();
  Output out;
  for (const std::string& line : result.missing) out << ShownInFull(line) << '\n';
  out << std::to_string(result.objects) << " objects were read, "
      << std::to_string(result.missing.size()) << " losses are known";
  if (result.lostBranches != 0) {
    out << ", " << std::to_string(result.lostBranches) << " branches without a path are below "
        << ShownInFull(result.lostName);
  }
  out << '\n';
  out.finish();
  return result.missing.empty() ? ExitStatus::kDone : ExitStatus::kFindings;
}

}  // namespace

void AddSalvage(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "salvage", "Bring what can be read of a damaged database into a new one",
                 "tarns -d data salvage rescued", "tarns -d data salvage rescued > losses.txt");
  auto directory = std::make_shared<std::string>();
  command.add_option("DIR", *directory, "The directory of the new database, which is made")
      ->required();
  command.callback([&invocation, directory] {
    invocation.action = [&invocation, directory] { return SalvageInto(invocation, *directory); };
  });
}

}  // namespace tarns
