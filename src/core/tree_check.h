#pragma once

#include <goods/database.h>

#include <vector>

#include "goods/check_rules.h"

namespace tarns {

// What a check knows of the tree: that the root is a node, that a node and its children's index
// agree, that what an index of children holds are nodes under names that nodes may have, and that a
// node's link to its parent is an entry that stands for the node and stands in an index.
//
// When all of this is done, value indexes are compared with the values.
//
// Two children of one name, and nodes below themselves, are no faults.
class TreeCheck : public goods::check_rules {
 public:
  // `db` is the one that is checked; it outlives this.
  explicit TreeCheck(goods::database& db) : db_(db) {}
  bool is_silent(std::string_view member) const override;
  void check(const goods::stored_object& object, goods::check_desk& desk) override;
  void check_entry(const goods::stored_object& index, std::string_view name,
                   goods::object_id target, goods::check_desk& desk) override;
  void check_root(const goods::stored_object& root, goods::check_desk& desk) override;
  // Compares value indexes with the values as they are then, through the session.
  void finish(goods::check_desk& desk) override;

 private:
  goods::database& db_;
  std::vector<goods::object_id> indexed_;  // nodes whose children have value indexes
};

}  // namespace tarns
