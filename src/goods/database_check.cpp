#include "goods/database_check.h"

#include <algorithm>

#include <fmt/format.h>

#include <goods/B_page.h>
#include <goods/B_tree.h>
#include <goods/obj_storage.h>
#include <goods/set_member.h>

#include "goods/index_check.h"

namespace goods {
namespace {

constexpr unsigned objects_per_look = 256;
// Beyond this the way to an object is not kept: paths of so many levels end in "...".
constexpr std::size_t longest_way = 1'000'000;
// Beside an object in `pushed_`: the step to it ends here.
constexpr std::uint64_t end_of_step = std::uint64_t{1} << 63;
constexpr char separator = '~';

// Sees one object.
class one_state_sink : public state_sink {
 public:
  explicit one_state_sink(std::function<void(const object_state&)> visit)
      : visit_(std::move(visit)) {}
  void found(const object_state& state) override {
    is_found = true;
    visit_(state);
  }
  void missing(object_number) override {}
  bool is_found = false;

 private:
  const std::function<void(const object_state&)> visit_;
};

}  // namespace

// What a storage finds out about itself.
class database_check::storage_sink : public check_sink {
 public:
  storage_sink(database_check& owner, storage_number number) : owner_(owner), number_(number) {}

  bool found(const object_state& state) override {
    owner_.note_kind(number_, state);
    return true;
  }

  bool fault(const storage_fault& fault) override {
    check_finding finding;
    finding.storage = number_;
    finding.text = fault.text;
    if (fault.first != 0) {
      finding.id = make_object_id(number_, fault.first);
      finding.last = make_object_id(number_, fault.last);
      owner_.storages_[number_].lost.emplace_back(fault.first, fault.last);
    }
    owner_.add(std::move(finding));
    return true;
  }

  bool goes_on() override {
    return !owner_.options_.progress || owner_.options_.progress(owner_.reached_);
  }

 private:
  database_check& owner_;
  const storage_number number_;
};

database_check::database_check(database& db, const check_options& options, check_rules* rules)
    : db_(db), options_(options), rules_(rules), storages_(db.get_number_of_storages()) {}

database_check::~database_check() = default;

check_result database_check::run() {
  try {
    open_views();
    for (std::size_t s = 0; s < storages_.size(); ++s) {
      if (storages_[s].view != nullptr) check_storage(static_cast<storage_number>(s));
    }
    if (!options_.full) look_for_roots();
    if (options_.full) {
      check_roots();
      check_places();
      check_unreachable();
      if (rules_ != nullptr) rules_->finish(*this);
    }
  } catch (const stopped&) {
    result_.has_ended = false;
  }
  return result_;
}

void database_check::go_on() {
  if (++calls_ % objects_per_look != 0 || !options_.progress) return;
  if (!options_.progress(reached_)) throw stopped();
}

void database_check::add(check_finding finding) {
  ++result_.faults;
  reached_.faults = result_.faults;
  if (finding.last == 0) finding.last = finding.id;
  if (options_.found) options_.found(finding);
}

// --- The storages by themselves
// ---------------------------------------------------------------------

// One moment for all: a commit over several storages is in all of the views or in none.
void database_check::open_views() {
  std::vector<dbs_storage*> order;
  order.reserve(storages_.size());
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    storages_[s].dbs = &db_.storage(static_cast<storage_number>(s)).dbs();
    order.push_back(storages_[s].dbs);
  }
  std::ranges::sort(order, {}, &dbs_storage::identity);
  order.erase(std::unique(order.begin(), order.end()), order.end());
  std::vector<std::unique_ptr<commit_pause>> pauses;
  pauses.reserve(order.size());
  for (dbs_storage* const storage : order) pauses.push_back(storage->pause_commits());
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    const auto place = std::ranges::find(order, storages_[s].dbs);
    try {
      storages_[s].view =
          storages_[s].dbs->view(*pauses[static_cast<std::size_t>(place - order.begin())]);
    } catch (const error_info& error) {
      if (error.code() != error_code::corrupt_data) throw;
      check_finding finding;
      finding.storage = static_cast<storage_number>(s);
      finding.text = message_of(error);
      add(std::move(finding));
    }
  }
}

