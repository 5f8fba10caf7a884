// From private copies to what the storages are asked to commit.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <vector>

#include <goods/dbs_storage.h>
#include <goods/object_ref.h>

#include <goods/byte_writer.h>
#include "goods/number_pool.h"
#include "storage/multi_commit.h"

namespace goods {

class database;
class obj_storage;
class object;
class object_handle;
class publication;

// Finds the transient objects that a transaction's copies refer to, directly or through each other,
// makes them persistent and packs everything.
//
// What is written anew, and what references lead to that have been set, must be there when the
// commit's turn comes: the storages check it (commit_request::builds_on). References that a copy
// has from the version before it are the collection's business. To the end of the commit what it
// builds on is counted, so that no collection removes it after the check: a commit over several
// storages is finished some time after that.
//
// New objects get neighbouring numbers in the order of a depth-first walk: what is read together
// ends up side by side. The walk keeps its own stack, so chains of any length are fine. Threads:
// the committing one.
class commit_builder {
 public:
  commit_builder(database& db, publication& changes) : db_(db), changes_(changes) {}

  // `root` becomes the root object of `storage`.
  void add_root(const object_ref& root, storage_number storage);

  // `object`, if it is still transient, is stored in `storage` though nothing refers to it.
  void add_loose(const object_ref& object, storage_number storage);

  // Numbers and packs. What it made persistent is in publication::created, also when it throws.
  void build();

  // Of a back reference that was set to what had the identifier `id` then. After build(). Throws
  // deadlock when the object is no longer stored under it: another commit has failed meanwhile.
  void build_on_target(object_id id, const object_ref& target);

  // One part for each storage that anything changes in; they refer to this builder's memory.
  std::vector<commit_part> parts(const void* origin,
                                 const std::shared_ptr<publication>& attachment);
  // Verifies what the commit builds on in storages that it changes nothing in. Throws
  // object_deleted.
  void check_other_storages();

  // The commit has failed: the numbers of what it made may be used again.
  void withdraw_numbers();
  storage_number storage_of_part(std::size_t index) const { return part_storages_[index]; }

 private:
  struct share {
    share(obj_storage& belongs_to, commit_version taken_in);
    obj_storage& storage;
    number_run numbers;
    bool makes_root = false;
    byte_writer bytes;
    std::vector<object_change> changes;
    std::vector<std::size_t> ends;  // where each change's state ends in `bytes`
    std::vector<object_number> builds_on;
    commit_version seen_at;  // 0 as soon as not all of these are known to be there
  };
  struct found_object {
    object_handle* handle;
    storage_number storage;  // of the object that refers to it
  };

  class reference_visitor;

  share& share_of(storage_number storage);
  bool push_referenced(object& body, storage_number storage, bool is_new);
  void build_on(object_id id, const object_handle* handle, commit_version seen_at = 0);
  void make_persistent(object_handle& handle, storage_number storage);
  void pack(object& body, object_id id, bool is_new);
  void pack_numbered();

  database& db_;
  publication& changes_;
  std::map<storage_number, share> shares_;
  share* last_share_ = nullptr;  // asked for
  storage_number last_storage_ = 0;
  std::size_t packed_ = 0;          // of publication::created, from the first on
  bool packs_late_ = false;         // nothing before everything is numbered
  std::vector<found_object> open_;  // the walk's stack
  std::vector<storage_number> part_storages_;
  std::vector<object_ref> kept_;  // built on, and known by their identifiers alone
};

}  // namespace goods
