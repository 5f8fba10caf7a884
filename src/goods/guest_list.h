// Objects that one reader looks at in passing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>
#include <goods/object_ref.h>

#include "goods/body_arena.h"

namespace goods {

class cache_manager;
class obj_storage;
class object;

// Bodies that were loaded for one round of one reader: they have no handle, the session's cache
// does not know them, and they go with the list.
//
// They are of one state with everything else that the round sees, by the rule that holds for the
// round as a whole: a load answers as of a version that the session has applied, or the session
// applies what is missing; in both cases a round during which that version changes is repeated, and
// begins with an empty list. So a list never outlives a round.
// Threads: the reader's.
class guest_list {
 public:
  ~guest_list() { clear(); }
  guest_list(const guest_list&) = delete;
  guest_list& operator=(const guest_list&) = delete;

  // An empty one. A thread keeps the memory of those that it gave back last.
  static std::unique_ptr<guest_list> take();
  static void give_back(std::unique_ptr<guest_list> list) noexcept;

  // Null when it is not here.
  const object* find(object_id id) const;
  // The same for what came along with the objects that are here. Costs less than asking the
  // session's cache: that would have to be fetched from memory.
  const object* find_nearby(cache_manager& session, object_id id);
  // Loads one object; null for what the other load() passes over.
  const object* load(cache_manager& session, object_id id);

  // Loads those objects that are of a class that may be a guest; passes over what is here already,
  // what nothing is stored under, and other classes. Throws corrupt_data. Changes the order of
  // `ids`.
  void load(cache_manager& session, std::span<object_id> ids);

  // Loads those of the objects behind `words` that neither the list nor the session's cache has,
  // and has the processor fetch the others. Null references are allowed.
  void prefetch(cache_manager& session, std::span<const ref_word> words);

  // Tells storages what will be loaded before long.
  void expect(cache_manager& session, std::span<const ref_word> words);

  // Whether storages need not remember what is loaded from now on; usually they do.
  void set_passing(bool are_passing) { are_passing_ = are_passing; }

  void clear() noexcept;

 private:
  class sink;
  struct wanted_object {
    object_id id;
    object_handle* handle;  // null when it is not known, or there is none
  };
  struct place {
    object_id id = 0;
    std::uint32_t body = 0;     // in bodies_
    std::uint32_t filling = 0;  // free unless it is filling_
  };

  // What came along with an object.
  struct held_group {
    object_id place = 0;  // see place_of_group()
    std::shared_ptr<const state_group> states;
  };

  guest_list() = default;
  std::size_t place_of(object_id id) const;
  const object* take_in(obj_storage& storage, object_id id, const object_state& state);
  bool hold(object_id id, const state_group* group);
  std::uint8_t& group_at(object_id where);
  void add(object_id id, object& body);  // destroys it later, or at once when it throws
  void grow();

  std::vector<held_group> groups_;  // they also keep the bytes that bodies refer to
  // Which of these is at a place, from 1 on; 0: none. Open addressing with linear probing.
  std::array<std::uint8_t, 128> group_places_{};
  body_arena arena_;
  std::vector<object*> bodies_;
  std::vector<place> places_;  // open addressing with linear probing, at most half full
  std::uint32_t filling_ = 1;  // grows when everything is cleared
  bool are_passing_ = false;
  std::vector<wanted_object> wanted_;  // of prefetch()
  std::vector<object_id> absent_;
};

}  // namespace goods