void database_check::read_layouts(storage_number storage) {
  storage_state& state = storages_[storage];
  for (const layout_record& record : state.dbs->layouts()) {
    if (record.number >= state.layouts.size()) state.layouts.resize(record.number + 1U);
    try {
      state.layouts[record.number] = std::make_shared<const class_layout>(
          class_layout::parse(record.layout, make_object_id(storage, record.number)));
    } catch (const error_info& error) {
      check_finding finding;
      finding.storage = storage;
      finding.text = fmt::format("its class layout {}: {}", record.number, message_of(error));
      add(std::move(finding));
    }
  }
}

const class_layout* database_check::layout_of(storage_number storage, class_number number) const {
  const auto& layouts = storages_[storage].layouts;
  return number < layouts.size() ? layouts[number].get() : nullptr;
}

void database_check::check_storage(storage_number storage) {
  read_layouts(storage);
  storage_sink sink(*this, storage);
  if (!storages_[storage].view->check(options_.full, sink)) throw stopped();
  std::ranges::sort(storages_[storage].lost);
}

void database_check::note_kind(storage_number storage, const object_state& state) {
  unsigned marks = object_marks::exists;
  if (const class_layout* layout = layout_of(storage, state.layout)) {
    if (is_class(*layout, B_tree::self_class.name())) marks |= object_marks::is_index;
    if (is_class(*layout, B_page::self_class.name())) marks |= object_marks::is_page;
    if (is_class(*layout, set_member::self_class.name())) marks |= object_marks::is_member;
  }
  storages_[storage].marks.add(state.number, marks);
  ++result_.objects;
  ++reached_.read;
  go_on();
}

bool database_check::has(object_id id, object_marks::mark one) const {
  return is_storage(id) && storages_[storage_of(id)].marks.has(number_of(id), one);
}

bool database_check::mark(object_id id, unsigned marks) {
  return storages_[storage_of(id)].marks.set(number_of(id), marks);
}

bool database_check::is_lost(object_id id) const {
  if (!is_storage(id)) return false;
  const storage_state& state = storages_[storage_of(id)];
  if (state.view == nullptr) return true;
  const object_number number = number_of(id);
  const auto next = std::ranges::upper_bound(state.lost, number, {},
                                             [](const auto& range) { return range.first; });
  return next != state.lost.begin() && std::prev(next)->second >= number;
}

bool database_check::is_kind(object_id id, object_marks::mark kind) const {
  return !has(id, object_marks::exists) || has(id, kind);
}

// --- Loading
// ----------------------------------------------------------------------------------------

bool database_check::look(object_id id, const std::function<void(const stored_object&)>& visit) {
  if (!has(id, object_marks::exists)) return false;
  const object_number number = number_of(id);
  bool is_readable = false;
  try {
    one_state_sink sink([&](const object_state& state) {
      const class_layout* const layout = layout_of(storage_of(id), state.layout);
      if (layout == nullptr) return;
      visit({id, *layout, state.body});
      is_readable = true;
    });
    storages_[storage_of(id)].view->load({&number, 1}, sink);
  } catch (const error_info&) {
    return false;
  }
  return is_readable;
}

const class_layout* database_check::read(object_id id, std::vector<std::byte>& state) {
  const object_number number = number_of(id);
  const class_layout* layout = nullptr;
  try {
    one_state_sink sink([&](const object_state& found) {
      layout = layout_of(storage_of(id), found.layout);
      state.assign(found.body.begin(), found.body.end());
    });
    storages_[storage_of(id)].view->load({&number, 1}, sink);
    if (layout == nullptr) {
      report(id, "", "is stored under a class layout that there is not, or that is damaged");
    } else {
      goods::for_each_reference(*layout, state, id, {});
    }
  } catch (const error_info& error) {
    layout = nullptr;
    report(id, "", message_of(error));
  }
  return layout;
}

