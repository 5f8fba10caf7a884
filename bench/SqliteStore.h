#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "BenchStore.h"

struct sqlite3;

namespace tarns::bench {

// A tree in an adjacency table, as applications keep one in SQLite: a row per node, found by its
// parent's number and its name. WAL, synchronous=FULL, every statement prepared once per thread.
//
// Each session is a connection. Writers queue at a mutex of ours instead of SQLite's busy handler,
// which sleeps: that is the faster of the two.
class SqliteStore : public BenchStore {
 public:
  explicit SqliteStore(const Options& options);
  ~SqliteStore() override;

  std::unique_ptr<StoreSession> session() override;
  std::size_t packagesPerCommit() const override;

 private:
  Options options_;
  sqlite3* open_;  // so that the log is merged when the store closes, not with the last session
  std::mutex writing_;
};

}  // namespace tarns::bench
