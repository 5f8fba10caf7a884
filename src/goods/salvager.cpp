#include "goods/salvager.h"

#include <algorithm>

#include <goods/B_page.h>
#include <goods/B_tree.h>
#include <goods/byte_reader.h>
#include <goods/index_page.h>
#include <goods/obj_storage.h>
#include <goods/set_member.h>

#include "goods/configuration.h"
#include "storage/storage_address.h"

namespace goods {
namespace {

constexpr std::size_t batch_objects = 4096;
constexpr std::size_t batch_bytes = std::size_t{8} << 20;

// Whether the whole state is as its layout says.
bool fits(const stored_object& object) try {
  for_each_reference(object.layout, object.state, object.id, {});
  return true;
} catch (const error_info&) {
  return false;
}

bool is_index(const class_layout& layout) { return is_class(layout, B_tree::self_class.name()); }

// What an index, or a page of one, says.
struct page_content {
  std::uint64_t level = 0;
  std::uint64_t count = 0;
  bool is_in_order = true;
  std::vector<loose_entry> entries;  // of a leaf
  std::vector<object_id> members;
  std::vector<std::pair<object_id, std::uint64_t>> pages;
};

page_content read_page(const stored_object& object) {
  page_content page;
  object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
    if (field.name == "level" && field.size == 1) page.level = in.get_byte();
    if (field.name == "count" && field.size == 8) page.count = in.get_unsigned();
    if (field.name == "entries") {
      std::string_view before;
      for (std::size_t left = in.get_count(); left > 0; --left) {
        const std::string_view name = in.get_text();
        page.is_in_order = page.is_in_order && before <= name;
        before = name;
        page.members.push_back(in.get_reference());
        page.entries.push_back({0, std::string(name), in.get_reference()});
      }
    } else if (field.name == "pages") {
      for (std::size_t left = in.get_count(); left > 0; --left) {
        in.get_text();
        const object_id below = in.get_reference();
        page.pages.emplace_back(below, in.get_unsigned());
      }
    }
  });
  return page;
}

}  // namespace

class salvager::batch {
 public:
  batch(dbs_storage& into, salvage_result& result) : into_(into), result_(result) {}

  void add(object_number number, class_number layout, std::span<const std::byte> body) {
    bodies_.emplace_back(body.begin(), body.end());
    changes_.push_back({number, layout, bodies_.back(), false, true});
    bytes_ += body.size();
    if (changes_.size() >= batch_objects || bytes_ >= batch_bytes) commit();
  }
  void commit() {
    if (changes_.empty()) return;
    into_.commit({changes_, nullptr, {}});
    result_.objects += changes_.size();
    changes_.clear();
    bodies_.clear();
    bytes_ = 0;
  }

 private:
  dbs_storage& into_;
  salvage_result& result_;
  std::vector<object_change> changes_;
  std::vector<std::vector<std::byte>> bodies_;
  std::size_t bytes_ = 0;
};

salvager::salvager(const std::string& from, database& into,
                   const std::function<void(std::uint64_t)>& progress)
    : into_(into), progress_(progress) {
  const configuration config = read_configuration(from);
  if (config.addresses.size() != into.get_number_of_storages()) {
    throw_error(error_code::usage, "The new database has another number of storages.");
  }
  for (const std::string& address : config.addresses) {
    const storage_address parsed = parse_storage_address(address, config.directory);
    storages_.push_back({std::make_unique<salvaged_store>(parsed.directory), {}, {}});
  }
}

// As opening the storages would: what is prepared in one of them counts when it was decided in the
// one that coordinated it.
void salvager::finish_commits() {
  for (const storage_state& state : storages_) {
    for (const auto& part : state.store->prepared()) {
      const auto coordinates = [&](const storage_state& one) {
        return one.store->identity() == part->about.coordinator;
      };
      const auto coordinator = std::ranges::find_if(storages_, coordinates);
      if (coordinator != storages_.end() && coordinator->store->has_decided(part->about.id))
        state.store->finish(*part);
    }
  }
}

