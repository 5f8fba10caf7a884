// Everything that an open store consists of.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <goods/dbs_storage.h>

#include "storage/local/checkpointer.h"
#include "storage/local/commit_log.h"
#include "storage/local/commit_overlay.h"
#include "storage/local/commit_queue.h"
#include "storage/local/layout_registry.h"
#include "storage/local/log_merger.h"
#include "storage/local/newest_states.h"
#include "storage/local/notice_board.h"
#include "storage/local/prepared_commits.h"
#include "storage/local/presence_map.h"
#include "storage/local/read_ahead.h"
#include "storage/local/segment_cache.h"
#include "storage/local/segment_store.h"
#include "storage/local/snapshot_pool.h"
#include "storage/local/store_directory.h"
#include "storage/local/store_versions.h"
#include "storage/local/suggested_cache_size.h"
#include "storage/local/writer_turn.h"
#include "storage/object_locks.h"
#include "storage/storage_address.h"

namespace goods {

// Takes threads, files and locks: a forked child must not touch any of it.
//
// Making one opens the store, creating it when it is missing, and brings what its log has into the
// database. Destroying it merges everything and removes the log; where that fails, the log stays.
struct open_store {
  // `name`: for messages; outlives this. `locks_for`: whom the lock table belongs to. `write`:
  // commits a group.
  open_store(const storage_address& address, const std::string& name, dbs_storage& locks_for,
             commit_queue::writer write);
  ~open_store();
  open_store(const open_store&) = delete;
  open_store& operator=(const open_store&) = delete;

  const store_files files;
  const directory_hold hold;
  const connection_settings settings;
  const bool checked;  // the file is there and its header makes sense
  const bool relaxed;
  writer_turn turn;           // of who commits
  writer_turn database_turn;  // of who writes to the database; taken after `turn`
  segment_store store;
  const storage_identity identity;
  presence_map presence;         // of what is visible
  presence_map stored_presence;  // of what is in the database
  layout_registry layouts;
  prepared_commits prepared;  // of the holder of `database_turn`
  store_versions versions;
  segment_cache cache;
  suggested_cache_size cache_size;
  snapshot_pool readers;
  commit_overlay overlay;
  const newest_states::sources newest;
  read_ahead ahead;
  commit_log log;
  checkpointer checkpoints;
  log_merger merger;
  const commit_version opened_at;
  notice_board notices;
  object_lock_table locks;
  commit_queue queue;

 private:
  bool prepare_files();
  commit_version load_everything();
  void load_tables();
  void replay_log();
  void replay(std::span<const object_change> changes, commit_version through);
};

}  // namespace goods
