#include "goods/state_loader.h"

#include <algorithm>

#include <goods/byte_writer.h>

#include "goods/body_arena.h"
#include "goods/pack_program.h"
#include "goods/stored_numbers.h"
#include "goods/unknown_class.h"

namespace goods {
namespace {

bool is_compatible(const dbs_field_descriptor& stored, const field_descriptor& target) {
  return !target.is_varying() &&
         (stored.type == target.type() || (is_number(stored.type) && is_number(target.type())));
}

bool is_stored_as_text(const dbs_field_descriptor& field) {
  return field.type == field_type::text ||
         (field.size == 1 && field.n_items > 1 && is_number(field.type));
}

// Numbers that were stored as a text: the zeros at its end were left out.
void convert_bytes(const dbs_field_descriptor& stored, const field_descriptor& target, char* at,
                   byte_reader& in) {
  const std::string_view text = in.get_text();
  if (text.size() > stored.n_items) in.fail("holds a text that does not fit its member");
  const std::size_t count = std::min(stored.n_items, target.n_items());
  for (std::size_t i = 0; i < count; ++i, at += target.size()) {
    const char byte = i < text.size() ? text[i] : '\0';
    const auto value = stored.type == field_type::signed_integer
                           ? stored_number(std::int64_t{static_cast<signed char>(byte)})
                           : stored_number(std::uint64_t{static_cast<unsigned char>(byte)});
    store_number(target, at, value);
  }
}

// --- Varying parts: from one packed form to another
// -------------------------------------------------

void put_default(const dbs_field_descriptor& field, byte_writer& out) {
  if (field.is_varying() || is_stored_as_text(field)) return out.put_byte(0);
  for (std::uint32_t i = 0; i < field.n_items; ++i) {
    if (field.type != field_type::structure) {
      out.put_byte(0);
      continue;
    }
    for (const dbs_field_descriptor& component : field.components) put_default(component, out);
  }
}

bool has_same_form(const dbs_field_descriptor& a, const dbs_field_descriptor& b) {
  return a.type == b.type && a.size == b.size && a.n_items == b.n_items &&
         a.components == b.components;
}

using stored_bytes = std::span<const std::byte>;

stored_bytes take_field(const dbs_field_descriptor& field, byte_reader& in) {
  const std::byte* const begin = in.position();
  walk_field(field, in, {});
  return {begin, in.position()};
}

void put_converted(const dbs_field_descriptor& from, stored_bytes bytes,
                   const dbs_field_descriptor& to, byte_writer& out, object_id self);

// One item of a structure: each component of `to` from the one of `from` that has its name.
void convert_item(const dbs_field_descriptor& from, byte_reader& in, const dbs_field_descriptor& to,
                  byte_writer& out) {
  std::vector<stored_bytes> found;
  for (const dbs_field_descriptor& component : from.components) {
    found.push_back(take_field(component, in));
  }
  for (const dbs_field_descriptor& component : to.components) {
    const auto source =
        std::ranges::find(from.components, component.name, &dbs_field_descriptor::name);
    if (source == from.components.end()) {
      put_default(component, out);
    } else {
      const auto index = static_cast<std::size_t>(source - from.components.begin());
      put_converted(*source, found[index], component, out, in.self());
    }
  }
}

void put_number(const dbs_field_descriptor& to, const stored_number& number, byte_writer& out) {
  alignas(8) char item[8];
  store_number(to.type, to.size, item, number);
  switch (to.type) {
    case field_type::real:
      if (to.size == 4) return out.put_float(nearest<float>(number));
      return out.put_double(nearest<double>(number));
    case field_type::signed_integer: {
      if (to.size == 1) return out.put_byte(static_cast<std::uint8_t>(item[0]));
      const auto limit = std::int64_t{1} << (to.size * 8 - 1) % 64;
      const auto value = nearest<std::int64_t>(number);
      return out.put_signed(to.size == 8 ? value : std::clamp(value, -limit, limit - 1));
    }
    default: {
      if (to.size == 1) return out.put_byte(static_cast<std::uint8_t>(item[0]));
      const auto value = nearest<std::uint64_t>(number);
      const auto limit = to.size == 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << to.size * 8) - 1;
      return out.put_unsigned(std::min(value, limit));
    }
  }
}

void put_converted(const dbs_field_descriptor& from, stored_bytes bytes,
                   const dbs_field_descriptor& to, byte_writer& out, object_id self) {
  if (has_same_form(from, to)) return out.put_bytes(bytes);
  byte_reader in(bytes, self);
  const bool is_scalar = from.n_items == 1 && to.n_items == 1;
  if (is_scalar && is_number(from.type) && is_number(to.type) && !is_stored_as_text(from) &&
      !is_stored_as_text(to)) {
    return put_number(to, read_number(from, in), out);
  }
  const bool is_same_count = from.n_items == to.n_items;
  if (from.type != field_type::structure || to.type != field_type::structure || !is_same_count) {
    return put_default(to, out);
  }
  std::size_t count = from.n_items;
  if (from.is_varying()) {
    count = in.get_count();
    out.put_unsigned(count);
  }
  for (std::size_t i = 0; i < count; ++i) convert_item(from, in, to, out);
}

}  // namespace

