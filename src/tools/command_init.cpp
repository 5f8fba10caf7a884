#include <tarns/core/TarnException.h>
#include <tarns/util/FileFP.h>

#include <filesystem>
#include <memory>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"

namespace tarns {

namespace {

constexpr const char* kConfiguration = "1\n0: file:./data\n";

int Init(Invocation& invocation, const std::string& directory) {
  if (!directory.empty()) invocation.database = directory;
  if (invocation.database.empty()) throw UsageError{"Name the directory to make the database in."};
  const std::filesystem::path place(invocation.database);
  const std::string configuration = (place / OpenDatabase::kConfigurationName).string();
  if (std::filesystem::exists(configuration)) {
    TarnException error;
    error << "There is a database at \"" << invocation.database << "\" already.";
    throw error;
  }
  if (std::filesystem::create_directories(place)) {
    std::filesystem::permissions(place, std::filesystem::perms::owner_all);
  }
  FileFP::WriteToFile(configuration.c_str(), kConfiguration);
  OpenDatabase(invocation)->getRoot();
  return ExitStatus::kDone;
}

}  // namespace

void AddInit(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(app, "init", "Make a new database in a directory",
                                 "tarns init data", "TARNS_DB=data tarns init");
  auto directory = std::make_shared<std::string>();
  command.add_option("DIR", *directory, "The directory, made when missing; otherwise that of -d");
  command.callback([&invocation, directory] {
    invocation.action = [&invocation, directory] { return Init(invocation, *directory); };
  });
}

}  // namespace tarns
