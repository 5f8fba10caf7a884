// What was committed and is not in the database yet.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/patch_table.h"
#include "storage/local/segment_patch.h"

namespace goods {

// An object that is stored by itself, as some commit left it.
struct apart_state {
  std::shared_ptr<const byte_block> body;  // null: it is not apart any more, or not there
  commit_version version = 0;
};

// What commits did to segments and to objects apart.
struct segment_changes {
  struct change {
    segment_number number;
    bool existed, exists;                        // before and afterwards
    std::shared_ptr<const segment> before;       // where that was asked for
    std::shared_ptr<const segment_patch> patch;  // from the one to the other
  };
  struct apart_change {
    object_number number;
    std::shared_ptr<const byte_block> body;  // null: removed
  };
  std::vector<change> changed;      // ascending
  std::vector<apart_change> apart;  // ascending
  std::uint64_t next_object = 0;    // above all numbers in it
  commit_version version = 0;       // of the last commit
};

// What is laid over the segments of the database: what commits did to them, until a merge has
// written it there, or, while a commit over several storages is hidden, the older segments that it
// replaced.
//
// Commits go into the active table. A merge freezes it and begins a new one; loads look into both
// until the merge has written the frozen one. It holds the objects that have changed and not their
// neighbours, so that many commits are merged by writing each segment once.
// Threads: any; one mutex, held for a look-up or while a group is put in.
class commit_overlay {
 public:
  struct table {
    // Those apart that were never put in, in the table that is active, are of version 0.
    patch_table segments;
    std::unordered_map<object_number, apart_state> apart;
    std::size_t bytes = 0;  // of memory
    std::uint64_t next_object = 0;
    commit_version version = 0;  // 0: nothing was committed into it

    // Null: nothing is known of it here.
    std::shared_ptr<const segment_patch> find(segment_number number) const;
    // Of version 0: likewise.
    apart_state find_apart(object_number number) const;
  };

  // What is to be laid over the segment in the database: `newer` over `older`. Either may be null.
  struct layers {
    std::shared_ptr<const segment_patch> newer, older;
  };
  layers find(segment_number number) const;
  // Nothing: ask the database. A null body: the object is not apart.
  std::optional<apart_state> find_apart(object_number number) const;

  // Commits that are about to be added.
  class addition {
   public:
    // When they have been added: what is now laid over the n-th segment that changes, and what was
    // before.
    const std::shared_ptr<const segment_patch>& now(std::size_t n) const {
      return *segments_[n].place;
    }
    const std::shared_ptr<const segment_patch>& before(std::size_t n) const {
      return segments_[n].by;
    }

   private:
    friend class commit_overlay;
    template <class Value>
    struct replacement {
      Value* place;  // in the active table
      Value by;
    };
    std::vector<replacement<std::shared_ptr<const segment_patch>>> segments_;
    std::vector<replacement<apart_state>> apart_;
    std::uint64_t next_object_ = 0;
    commit_version version_ = 0;
  };
  // Takes the memory that adding them needs, before they become durable. Until then nothing else is
  // added or frozen.
  addition prepare(const segment_changes& changes);
  // Adds commits to the active table.
  void add(addition& prepared) noexcept;
  // Makes the active table the frozen one, of which there was none.
  void freeze();
  // Null when there is none. It does not change until drop_frozen().
  std::shared_ptr<const table> frozen() const;
  // The database has it.
  void drop_frozen();

  // The old states that stand in for what a commit puts into the database. Everything has been
  // merged before.
  void hold(table old_states);
  void drop_held();

  bool is_active_empty() const;
  std::size_t active_bytes() const;
  // Everything in one table, and nothing else; held states included.
  table copy() const;

 private:
  mutable guarded_mutex lock_;
  std::atomic<bool> is_empty_{true};
  table active_ GUARDED_BY(lock_);
  std::shared_ptr<const table> frozen_ GUARDED_BY(lock_);
  std::shared_ptr<const table> held_ GUARDED_BY(lock_);

  template <class Replacement>
  void put(Replacement& replacement) REQUIRES(lock_);
  void note_size() REQUIRES(lock_);
};

}  // namespace goods