// --- Following references
// -----------------------------------------------------------------------------

// Without looking at any other object.
void database_check::look_for_roots() {
  bool has_root = false, has_objects = false;
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    if (storages_[s].view == nullptr) continue;
    const object_id root = make_object_id(static_cast<storage_number>(s), root_object_number);
    const object_number number = root_object_number;
    one_state_sink sink([](const object_state&) {});
    try {
      storages_[s].view->load({&number, 1}, sink);
      has_root |= sink.is_found;
      storages_[s].dbs->for_each([&](const object_state&) {
        has_objects = true;
        return false;
      });
    } catch (const error_info& error) {
      if (error.code() != error_code::corrupt_data) throw;
      has_objects = true;
      if (sink.is_found) continue;
      has_root = true;
      report(root, "", message_of(error));
    }
  }
  if (!has_root && has_objects) report_no_root();
}

void database_check::report_no_root() {
  report(make_object_id(0, root_object_number), "", "is the root, which is not there");
}

void database_check::check_roots() {
  bool has_root = false, has_objects = false;
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    const object_id root = make_object_id(static_cast<storage_number>(s), root_object_number);
    has_root = has_root || has(root, object_marks::exists) || is_lost(root);
    storages_[s].marks.for_each([&](object_number, std::uint8_t) { has_objects = true; });
    if (is_lost(root)) {
      report(root, "", "cannot be read");
    } else if (has(root, object_marks::exists) && mark(root, object_marks::reached)) {
      follow(root);
    }
  }
  if (!has_root && has_objects) report_no_root();
}

void database_check::follow(object_id root) {
  pushed_.push_back(root);
  while (!pushed_.empty() || !pushed_back_.empty()) {
    if (pushed_.empty()) {
      const object_id id = pushed_back_.back();
      pushed_back_.pop_back();
      if (mark(id, object_marks::reached)) pushed_.push_back(id);
      continue;
    }
    const std::uint64_t next = pushed_.back();
    pushed_.pop_back();
    if ((next & end_of_step) == 0) {
      enter(next);
    } else if (unrecorded_ > 0) {
      --unrecorded_;
    } else {
      way_.pop_back();
    }
  }
}

void database_check::enter(object_id id) {
  ++reached_.checked;
  go_on();
  pushed_.push_back(id | end_of_step);
  if (way_.size() < longest_way)
    way_.push_back({id, {}, false});
  else
    ++unrecorded_;
  std::vector<std::byte> state;
  if (const class_layout* const layout = read(id, state)) expand({id, *layout, state});
}

void database_check::expand(const stored_object& object) {
  if (has(object.id, object_marks::is_index)) index_check(*this, object).run();
  if (has(object.id, object_marks::is_member)) {
    const object_id owner = object.reference("owner");
    if (!is_kind(owner, object_marks::is_index)) {
      report(object.id, "",
             fmt::format("says that it stands in object {}, which is no index", text_of(owner)));
    }
  }
  if (rules_ != nullptr) {
    if (object.id == make_object_id(0, root_object_number)) rules_->check_root(object, *this);
    rules_->check(object, *this);
  }
  object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
    walk_field(field, in, [&](const stored_reference& reference) {
      push(object, reference.target, field.name, reference.kind);
    });
  });
}

void database_check::push(const stored_object& from, object_id target, std::string_view member,
                          ref_kind kind) {
  if (!is_storage(target)) {
    return report(from.id, "",
                  fmt::format("refers to object {} by its member \"{}\", in a storage "
                              "that there is not",
                              text_of(target), member));
  }
  if (has(target, object_marks::exists)) {
    if (kind == ref_kind::back) {
      if (!has(target, object_marks::reached)) pushed_back_.push_back(target);
    } else if (mark(target, object_marks::reached)) {
      pushed_.push_back(target);
    }
    return;
  }
  // Once, not for every reference; far from all objects, nothing is kept.
  if (!mark(target, object_marks::reached)) return;
  report(
      target, name_between(from.id, target),
      fmt::format("{}; object {} refers to it by its member \"{}\"",
                  is_lost(target) ? "cannot be read" : "is not there", text_of(from.id), member));
}

