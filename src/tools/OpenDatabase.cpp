#include "tools/OpenDatabase.h"

#include <tarns/core/TarnException.h>

#include <chrono>
#include <filesystem>

namespace tarns {

namespace {

[[noreturn]] void ThrowNoDatabase(const std::string& named) {
  TarnException error;
  error << "There is no database at \"" << named << "\"; make one with: tarns -d " << named
        << " init";
  error.setErrorID(ErrorID::FileNotFound);
  throw error;
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

OpenDatabase::OpenDatabase(const Invocation& invocation) {
  const std::string configuration = ConfigurationOf(invocation);
  std::error_code ignored;
  if (!std::filesystem::exists(configuration, ignored)) ThrowNoDatabase(invocation.database);
  TarnManager::Initialize();
  manager_.connect(configuration.c_str(),
                   std::chrono::milliseconds(static_cast<long>(invocation.wait * 1000)));
  attachment_ = std::make_unique<TarnAttachment>(manager_);
}

OpenDatabase::~OpenDatabase() = default;

TarnRef OpenDatabase::node(const std::string& path) {
  TarnRef found = manager_.getObject(path);
  if (found.is_null()) TarnException::ThrowNonExistentPath(path.c_str());
  return found;
}

}  // namespace tarns
