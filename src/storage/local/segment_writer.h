// Puts changed segments into the database.
#pragma once

#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/commit_overlay.h"
#include "storage/local/presence_map.h"
#include "storage/local/segment_store.h"

namespace goods {

// Writes within one transaction, segments in ascending order, which appends where they are new.
// What patches leave alone is read there; where that is damaged, it is lost, and the objects that
// were there are damaged from then on.
// Threads: the holder of the database's turn.
class segment_writer {
 public:
  // `stored`: which segments the database has.
  segment_writer(segment_store::transaction& into, presence_map& stored)
      : into_(into), stored_(stored) {}

  void write(const commit_overlay::table& changes);
  void write(const segment_changes& changes);

  // After the transaction has been committed, which must be told to the end.
  void note_committed() noexcept;

 private:
  void write_patch(const segment_patch& patch);
  std::shared_ptr<const segment> read_below(const segment_patch& patch);
  void write_segment(const segment_view& now);
  void remove_segment(segment_number number);
  void write_apart(object_number number, const byte_block* body, commit_version version);
  void finish(commit_version version, std::uint64_t next_object);
  void write_presence();

  segment_store::transaction& into_;
  presence_map& stored_;
  std::vector<segment_number> added_, removed_;
};

}  // namespace goods
