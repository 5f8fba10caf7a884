// A database in a scratch directory.
#pragma once

#include <fstream>
#include <string>

#include <goods/cache_manager.h>
#include <goods/database.h>
#include <goods/ref.h>

#include "support/cell.h"
#include "support/scratch_directory.h"

// The directory and configuration file of a database with some embedded storages.
class test_store {
 public:
  explicit test_store(int storages = 1, const std::string& options = {},
                      scratch_directory::place where = scratch_directory::place::on_disk)
      : directory_(where) {
    std::ofstream file(configuration());
    file << storages << '\n';
    for (int i = 0; i < storages; ++i) {
      file << i << ": file:./data" << i << options << '\n';
    }
  }
  std::string configuration() const { return directory_.file("test.cfg"); }
  const scratch_directory& directory() const { return directory_; }

 private:
  scratch_directory directory_;
};

// A session on a test_store; the thread that makes it is attached.
class test_session {
 public:
  explicit test_session(const test_store& store) : test_session(store.configuration()) {}
  explicit test_session(const std::string& configuration) {
    if (!db_.open(configuration.c_str())) {
      throw std::runtime_error(db_.get_open_problem());
    }
    db_.attach();
  }
  goods::database& db() { return db_; }
  goods::cache_manager& session() { return db_.session(); }

  // The root cell, made when missing.
  goods::ref<cell> root() {
    goods::object_ref found;
    db_.get_root(found);
    if (found.is_null()) {
      db_.set_root(new_cell(0));
      db_.get_root(found);
    }
    return goods::checked_cast<cell>(found);
  }

 private:
  goods::database db_;
};
