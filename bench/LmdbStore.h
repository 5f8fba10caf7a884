#pragma once

#include <memory>

#include "BenchStore.h"

struct MDB_env;

namespace tarns::bench {

// Raw LMDB: the whole path is the key, a byte for the type and the value are the data. A node that
// holds others exists only by their keys. What a memory-mapped B-tree without a tree of objects on
// top can do: something to aim at, not a rival that does the same.
//
// The cache limit does not apply: the mapping is the page cache. 8 GiB at most.
class LmdbStore : public BenchStore {
 public:
  explicit LmdbStore(const Options& options);
  ~LmdbStore() override;

  std::unique_ptr<StoreSession> session() override;
  std::size_t packagesPerCommit() const override;

 private:
  MDB_env* environment_ = nullptr;
  unsigned int table_ = 0;
};

}  // namespace tarns::bench
