// Finds and removes stored objects that nothing leads to.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <goods/dbs_storage.h>
#include <goods/object_ref.h>

namespace goods {

class database;

// One collection over all storages of a database, while sessions go on reading and committing.
//
// Marks what the root objects and the references held by any session lead to, reading current
// states; whatever was changed meanwhile is looked at again. An object that is not marked in the
// end can be reached by nobody: to refer to it one would have to hold it, or hold or find something
// that leads to it, and all of that has been marked. Objects made after the beginning are left
// alone. Back references count like others.
//
// Interrupted at any point (also by a crash), nothing but garbage is missing; run it again.
// Errors: those of loading and committing. Threads: one collection at a time for a database.
class collector {
 public:
  explicit collector(database& db);
  ~collector();

  // Returns how many objects were removed.
  std::uint64_t run();

 private:
  // One bit for each object number from first_object_number up.
  class number_set {
   public:
    bool insert(object_number number);  // whether it was not yet there
    bool contains(object_number number) const;

   private:
    std::vector<bool> bits_;
  };
  struct storage_state {
    dbs_storage* storage;
    std::unique_ptr<notice_subscription> changes;
    number_set marked;
    std::vector<object_number> existing;  // at the beginning, ascending
  };
  class reference_sink;

  void list_existing();
  void mark_roots();
  void mark_held();
  bool mark_changed();
  void push(object_id id);
  void push_again(object_id id);
  void mark_pushed();
  std::uint64_t sweep(storage_state& state);

  database& db_;
  std::vector<storage_state> storages_;
  std::vector<object_id> pushed_;  // marked, not looked into yet
};

}  // namespace goods
