// How far a store's commits have come.
#pragma once

#include <atomic>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"

namespace goods {

// Shared by all parts of a storage.
struct store_versions {
  // Everything up to it can be loaded, and its notices are queued.
  std::atomic<commit_version> visible{0};
  // Everything up to it is in the database.
  std::atomic<commit_version> merged{0};
  // Odd while commits are being published.
  std::atomic<std::uint64_t> publications{0};
  // A commit over several storages is in the database, and `visible` does not reach it: what it
  // replaced is in the overlay.
  std::atomic<bool> has_hidden{false};
  // Held while commits are published: whoever holds it sees one version.
  guarded_mutex publishing;
};

}  // namespace goods
