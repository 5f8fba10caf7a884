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
  enum class mode : std::uint8_t {
    usual,
    keeps_old,     // the segments as they were before are wanted
    takes_damage,  // the changes are committed already: damaged segments are there, that is all
  };
  // `newest`: the states that the changes replace. `as_of`: the newest version.
  change_merger(newest_states& newest, commit_version as_of, mode how = mode::usual)
      : newest_(newest), as_of_(as_of), mode_(how) {}

  // `changes` in commit order; the last one of an object wins. `version`: of the group's last
  // commit.
  segment_changes merge(std::vector<const object_change*> changes, commit_version version);

 private:
  using change_list = std::span<const object_change* const>;

  struct old_segment {
    bool existed = false;
    bool is_damaged = false;
    std::shared_ptr<const segment> content;  // where it is needed
  };

  old_segment look_at(segment_number number, bool needs_content);
  void merge_segment(segment_number number, change_list changes);
  void change_apart(const segment* old, const object_change& change);

  newest_states& newest_;
  const commit_version as_of_;
  const mode mode_;
  segment_changes result_;
};

// What `changes`, with the old segments, replace, for standing in for it.
commit_overlay::table replaced_states(const segment_changes& changes, newest_states& newest);

}  // namespace goods
