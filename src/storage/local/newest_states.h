// Finds the newest states of segments and objects, wherever they are.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <goods/dbs_storage.h>

#include "storage/local/commit_overlay.h"
#include "storage/local/presence_map.h"
#include "storage/local/segment_cache.h"
#include "storage/local/snapshot_pool.h"
#include "storage/local/store_versions.h"

namespace goods {

// Looks into the cache, the overlay and the database, in this order: whatever is not in one of them
// is as new in the next, and what the overlay has is laid over what the database has. The answers
// are the states of the last publication before each call, or of a later one that is on its way.
//
// Made for one load or one commit; takes a snapshot of the database when it first needs one, and a
// newer one whenever a merge has moved states there. Threads: one.
// Errors: corrupt_data for what is missing, damaged or does not fit together; without the writer's
// turn, this may also come from looking while commits were published: see file_is_ahead().
class newest_states {
 public:
  struct sources {
    const std::string& store;
    segment_cache& cache;
    const commit_overlay& overlay;
    const presence_map& presence;
    snapshot_pool& readers;
    const store_versions& versions;
  };
  // `how`: what becomes of segments that are read.
  using reading = segment_cache::reading;
  explicit newest_states(const sources& from, reading how = reading::usual)
      : from_(from), how_(how) {}

  // Null when there is none. `as_of`: a version that was visible before the call; what is read
  // from the database is offered to the cache as of it.
  std::shared_ptr<const segment> find(segment_number number, commit_version as_of);

  // Whether there is such a segment. Whoever holds the writer's turn may ask: where it was not
  // looked at before, it is now, and what find() throws is thrown.
  bool has(segment_number number, commit_version as_of);

  // The body of an object apart, of the segment that find() has returned.
  std::shared_ptr<const byte_block> find_apart(const segment& in, unsigned slot);

  // Whether the database was seen with commits after `as_of`.
  bool file_is_ahead(commit_version as_of) const;

 private:
  snapshot& merged_snapshot();
  std::shared_ptr<const segment> read(segment_number number);

  const sources& from_;
  const reading how_;
  std::optional<snapshot_pool::lease> snapshot_;
};

}  // namespace goods