salvage_result salvager::run() {
  finish_commits();
  const auto count = static_cast<storage_number>(storages_.size());
  for (storage_number s = 0; s < count; ++s) {
    read_layouts(s);
    note_objects(s);
    for (const auto& [first, last] : storages_[s].store->lost()) {
      result_.lost_ranges.emplace_back(make_object_id(s, first), make_object_id(s, last));
    }
  }
  for (storage_number s = 0; s < count; ++s) {
    for_each(s, [this](const stored_object& object) {
      if (is_index(object.layout)) check_index(object);
    });
  }
  for (storage_number s = 0; s < count; ++s) find_loose_members(s);
  for (storage_number s = 0; s < count; ++s) copy_objects(s);
  return std::move(result_);
}

void salvager::read_layouts(storage_number storage) {
  storage_state& state = storages_[storage];
  dbs_storage& into = into_.storage(storage).dbs();
  for (const auto& [number, bytes] : state.store->layouts()) {
    try {
      auto parsed = std::make_shared<const class_layout>(class_layout::parse(bytes));
      state.layouts[number] = {std::move(parsed), into.intern_layout(bytes)};
    } catch (const error_info& error) {
      if (error.code() != error_code::corrupt_data) throw;
    }
  }
}

// --- Reading
// ----------------------------------------------------------------------------------------

bool salvager::has(object_id id, object_marks::mark one) const {
  return storage_of(id) < storages_.size() &&
         storages_[storage_of(id)].marks.has(number_of(id), one);
}

void salvager::note_objects(storage_number storage) {
  storage_state& state = storages_[storage];
  state.store->for_each([&](const object_state& found) {
    const auto layout = state.layouts.find(found.layout);
    if (layout == state.layouts.end()) return;
    const class_layout& read = *layout->second.layout;
    if (!fits({make_object_id(storage, found.number), read, found.body})) return;
    unsigned marks = object_marks::exists;
    if (is_index(read)) marks |= object_marks::is_index;
    if (is_class(read, B_page::self_class.name())) marks |= object_marks::is_page;
    if (is_class(read, set_member::self_class.name())) marks |= object_marks::is_member;
    state.marks.add(found.number, marks);
    if (progress_) progress_(0);
  });
}

// Those that can be read.
void salvager::for_each(storage_number storage,
                        const std::function<void(const stored_object&)>& visit) {
  storage_state& state = storages_[storage];
  state.store->for_each([&](const object_state& found) {
    if (!state.marks.has(found.number, object_marks::exists)) return;
    visit({make_object_id(storage, found.number), *state.layouts.at(found.layout).layout,
           found.body});
  });
}

bool salvager::look(object_id id, const std::function<void(const stored_object&)>& visit) {
  if (!has(id, object_marks::exists)) return false;
  storage_state& state = storages_[storage_of(id)];
  return state.store->load(number_of(id), [&](const object_state& found) {
    visit({id, *state.layouts.at(found.layout).layout, found.body});
  });
}

// --- Indexes
// ----------------------------------------------------------------------------------------

void salvager::check_index(const stored_object& index) {
  std::vector<loose_entry> entries;
  const page_content root = read_page(index);
  const bool is_whole =
      take_pages(index, root.level, index.id, entries) && root.count == entries.size();
  if (is_whole) return;
  broken_.insert(index.id);
  for (loose_entry& entry : entries) result_.loose.push_back(std::move(entry));
}

// Collects the entries that can be read. False when the index is not whole. Levels go down, so that
// this ends, and is nowhere deeper than an index can be.
bool salvager::take_pages(const stored_object& page, std::uint64_t level, object_id index,
                          std::vector<loose_entry>& entries) {
  const page_content content = read_page(page);
  bool is_whole = content.level == level && level <= index_page::max_level && content.is_in_order &&
                  (level == 0 || content.entries.empty()) && (level != 0 || content.pages.empty());
  for (std::size_t i = 0; level == 0 && i < content.entries.size(); ++i) {
    loose_entry entry = content.entries[i];
    entry.index = index;
    is_whole = take_entry(entry, content.members[i], index) && is_whole;
    entry.is_lost = !has(entry.target, object_marks::exists);
    entries.push_back(std::move(entry));
  }
  if (level == 0 || level > index_page::max_level) return is_whole;
  for (const auto& [below, count] : content.pages) {
    const std::size_t before = entries.size();
    const bool is_new = has(below, object_marks::is_page) && !has(below, object_marks::placed);
    if (!is_new) {
      is_whole = false;
      continue;
    }
    storages_[storage_of(below)].marks.set(number_of(below), object_marks::placed);
    bool is_page_whole = false;
    look(below, [&](const stored_object& next) {
      is_page_whole = take_pages(next, level - 1, index, entries);
    });
    is_whole = is_whole && is_page_whole && entries.size() - before == count;
  }
  return is_whole;
}

