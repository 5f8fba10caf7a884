// A session on an empty database of its own, for the fuzzers of what is imported.
#pragma once

#include <tarns/logging/Log.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <fstream>
#include <optional>
#include <string_view>

#include "tests/support/scratch_directory.h"

namespace fuzz {

// Attaches the thread; what is logged is dropped.
class OpenSession {
 public:
  OpenSession() {
    tarns::Log::Redirect([](tarns::Log::Level, std::string_view) {});
    std::ofstream(directory_.file("tarns.conf")) << "1\n0: file:./data\n";
    tarns::TarnManager::Initialize();
    manager_.connect(directory_.file("tarns.conf").c_str());
    attachment_.emplace(manager_);
  }
  tarns::TarnManager& manager() { return manager_; }

 private:
  scratch_directory directory_{scratch_directory::place::in_memory};
  tarns::TarnManager manager_;
  std::optional<tarns::TarnAttachment> attachment_;
};

}  // namespace fuzz
