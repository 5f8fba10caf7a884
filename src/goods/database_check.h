// Verifies the objects of a database against each other.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <goods/database.h>
#include <goods/dbs_storage.h>
#include <goods/object_ref.h>

#include "goods/check_rules.h"
#include "goods/object_marks.h"

namespace goods {

// One check of a database: database::check().
//
// First each storage verifies itself and shows its objects, in the order of numbers: which there
// are, and whether they are parts of indexes. A full check then goes from the roots along all
// references, depth first, and looks at each object once; the way to it is known, which is its path
// in what is reported. Objects are read as their layouts say, never made. Last come those that
// nothing has led to: they need only be readable, since what they refer to may have been removed
// already.
//
// Back references are followed last, when nothing else is left, since ways along them have no
// names. Threads: one.
class database_check final : private check_desk {
 public:
  // All outlive the check; `rules` may be null.
  database_check(database& db, const check_options& options, check_rules* rules);
  ~database_check();

  check_result run();

 private:
  friend class index_check;

  struct storage_state {
    dbs_storage* dbs = nullptr;
    std::unique_ptr<storage_view> view;                        // null: it cannot be read at all
    std::vector<std::shared_ptr<const class_layout>> layouts;  // by number; null: damaged
    object_marks marks;
    std::vector<std::pair<object_number, object_number>> lost;  // ranges that cannot be read
  };
  struct stopped {};
  class storage_sink;
  // An object on the way to the one that is looked at, and under which name it was passed.
  struct step {
    object_id id;
    std::string name;
    bool is_named = false;  // `name` is known
  };

  void open_views();
  void read_layouts(storage_number storage);
  void check_storage(storage_number storage);
  void note_kind(storage_number storage, const object_state& state);

  void look_for_roots();
  void check_roots();
  void report_no_root();
  void follow(object_id root);
  void enter(object_id id);
  void expand(const stored_object& object);
  void push(const stored_object& from, object_id target, std::string_view member, ref_kind kind);
  bool may_stand_in_index(object_id member);
  void check_places();
  void check_unreachable();

  // check_desk
  void report(object_id id, std::string_view name, std::string text) override;
  bool look(object_id id, const std::function<void(const stored_object&)>& visit) override;
  bool is_member(object_id id) const override;
  void needs_place(object_id member) override;

  // Copies the object's state; null, and reported, when it cannot be read.
  const class_layout* read(object_id id, std::vector<std::byte>& state);
  const class_layout* layout_of(storage_number storage, class_number number) const;
  bool is_storage(object_id id) const { return storage_of(id) < storages_.size(); }
  bool has(object_id id, object_marks::mark one) const;
  bool mark(object_id id, unsigned marks);
  bool is_lost(object_id id) const;
  // Whether it is there and of the kind; true for what cannot be read.
  bool is_kind(object_id id, object_marks::mark kind) const;
  std::string path_to_here();
  std::string name_between(object_id from, object_id to);
  void add(check_finding finding);
  void go_on();

  database& db_;
  const check_options& options_;
  check_rules* const rules_;
  check_progress reached_;
  check_result result_;
  std::vector<storage_state> storages_;
  std::vector<std::uint64_t> pushed_;   // marked, not looked at yet; or the end of a step
  std::vector<object_id> pushed_back_;  // by back references; not marked
  std::vector<step> way_;
  std::set<object_id> half_read_;  // indexes of which not all pages could be looked at
  std::size_t unrecorded_ = 0;     // steps that the way is too long for
  unsigned calls_ = 0;
};

}  // namespace goods