// --- What shows in the end
// ----------------------------------------------------------------------------

void database_check::needs_place(object_id member) {
  if (has(member, object_marks::exists)) mark(member, object_marks::wants_place);
}

// In a page that could not be looked at.
bool database_check::may_stand_in_index(object_id member) {
  object_id owner = 0;
  look(member, [&](const stored_object& object) { owner = object.reference("owner"); });
  return half_read_.contains(owner);
}

void database_check::check_places() {
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    storages_[s].marks.for_each([&](object_number number, std::uint8_t marks) {
      constexpr unsigned readable = object_marks::exists | object_marks::reached;
      if ((marks & readable) != readable || (marks & object_marks::placed) != 0) return;
      const object_id id = make_object_id(static_cast<storage_number>(s), number);
      // A page does not say which index it belongs to.
      if ((marks & object_marks::is_page) != 0 && half_read_.empty()) {
        report(id, "", "is an index page of no index");
      }
      if ((marks & object_marks::wants_place) != 0 && !may_stand_in_index(id)) {
        report(id, "", "is a node's link to its parent, but stands in no index");
      }
    });
  }
}

void database_check::check_unreachable() {
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    storages_[s].marks.for_each([&](object_number number, std::uint8_t marks) {
      if ((marks & object_marks::exists) == 0 || (marks & object_marks::reached) != 0) return;
      const object_id id = make_object_id(static_cast<storage_number>(s), number);
      ++result_.unreachable;
      std::vector<std::byte> state;
      const class_layout* const layout = read(id, state);
      if (options_.unreachable) {
        options_.unreachable(id, layout != nullptr ? std::string_view(layout->name) : "");
      }
      go_on();
    });
  }
}

bool database_check::is_member(object_id id) const { return is_kind(id, object_marks::is_member); }

// --- Paths
// ------------------------------------------------------------------------------------------

void database_check::report(object_id id, std::string_view name, std::string text) {
  check_finding finding;
  finding.id = id;
  finding.storage = storage_of(id);
  finding.path = path_to_here();
  if (!name.empty()) {
    if (!finding.path.empty()) finding.path += separator;
    finding.path += name;
  }
  finding.text = std::move(text);
  look(id, [&](const stored_object& object) { finding.class_name = object.layout.name; });
  add(std::move(finding));
}

std::string database_check::path_to_here() {
  std::string path;
  for (std::size_t i = 1; i < way_.size(); ++i) {
    step& here = way_[i];
    if (!here.is_named) {
      here.name = name_between(way_[i - 1].id, here.id);
      here.is_named = true;
    }
    if (here.name.empty()) continue;
    if (!path.empty()) path += separator;
    path += here.name;
  }
  if (unrecorded_ > 0) path += "...";
  return path;
}

// The name of the entry, or of the member, by which one object refers to another.
std::string database_check::name_between(object_id from, object_id to) {
  std::string name;
  bool is_found = false;
  look(from, [&](const stored_object& object) {
    const bool has_entries = has(from, object_marks::is_index) || has(from, object_marks::is_page);
    object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
      if (is_found) return;
      if (has_entries && field.name == "entries") {
        for (std::size_t left = in.get_count(); left > 0 && !is_found; --left) {
          name = in.get_text();
          const object_id member = in.get_reference();
          is_found = in.get_reference() == to || member == to;
        }
        if (!is_found) name.clear();
        return;
      }
      walk_field(field, in, [&](const stored_reference& reference) {
        if (is_found || reference.target != to) return;
        is_found = true;
        const bool is_silent = has_entries || has(from, object_marks::is_member) ||
                               reference.kind == ref_kind::back ||
                               (rules_ != nullptr && rules_->is_silent(field.name));
        if (!is_silent) name = field.name;
      });
    });
  });
  return name;
}

}  // namespace goods
