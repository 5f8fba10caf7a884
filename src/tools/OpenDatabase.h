#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <memory>
#include <string>

#include "tools/Invocation.h"

namespace tarns {

// The session that a command works in, from construction to destruction.
class OpenDatabase {
 public:
  // The name of the configuration file in a directory that init makes.
  static constexpr const char* kConfigurationName = "tarns.conf";

  // Throws UsageError when no database was named, and what connecting throws: 17 when there is
  // none, or one of its storages has not been made, 105 when it is in use for longer than
  // Invocation::wait.
  explicit OpenDatabase(const Invocation& invocation);
  ~OpenDatabase();

  // Makes the database that a configuration file describes.
  static void Make(const std::string& configuration, const Invocation& invocation);

  TarnManager* operator->() { return &manager_; }
  TarnManager& operator*() { return manager_; }

  // The node at a path; throws 7 when there is none.
  TarnRef node(const std::string& path);

 private:
  OpenDatabase(const std::string& configuration, const Invocation& invocation);

  TarnManager manager_;
  std::unique_ptr<TarnAttachment> attachment_;
};

// The configuration file of the database that was named; that there is one is not checked.
std::string ConfigurationOf(const Invocation& invocation);

}  // namespace tarns
