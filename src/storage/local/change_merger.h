// Turns a group's changes of objects into changes of segments.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/presence_map.h"
#include "storage/local/segment_cache.h"
#include "storage/local/segment_store.h"

namespace goods {

// What stood in a store before a commit, as far as the commit replaced it.
struct replaced_states {
  std::map<segment_number, std::shared_ptr<const segment>> segments;  // null: there was none
  std::map<object_number, byte_block> apart;
};

// What a transaction has written, for making it visible after its commit.
struct segment_changes {
  struct change {
    segment_number number;
    std::shared_ptr<const segment> now;  // null: removed, or too much to keep in memory
  };
  std::vector<change> changed;
  std::vector<segment_number> added;
  std::vector<segment_number> removed;
};

// Reads, merges and writes within one transaction of the store.
//
// Each segment is built and written once however many objects of it change, and segments are
// written in ascending order, which appends where they are new. Threads: the holder of the writer's
// turn.
class change_merger {
 public:
  // `kept`: null, or where to keep what is replaced.
  change_merger(segment_store& store, segment_store::transaction& into, segment_cache& cache,
                const presence_map& presence, replaced_states* kept);

  // `changes` in commit order; the last one of an object wins. `version`: of the group's last
  // commit.
  segment_changes merge(std::vector<const object_change*> changes, commit_version version);

 private:
  using change_list = std::span<const object_change* const>;

  void merge_segment(segment_number number, change_list changes);
  std::shared_ptr<const segment> current(segment_number number);
  void change_slot(segment_builder& builder, const segment* old, const object_change& change);
  void keep_apart(const segment& old, unsigned slot);
  void note_written(segment_number number, bool existed, std::shared_ptr<const segment> now);
  void write_presence();

  segment_store& store_;
  segment_store::transaction& into_;
  segment_cache& cache_;
  const presence_map& presence_;
  replaced_states* kept_;
  commit_version version_ = 0;
  std::size_t bytes_noted_ = 0;
  segment_changes result_;
};

}  // namespace goods
