#include "goods/class_layout.h"

#include <algorithm>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/errors.h>

namespace goods {
namespace {

constexpr std::uint8_t layout_format = 1;
constexpr unsigned max_depth = 8;                        // structures within structures
constexpr std::uint64_t max_instance_bytes = 16u << 20;  // of one member, all items
constexpr std::size_t max_bases = 64;

void put_field(const dbs_field_descriptor& field, byte_writer& out) {
  out.put_text(field.name);
  out.put_byte(static_cast<std::uint8_t>(field.type));
  out.put_byte(static_cast<std::uint8_t>(field.kind));
  out.put_unsigned(field.size);
  out.put_unsigned(field.n_items);
  if (field.type != field_type::structure) return;
  out.put_unsigned(field.components.size());
  for (const dbs_field_descriptor& component : field.components) put_field(component, out);
}

bool is_valid_size(field_type type, std::uint64_t size) {
  switch (type) {
    case field_type::structure:
      return true;
    case field_type::reference:
      return size == sizeof(ref_word);
    case field_type::real:
      return size == 4 || size == 8;
    case field_type::text:
      return size == 1;
    case field_type::signed_integer:
    case field_type::unsigned_integer:
      return size == 1 || size == 2 || size == 4 || size == 8;
  }
  return false;
}

struct extent {
  std::uint64_t size, alignment;
};

// The memory that a member takes, as field_descriptor lays it out; more than allowed is not exact.
extent extent_of(const dbs_field_descriptor& field) {
  if (field.type != field_type::structure) {
    return {std::uint64_t{field.size} * field.n_items, field.size};
  }
  extent item{0, 1};
  for (const dbs_field_descriptor& component : field.components) {
    const extent next = extent_of(component);
    item.alignment = std::max(item.alignment, next.alignment);
    item.size = (item.size + next.alignment - 1) / next.alignment * next.alignment + next.size;
    if (item.size > max_instance_bytes) return item;
  }
  item.size = (item.size + item.alignment - 1) / item.alignment * item.alignment * field.n_items;
  return item;
}

// `in_varying`: components of a varying part may vary themselves.
dbs_field_descriptor get_field(byte_reader& in, unsigned depth, bool in_varying) {
  dbs_field_descriptor field;
  field.name = in.get_text();
  field.type = static_cast<field_type>(in.get_byte());
  const std::uint8_t kind = in.get_byte();
  const std::uint64_t size = in.get_unsigned();
  const std::uint64_t n_items = in.get_unsigned();
  if (kind > 1 || size > max_instance_bytes || n_items > max_instance_bytes ||
      size * n_items > max_instance_bytes || !is_valid_size(field.type, size) ||
      (n_items == 0 && !in_varying && depth > 0)) {
    in.fail("is a class layout with an impossible member");
  }
  field.kind = static_cast<ref_kind>(kind);
  field.size = static_cast<std::uint32_t>(size);
  field.n_items = static_cast<std::uint32_t>(n_items);
  if (field.type != field_type::structure) return field;
  const std::size_t count = in.get_count();
  if (count == 0 || depth == max_depth) in.fail("is a class layout with an impossible structure");
  for (std::size_t i = 0; i < count; ++i) {
    field.components.push_back(get_field(in, depth + 1, in_varying || n_items == 0));
  }
  if (extent_of(field).size > max_instance_bytes) {
    in.fail("is a class layout with an impossible member");
  }
  return field;
}

void walk_item(const dbs_field_descriptor& field, byte_reader& in,
               const stored_reference_visitor& visit) {
  switch (field.type) {
    case field_type::structure:
      for (const dbs_field_descriptor& component : field.components) {
        walk_field(component, in, visit);
      }
      break;
    case field_type::reference: {
      const std::byte* const begin = in.position();
      const object_id target = in.get_reference();
      if (target != 0 && visit) visit({target, field.kind, begin, in.position()});
      break;
    }
    case field_type::real:
      if (field.size == 4)
        in.get_float();
      else
        in.get_double();
      break;
    case field_type::text:
      in.get_text();
      break;
    case field_type::signed_integer:
    case field_type::unsigned_integer:
      if (field.size == 1)
        in.get_byte();
      else
        in.get_unsigned();
      break;
  }
}

}  // namespace

class_layout class_layout::make(std::string name, std::vector<std::string> bases,
                                std::vector<dbs_field_descriptor> fields) {
  class_layout layout{std::move(name), std::move(bases), std::move(fields), {}};
  byte_writer out;
  out.put_byte(layout_format);
  out.put_text(layout.name);
  out.put_unsigned(layout.bases.size());
  for (const std::string& base : layout.bases) out.put_text(base);
  out.put_unsigned(layout.fields.size());
  for (const dbs_field_descriptor& field : layout.fields) put_field(field, out);
  layout.bytes.assign(out.bytes().begin(), out.bytes().end());
  return layout;
}

class_layout class_layout::parse(std::span<const std::byte> bytes, object_id self) {
  byte_reader in(bytes, self);
  if (in.get_byte() != layout_format) in.fail("is a class layout of an unknown form");
  class_layout layout;
  layout.name = in.get_text();
  const std::size_t bases = in.get_count();
  if (bases > max_bases) in.fail("is a class layout with too many bases");
  for (std::size_t i = 0; i < bases; ++i) layout.bases.emplace_back(in.get_text());
  std::uint64_t total = 0;
  bool is_varying = false;
  for (std::size_t left = in.get_count(); left > 0; --left) {
    layout.fields.push_back(get_field(in, 0, false));
    const dbs_field_descriptor& field = layout.fields.back();
    total += extent_of(field).size;
    if (total > max_instance_bytes || (is_varying && !field.is_varying())) {
      in.fail("is a class layout with an impossible member");
    }
    is_varying = field.is_varying();
  }
  if (!in.at_end()) in.fail("is a class layout with bytes behind its end");
  layout.bytes.assign(bytes.begin(), bytes.end());
  return layout;
}

void walk_field(const dbs_field_descriptor& field, byte_reader& in,
                const stored_reference_visitor& visit) {
  const bool is_bytes =
      field.type == field_type::text || (!field.is_varying() && field.n_items > 1 &&
                                         field.size == 1 && field.type != field_type::structure);
  if (is_bytes) {
    const std::string_view text = in.get_text();
    if (!field.is_varying() && text.size() > field.n_items) {
      in.fail("holds a text that does not fit its member");
    }
    return;
  }
  const std::size_t count = field.is_varying() ? in.get_count() : field.n_items;
  for (std::size_t i = 0; i < count; ++i) walk_item(field, in, visit);
}

void for_each_reference(const class_layout& layout, std::span<const std::byte> state,
                        object_id self, const stored_reference_visitor& visit) {
  byte_reader in(state, self);
  for (const dbs_field_descriptor& field : layout.fields) walk_field(field, in, visit);
  if (!in.at_end()) in.fail("has bytes behind its end");
}

}  // namespace goods