// Whether the entry is as it should be.
bool salvager::take_entry(const loose_entry& entry, object_id member, object_id index) {
  if (!has(member, object_marks::is_member) || has(member, object_marks::placed)) return false;
  storages_[storage_of(member)].marks.set(number_of(member), object_marks::placed);
  bool agrees = false;
  look(member, [&](const stored_object& object) {
    std::string_view key;
    object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
      if (field.name == "key" && field.type == field_type::text) key = in.get_text();
    });
    agrees = key == entry.name && object.reference("object") == entry.target &&
             object.reference("owner") == index;
  });
  return agrees && (entry.target == 0 || has(entry.target, object_marks::exists));
}

// Members whose pages, or whose whole index, cannot be read.
void salvager::find_loose_members(storage_number storage) {
  for_each(storage, [this](const stored_object& object) {
    if (!has(object.id, object_marks::is_member) || has(object.id, object_marks::placed)) return;
    const object_id owner = object.reference("owner");
    const object_id target = object.reference("object");
    if (owner == 0 || target == 0 || !has(target, object_marks::exists)) return;
    if (has(owner, object_marks::exists) && !is_emptied(owner)) return;  // it was removed from it
    loose_entry entry{owner, {}, target};
    object.for_each_member([&](const dbs_field_descriptor& field, byte_reader in) {
      if (field.name == "key" && field.type == field_type::text) entry.name = in.get_text();
    });
    result_.loose.push_back(std::move(entry));
  });
}

// --- Copying
// ----------------------------------------------------------------------------------------

void salvager::copy_objects(storage_number storage) {
  batch changes(into_.storage(storage).dbs(), result_);
  byte_writer out;
  for_each(storage, [&](const stored_object& object) {
    out.clear();
    rewrite(object, out);
    storage_state& state = storages_[storage];
    const auto layout = std::ranges::find_if(state.layouts, [&](const auto& known) {
      return known.second.layout.get() == &object.layout;
    });
    changes.add(number_of(object.id), layout->second.number, out.bytes());
    if (progress_) progress_(result_.objects);
  });
  changes.commit();
}

void salvager::rewrite(const stored_object& object, byte_writer& out) {
  byte_reader in(object.state, object.id);
  const bool empties = is_emptied(object.id);
  for (const dbs_field_descriptor& member : object.layout.fields) {
    if (!empties) {
      rewrite_member(object, member, in, out);
      continue;
    }
    // An index that is not whole becomes one without entries.
    const bool is_list = member.name == "entries" || member.name == "pages";
    const bool is_level = member.name == "level" && member.size == 1;
    const bool is_count = member.name == "count" && member.size == 8;
    if (!is_list && !is_level && !is_count) {
      rewrite_member(object, member, in, out);
      continue;
    }
    walk_field(member, in, {});
    if (is_level)
      out.put_byte(0);
    else
      out.put_unsigned(0);
  }
}

void salvager::rewrite_member(const stored_object& object, const dbs_field_descriptor& member,
                              byte_reader& in, byte_writer& out) {
  const std::byte* copied = in.position();
  walk_field(member, in, [&](const stored_reference& reference) {
    if (has(reference.target, object_marks::exists)) return;
    out.put_bytes({copied, reference.begin});
    out.put_reference(object_id{0}, object.id);
    copied = reference.end;
    result_.lost.push_back({object.id, member.name, object.layout.name, reference.target});
  });
  out.put_bytes({copied, in.position()});
}

salvage_result salvage(const std::string& from, database& into,
                       const std::function<void(std::uint64_t)>& progress) {
  return salvager(from, into, progress).run();
}

}  // namespace goods
