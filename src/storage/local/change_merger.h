// Turns a group's changes of objects into changes of segments.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/commit_overlay.h"
#include "storage/local/newest_states.h"

namespace goods {

// Builds patches in memory and writes nothing. The segments that change are looked at, so that
// damage is found before anything is durable.
//
// Each patch is built once however many objects of its segment change. Threads: the holder of the
// writer's turn.
class change_merger {
 public:
  // `newest`: the states that the changes replace. `as_of`: the newest version. `keeps_old`:
  // whether the segments as they were before are wanted.
  change_merger(newest_states& newest, commit_version as_of, bool keeps_old = false)
      : newest_(newest), as_of_(as_of), keeps_old_(keeps_old) {}

  // `changes` in commit order; the last one of an object wins. `version`: of the group's last
  // commit.
  segment_changes merge(std::vector<const object_change*> changes, commit_version version);

 private:
  using change_list = std::span<const object_change* const>;

  void merge_segment(segment_number number, change_list changes);
  void change_apart(const segment* old, const object_change& change);

  newest_states& newest_;
  const commit_version as_of_;
  const bool keeps_old_;
  segment_changes result_;
};

// What `changes`, with the old segments, replace, for standing in for it.
commit_overlay::table replaced_states(const segment_changes& changes, newest_states& newest);

}  // namespace goods
