// Visits all objects of a store as of one version.
#pragma once

#include <functional>
#include <map>
#include <memory>

#include <goods/dbs_storage.h>

#include "storage/local/commit_overlay.h"
#include "storage/local/snapshot_pool.h"

namespace goods {

// Reads the database in a snapshot of its own, with what has not been merged into it laid over.
// Threads: made by the holder of the writer's turn, used by one thread.
class store_walk {
 public:
  // `unmerged`: what the overlay had before.
  store_walk(const connection_settings& settings, commit_overlay::table unmerged);

  // dbs_storage::for_each().
  void visit(const std::function<bool(const object_state&)>& visitor);

 private:
  void visit_unmerged(segment_number before);
  void visit_segment(const segment_view& in);

  const connection_settings& settings_;
  snapshot merged_;
  std::map<segment_number, std::shared_ptr<const segment_patch>> unmerged_;
  std::unordered_map<object_number, apart_state> apart_;
  const std::function<bool(const object_state&)>* visitor_ = nullptr;
  bool stopped_ = false;
};

}  // namespace goods
