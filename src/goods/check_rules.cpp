#include "goods/check_rules.h"

#include <algorithm>

#include <fmt/format.h>

#include <goods/byte_reader.h>

namespace goods {

bool is_class(const class_layout& layout, std::string_view class_name) {
  return layout.name == class_name ||
         std::ranges::find(layout.bases, class_name) != layout.bases.end();
}

std::string text_of(object_id id) {
  return id == 0 ? "none" : fmt::format("{}:{}", storage_of(id), number_of(id));
}

bool stored_object::is_a(std::string_view class_name) const { return is_class(layout, class_name); }

void stored_object::for_each_member(
    const std::function<void(const dbs_field_descriptor&, byte_reader)>& visit) const {
  byte_reader in(state, id);
  for (const dbs_field_descriptor& field : layout.fields) {
    visit(field, in);
    walk_field(field, in, {});
  }
  if (!in.at_end()) in.fail("has bytes behind its end");
}

object_id stored_object::reference(std::string_view member) const {
  object_id target = 0;
  bool is_found = false;
  for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
    if (is_found || field.name != member) return;
    is_found = true;
    if (field.type == field_type::reference && field.n_items == 1) target = in.get_reference();
  });
  return target;
}

}  // namespace goods
