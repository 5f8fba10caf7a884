// Stored states that a transaction looks at without giving them a place in the session's cache.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include <goods/dbs_storage.h>
#include <goods/object_ref.h>

#include "goods/body_arena.h"

namespace goods {

class cache_manager;
class class_descriptor;
class obj_storage;
class object;

// What storages have handed over lately (the groups of what was asked for), and guests: bodies made
// from it that have no handle and that the session does not know.
//
// Who asks holds a lock on the object. So its newest state stays that; another object's state is
// taken from a group only as long as nothing has been committed to the storage since the group was
// loaded, which the lock tells. Guests are not changed and not replaced while the locks are held.
// Ownership: the thread's attachment; guests go when its outermost read is over, groups with the
// transaction. Threads: that one.
class locked_states {
 public:
  locked_states() = default;
  ~locked_states() { clear_guests(); }
  locked_states(const locked_states&) = delete;
  locked_states& operator=(const locked_states&) = delete;

  // Hands the state of an object to `into`; it is as of the version that is returned. `newest`:
  // what locking the object has returned. Takes in all commits up to that version.
  commit_version load(cache_manager& session, object_id id, commit_version newest,
                      state_sink& into);

  // A body of the object, or null for what has to be looked at in the usual way: objects of classes
  // that may not be guests, what is not there, and everything when there are too many guests.
  const object* guest(cache_manager& session, object_id id, commit_version newest);

  // Whether the state is in a group that was loaded before.
  bool has(object_id id, commit_version newest) const {
    object_state state{};
    return find(id, newest, state);
  }

  // The class of an object, locked or not. Throws object_deleted when there is none.
  class_descriptor& class_of(cache_manager& session, object_id id);

  void clear_guests() noexcept;  // when no read is in progress
  void release_groups() noexcept;

 private:
  static constexpr std::size_t most_groups = 4;    // of some kilobytes each
  static constexpr std::size_t most_guests = 256;  // that are kept at a time

  struct held_group {
    object_id place = 0;  // the same for objects that are probably in one group
    commit_version as_of = 0;
    std::shared_ptr<const state_group> states;
  };
  struct placed_guest {
    object* body;
    std::shared_ptr<const state_group> reads_from;
  };

  bool find(object_id id, commit_version newest, object_state& state) const;
  void hold(object_id id, std::shared_ptr<const state_group> group, commit_version as_of);

  std::array<held_group, most_groups> groups_;
  std::size_t next_group_ = 0;
  body_arena arena_;
  std::vector<placed_guest> guests_;
};

// Does something with the one state that is asked for.
template <class Act>
class acting_sink : public state_sink {
 public:
  explicit acting_sink(Act act) : act_(std::move(act)) {}
  void found(const object_state& state) override { act_(state); }
  void missing(object_number) override {}

 private:
  Act act_;
};

}  // namespace goods
