#pragma once

#include <gtest/gtest.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnTransaction.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/scratch_directory.h"

// A database in a directory of its own with one session on it, to which the thread is attached.
class session_test : public testing::Test {
 protected:
  explicit session_test(int storages = 1, const std::string& options = {},
                        scratch_directory::place where = scratch_directory::place::on_disk)
      : directory_(where) {
    std::ofstream file(configuration());
    file << storages << '\n';
    for (int i = 0; i < storages; ++i) file << i << ": file:./data" << i << options << '\n';
    file.close();
    tarns::TarnManager::Initialize();
    open();
  }
  ~session_test() override { close(); }

  std::string configuration() const { return directory_.file("tarns.conf"); }
  const scratch_directory& directory() const { return directory_; }
  tarns::TarnManager& manager() { return *manager_; }

  void open() {
    manager_ = std::make_unique<tarns::TarnManager>();
    manager_->connect(configuration().c_str());
    attachment_ = std::make_unique<tarns::TarnAttachment>(*manager_);
  }
  void close() {
    attachment_.reset();
    manager_.reset();
  }
  // Drops everything that is in memory.
  void reopen() {
    close();
    open();
  }

  // A branch as one line: a=1 b={c=x}. Nodes without children are {}.
  std::string picture(const std::string& path = "") {
    std::string text;
    for (const auto& [name, child] : manager().children(path)) {
      const std::string below = path.empty() ? name : path + "~" + name;
      const auto value = manager().valueAt(below);
      if (!text.empty()) text += ' ';
      text += name;
      if (value) text += "=" + std::string(value->getText());
      if (!value || child->getNumAbstractChildren() > 0) text += '{' + picture(below) + '}';
    }
    return text;
  }

 private:
  scratch_directory directory_;
  std::unique_ptr<tarns::TarnManager> manager_;
  std::unique_ptr<tarns::TarnAttachment> attachment_;
};
