#include "goods/index_check.h"

#include <fmt/format.h>

#include <goods/byte_reader.h>
#include <goods/index_page.h>
#include <goods/set_member.h>

namespace goods {

// The layout says what there is; an evolved one may have more.
index_check::page index_check::read(const stored_object& object) {
  page result;
  object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
    if (field.name == "level" && field.size == 1) result.level = in.get_byte();
    if (field.name == "count" && field.size == 8) result.count = in.get_unsigned();
    const bool has_members = field.name == "entries";
    if (!has_members && field.name != "pages") return;
    for (std::size_t left = in.get_count(); left > 0; --left) {
      entry& one = result.entries.emplace_back();
      one.name = in.get_text();
      one.first = in.get_reference();
      if (has_members)
        one.target = in.get_reference();
      else
        one.count = in.get_unsigned();
    }
  });
  return result;
}

void index_check::run() {
  const page root = read(index_);
  const auto members = check(index_.id, root, {});
  if (members && *members != root.count) {
    of_.report(index_.id, "",
               fmt::format("is an index that has {} entries and says {}", *members, root.count));
  }
}

void index_check::check_order(object_id id, const page& what, const bounds& within) {
  const std::size_t first = what.level == 0 ? 0 : 1;  // the first bound is never looked at
  const std::string* before = within.low;
  for (std::size_t i = first; i < what.entries.size(); ++i) {
    const std::string& name = what.entries[i].name;
    if (name.size() > set_member::max_key_length) {
      return of_.report(id, name, "stands in an index under a name that is too long");
    }
    if ((before != nullptr && name < *before) || (within.high != nullptr && name > *within.high)) {
      return of_.report(id, name, "is a page of an index that is out of order here");
    }
    before = &name;
  }
}

std::optional<std::uint64_t> index_check::check(object_id id, const page& what,
                                                const bounds& within) {
  of_.go_on();
  check_order(id, what, within);
  if (what.level == 0) {
    for (const entry& one : what.entries) check_member(id, one);
    return what.entries.size();
  }
  std::uint64_t members = 0;
  bool is_known = true;
  for (std::size_t i = 0; i < what.entries.size(); ++i) {
    bounds below = within;
    if (i > 0) below.low = &what.entries[i].name;
    if (i + 1 < what.entries.size()) below.high = &what.entries[i + 1].name;
    const auto counted = check_below(id, what, i, below);
    is_known = is_known && counted.has_value();
    members += counted.value_or(0);
  }
  if (!is_known) return std::nullopt;
  return members;
}

// Nobody knows what stands in a page that cannot be read.
std::optional<std::uint64_t> index_check::not_read() {
  of_.half_read_.insert(index_.id);
  return std::nullopt;
}

std::optional<std::uint64_t> index_check::check_below(object_id id, const page& above,
                                                      std::size_t at, const bounds& within) {
  const entry& one = above.entries[at];
  if (one.first == 0) {
    of_.report(id, one.name, "is an index page with an entry that leads nowhere");
    return not_read();
  }
  if (!of_.has(one.first, object_marks::exists)) return not_read();  // reported as a reference
  if (!of_.is_kind(one.first, object_marks::is_page)) {
    of_.report(one.first, one.name,
               fmt::format("is no index page, although object {} of an index "
                           "refers to it as one",
                           text_of(id)));
    return not_read();
  }
  if (!of_.mark(one.first, object_marks::placed)) {
    of_.report(one.first, one.name, "is an index page that stands in two places");
    return not_read();
  }
  std::optional<page> below;
  if (!of_.look(one.first, [&](const stored_object& object) { below = read(object); }))
    return not_read();
  if (below->level + 1 != above.level) {
    of_.report(one.first, one.name,
               fmt::format("is an index page of level {} below one of level {}", below->level,
                           above.level));
    return not_read();
  }
  if (below->entries.empty()) of_.report(one.first, one.name, "is an empty index page");
  const auto members = check(one.first, *below, within);
  if (members && *members != one.count) {
    of_.report(one.first, one.name,
               fmt::format("is an index page with {} entries, while the one above says {}",
                           *members, one.count));
  }
  return members;
}

void index_check::check_member(object_id on, const entry& what) {
  const object_id member = what.first;
  if (member == 0) {
    return of_.report(on, what.name, "is an index page with an entry that leads nowhere");
  }
  if (of_.rules_ != nullptr) of_.rules_->check_entry(index_, what.name, what.target, of_);
  if (!of_.has(member, object_marks::exists)) return;  // reported as a reference
  if (!of_.is_kind(member, object_marks::is_member)) {
    return of_.report(member, what.name,
                      fmt::format("is no set_member, although the index {} "
                                  "refers to it as one",
                                  text_of(index_.id)));
  }
  if (!of_.mark(member, object_marks::placed)) {
    return of_.report(member, what.name, "stands in an index twice, or in two");
  }
  std::string key;
  object_id target = 0, owner = 0;
  const bool is_readable = of_.look(member, [&](const stored_object& object) {
    object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
      if (field.name == "key" && field.type == field_type::text) key = in.get_text();
    });
    target = object.reference("object");
    owner = object.reference("owner");
  });
  if (!is_readable) return;
  if (key != what.name) {
    of_.report(member, what.name, fmt::format("has another name than its entry: \"{}\"", key));
  }
  if (target != what.target) {
    of_.report(member, what.name,
               fmt::format("stands for object {}, while its entry in the index says {}",
                           text_of(target), text_of(what.target)));
  }
  if (owner != index_.id) {
    of_.report(
        member, what.name,
        fmt::format("stands in the index {}, but says {}", text_of(index_.id), text_of(owner)));
  }
}

}  // namespace goods
