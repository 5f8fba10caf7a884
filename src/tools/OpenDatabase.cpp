#include "tools/OpenDatabase.h"

#include <tarns/core/TarnException.h>

#include <chrono>
#include <filesystem>

#include "tools/storage_directories.h"

namespace tarns {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void ThrowNotFound(TarnException error) {
  error.setErrorID(ErrorID::FileNotFound);
  throw error;
}

// Whether there is something; throws when that cannot be found out.
bool IsThere(const fs::path& path) {
  std::error_code problem;
  const fs::file_status status = fs::status(path, problem);
  if (status.type() != fs::file_type::none) return fs::exists(status);
  TarnException error;
  error << "Cannot look for \"" << path.string() << "\": " << problem.message() << ".";
  throw error;
}

bool IsEmpty(const fs::path& directory) {
  std::error_code problem;  // which connecting will meet, too
  return fs::is_empty(directory, problem) && !problem;
}

// Opening would make what is missing, which is right for init only. What else may be wrong with
// the file is found out by connecting.
void VerifyStorages(const std::string& configuration) {
  for (const std::string& directory : StorageDirectoriesOf(configuration)) {
    if (IsThere(directory) && !IsEmpty(directory)) continue;
    TarnException error;
    error << "There is no storage at \"" << directory << "\", which the configuration file \""
          << configuration << "\" names.";
    ThrowNotFound(error);
  }
}

std::string ExistingConfiguration(const Invocation& invocation) {
  std::string configuration = ConfigurationOf(invocation);
  if (!IsThere(configuration)) {
    TarnException error;
    error << "There is no database at \"" << invocation.database
          << "\"; tarns init DIRECTORY makes one.";
    ThrowNotFound(error);
  }
  VerifyStorages(configuration);
  return configuration;
}

}  // namespace

std::string ConfigurationOf(const Invocation& invocation) {
  if (invocation.database.empty()) {
    throw UsageError{"No database was named: use -d, or set TARNS_DB."};
  }
  std::error_code ignored;
  const std::filesystem::path named(invocation.database);
  if (!std::filesystem::is_directory(named, ignored)) return invocation.database;
  return (named / OpenDatabase::kConfigurationName).string();
}

OpenDatabase::OpenDatabase(const Invocation& invocation)
    : OpenDatabase(ExistingConfiguration(invocation), invocation) {}

OpenDatabase::OpenDatabase(const std::string& configuration, const Invocation& invocation) {
  TarnManager::Initialize();
  manager_.supportDependencies(true);
  manager_.connect(configuration.c_str(),
                   std::chrono::milliseconds(static_cast<long>(invocation.wait * 1000)),
                   invocation.loadLibraries);
  if (invocation.cache) manager_.setCacheLimit(*invocation.cache);
  attachment_ = std::make_unique<TarnAttachment>(manager_);
}

OpenDatabase::~OpenDatabase() = default;

void OpenDatabase::Make(const std::string& configuration, const Invocation& invocation) {
  OpenDatabase(configuration, invocation)->getRoot();
}

TarnRef OpenDatabase::node(const std::string& path) {
  TarnRef found = manager_.getObject(path);
  if (found.is_null()) TarnException::ThrowNonExistentPath(path.c_str());
  return found;
}

}  // namespace tarns
