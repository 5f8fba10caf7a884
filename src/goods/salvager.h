// The copying half of a salvage.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <goods/byte_writer.h>
#include <goods/database.h>
#include <goods/dbs_storage.h>
#include <goods/salvage.h>

#include "goods/check_rules.h"
#include "goods/object_marks.h"
#include "storage/local/salvaged_store.h"

namespace goods {

// One salvage: salvage().
//
// First finds out which objects can be read, as their layouts say. Then goes through all indexes
// and decides whether each is whole: all of its pages, and for each entry its member and its
// object. Last, everything is copied; the pages of indexes that were not whole become garbage.
// Threads: one.
class salvager {
 public:
  salvager(const std::string& from, database& into,
           const std::function<void(std::uint64_t)>& progress);
  salvage_result run();

 private:
  struct layout_entry {
    std::shared_ptr<const class_layout> layout;
    class_number number = 0;  // in the new storage
  };
  struct storage_state {
    std::unique_ptr<salvaged_store> store;
    std::map<class_number, layout_entry> layouts;
    object_marks marks;
  };
  // Changes that are on their way into the new database.
  class batch;

  void finish_commits();
  void read_layouts(storage_number storage);
  void note_objects(storage_number storage);
  void check_index(const stored_object& index);
  bool take_pages(const stored_object& page, std::uint64_t level, object_id index,
                  std::vector<loose_entry>& entries);
  bool take_entry(const loose_entry& entry, object_id member, object_id index);
  void find_loose_members(storage_number storage);
  void copy_objects(storage_number storage);
  void rewrite(const stored_object& object, byte_writer& out);
  void rewrite_member(const stored_object& object, const dbs_field_descriptor& member,
                      byte_reader& in, byte_writer& out);
  bool is_emptied(object_id id) const { return broken_.contains(id); }

  void for_each(storage_number storage, const std::function<void(const stored_object&)>& visit);
  bool look(object_id id, const std::function<void(const stored_object&)>& visit);
  bool has(object_id id, object_marks::mark one) const;

  database& into_;
  const std::function<void(std::uint64_t)>& progress_;
  std::vector<storage_state> storages_;
  std::unordered_set<object_id> broken_;  // indexes that are emptied
  salvage_result result_;
};

}  // namespace goods
