#pragma once

#include <goods/cache_manager.h>
#include <goods/database.h>
#include <tarns/core/TarnObject.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/scratch_directory.h"

// A database of one storage in a directory of its own, open and attached to the calling thread,
// whose root is a plain node.
class stored_tree {
 public:
  stored_tree() {
    std::ofstream(configuration()) << "1\n0: file:data\n";
    open();
    goods::object_ref root(tarns::TarnObject::Create());
    database_->set_root(root);
  }
  stored_tree(const stored_tree&) = delete;
  stored_tree& operator=(const stored_tree&) = delete;
  ~stored_tree() { close(); }

  // The root as what is stored now says; held by nobody else.
  tarns::TarnRef root() const {
    goods::object_ref root;
    database_->get_root(root);
    return tarns::TarnRef(root);
  }

  // Drops everything that is in memory.
  void reopen() {
    close();
    open();
  }

  goods::database& database() { return *database_; }
  goods::cache_manager& session() { return database_->session(); }

  // Another session on the same storage; not attached.
  std::unique_ptr<goods::database> open_another() const {
    auto other = std::make_unique<goods::database>();
    if (!other->open(configuration().c_str())) throw std::runtime_error(other->get_open_problem());
    return other;
  }

 private:
  std::string configuration() const { return directory_.file("database.cfg"); }
  void open() {
    database_ = open_another();
    database_->attach();
  }
  void close() {
    database_->detach();
    database_->close();
  }

  scratch_directory directory_;
  std::unique_ptr<goods::database> database_;
};