state_loader::state_loader(std::shared_ptr<const class_layout> stored, class_descriptor& cls)
    : stored_(std::move(stored)), cls_(cls), is_same_(stored_->bytes == cls.layout().bytes) {
  if (is_same_) return;
  const std::vector<const field_descriptor*> targets = all_fields(cls);
  members_ = match(stored_->fields, targets);
  for (const field_descriptor* target : targets) {
    if (target->is_varying()) target_varying_.push_back(target->to_stored());
  }
}

std::vector<state_loader::member> state_loader::match(
    const std::vector<dbs_field_descriptor>& stored,
    std::vector<const field_descriptor*> targets) const {
  std::vector<member> members;
  for (const dbs_field_descriptor& field : stored) {
    if (field.is_varying()) continue;
    members.push_back({&field, nullptr, {}});
    const std::string_view name = cls_.current_name_of(field.name);
    const auto found = std::find_if(targets.begin(), targets.end(),
                                    [&](const auto* target) { return target->name() == name; });
    if (found == targets.end()) continue;
    const field_descriptor* const target = *found;
    targets.erase(found);
    if (!is_compatible(field, *target)) continue;
    members.back().target = target;
    std::vector<const field_descriptor*> components;
    for_each_field(target->components(),
                   [&](const field_descriptor& component) { components.push_back(&component); });
    members.back().components = match(field.components, std::move(components));
  }
  return members;
}

object* state_loader::load(object_handle* handle, std::span<const std::byte> state,
                           object_id self) const {
  object* const body = cls_.create(handle, static_cast<unsigned>(state.size()));
  try {
    byte_reader in(state, self);
    fill(*body, in);
  } catch (...) {
    body->unpin();
    throw;
  }
  return body;
}

object* state_loader::load_guest(body_arena& arena, byte_reader& state) const {
  const body_arena::next_body placed(arena);
  object* const body = cls_.create(nullptr, static_cast<unsigned>(state.left()));
  try {
    fill(*body, state);
  } catch (...) {
    body->~object();
    throw;
  }
  return body;
}

void state_loader::fill(object& body, byte_reader& in) const {
  if (is_same_) {
    cls_.unpack(body, in);
  } else {
    convert(body, in);
  }
}

void state_loader::convert(object& body, byte_reader& in) const {
  for (const member& one : members_) convert_member(one, reinterpret_cast<char*>(&body), in);
  convert_varying(body, in);
  if (!in.at_end()) in.fail("has bytes behind its end");
}

void state_loader::convert_member(const member& one, char* base, byte_reader& in) {
  const dbs_field_descriptor& stored = *one.stored;
  if (one.target == nullptr) return walk_field(stored, in, {});
  const field_descriptor& target = *one.target;
  char* at = base + target.offset();
  if (is_stored_as_text(stored)) return convert_bytes(stored, target, at, in);
  for (std::uint32_t i = 0; i < stored.n_items; ++i, at += target.size()) {
    const bool is_kept = i < target.n_items();
    if (stored.type == field_type::structure) {
      for (const member& component : one.components) {
        if (is_kept) {
          convert_member(component, at, in);
        } else {
          walk_field(*component.stored, in, {});
        }
      }
    } else if (stored.type == field_type::reference) {
      const object_id id = in.get_reference();
      if (!is_kept) continue;
      if (target.kind() == ref_kind::counted) release_word(word_at(at));
      word_at(at) = id == 0 ? ref_word() : ref_word::of(id);
    } else {
      const stored_number number = read_number(stored, in);
      if (is_kept) store_number(target, at, number);
    }
  }
}

void state_loader::convert_varying(object& body, byte_reader& in) const {
  std::vector<std::pair<const dbs_field_descriptor*, stored_bytes>> found;
  for (const dbs_field_descriptor& field : stored_->fields) {
    if (field.is_varying()) found.emplace_back(&field, take_field(field, in));
  }
  if (target_varying_.empty()) return;
  byte_writer out;
  for (const dbs_field_descriptor& target : target_varying_) {
    const auto source = std::find_if(found.begin(), found.end(), [&](const auto& one) {
      return cls_.current_name_of(one.first->name) == target.name;
    });
    if (source == found.end()) {
      put_default(target, out);
    } else {
      put_converted(*source->first, source->second, target, out, in.self());
    }
  }
  byte_reader converted(out.bytes(), in.self());
  body.unpack_varying(converted, in.self());
  if (!converted.at_end()) converted.fail("has bytes behind its end");
}

}  // namespace goods
