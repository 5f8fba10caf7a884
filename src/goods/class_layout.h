// How the objects of a class are stored, in a form that outlives the class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <goods/class_descriptor.h>
#include <goods/dbs_storage.h>
#include <goods/field_descriptor.h>

namespace goods {

// A class layout as each storage keeps it: enough to read a packed state without the class.
//
// Stored form: a byte 1; name; number of bases and their names, the nearest first; number of fields
// and each field. A field: name, type, reference kind, size, items, and for a structure the number
// of its components and these. Numbers and texts as byte_writer writes them. Equal bytes mean equal
// layouts.
struct class_layout {
  std::string name;
  std::vector<std::string> bases;
  std::vector<dbs_field_descriptor> fields;  // in stored order: bases' first, varying parts last
  std::vector<std::byte> bytes;              // the stored form

  // Completes `bytes`.
  static class_layout make(std::string name, std::vector<std::string> bases,
                           std::vector<dbs_field_descriptor> fields);
  // Checks everything; throws corrupt_data naming `self`, the number under which the layout is
  // kept.
  static class_layout parse(std::span<const std::byte> bytes, object_id self = 0);
};

// A reference in a packed state.
struct stored_reference {
  object_id target;  // not 0
  ref_kind kind;
  const std::byte* begin;  // its stored form
  const std::byte* end;
};
using stored_reference_visitor = std::function<void(const stored_reference&)>;

// Reads one field's stored form and goes past it. Throws corrupt_data.
void walk_field(const dbs_field_descriptor& field, byte_reader& in,
                const stored_reference_visitor& visit);

// Shows every reference of a packed state. Throws corrupt_data when the state does not fit the
// layout.
void for_each_reference(const class_layout& layout, std::span<const std::byte> state,
                        object_id self, const stored_reference_visitor& visit);

// --- Classes that the process does not know
// --------------------------------------------------------

// Supplies the class for objects stored under a layout whose class the process does not know:
// called once per process and layout, with a lock held; must not load objects. The result is never
// destroyed. The usual function picks a base (the nearest of layout.bases that
// class_descriptor::find knows, or one of its own), calls make_unknown_fields(), makes a descriptor
// named layout->name with the base's instance size, scheme and constructor function and these
// fields, and calls adopt_layout() on it. The default does this with `object` as the last resort.
using unknown_class_factory = class_descriptor* (*)(std::shared_ptr<const class_layout> layout);
void set_unknown_class_factory(unknown_class_factory factory);

// Makes a field descriptor of the caller's own kind, as field_descriptor's constructor does.
using field_maker = field_descriptor* (*)(const field_descriptor* declared,
                                          const dbs_field_descriptor* stored);

struct unknown_fields {
  field_descriptor* fields;  // what the base does not have (in name, type, size and count), placed
                             // behind its instance; without varying parts; the caller's
  unsigned extra_room;       // bytes that bodies get behind the instance
};
unknown_fields make_unknown_fields(const class_layout& layout, const class_descriptor& base,
                                   field_maker maker);

// The class of the process for objects stored under `layout`: the class of that name, or the one
// that the factory makes. Its own layout may be another.
class_descriptor& class_for(const std::shared_ptr<const class_layout>& layout);

}  // namespace goods
