// How states stored under one layout become bodies of a class of the process.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <goods/byte_reader.h>
#include <goods/class_descriptor.h>
#include <goods/dbs_storage.h>

#include "goods/class_layout.h"

namespace goods {

class body_arena;

// Made once per layout of a storage. Where the layout is the class's own, bodies are unpacked as
// they are; otherwise members are matched by name (after aliases; the k-th of a name with the
// k-th):
//
// - a number becomes what the member holds now: one that does not fit becomes the nearest that
// does,
//   a real number loses its fraction, not-a-number becomes 0;
// - of arrays and fixed texts, as many items as both have; a scalar is an array of one;
// - structures match their components in the same way;
// - a reference stays one, whatever class it is declared for;
// - a member whose kind changed otherwise, or that the class no longer has, is skipped; what the
//   layout does not have keeps the constructor's value;
// - a varying part is taken over when it has the same name and type; the components of its items
//   match by name, and what is new in them is 0.
// Threads: any.
class state_loader {
 public:
  state_loader(std::shared_ptr<const class_layout> stored, class_descriptor& cls);

  const class_layout& layout() const { return *stored_; }
  class_descriptor& cls() const { return cls_; }

  // A new body, pinned once. Throws corrupt_data.
  object* load(object_handle* handle, std::span<const std::byte> state, object_id self) const;
  // A new body without handle in an arena, to be destroyed and not to be unpinned.
  object* load_guest(body_arena& arena, byte_reader& state) const;

 private:
  struct member {
    const dbs_field_descriptor* stored;
    const field_descriptor* target;  // null: skipped
    std::vector<member> components;
  };

  void fill(object& body, byte_reader& in) const;
  std::vector<member> match(const std::vector<dbs_field_descriptor>& stored,
                            std::vector<const field_descriptor*> targets) const;
  void convert(object& body, byte_reader& in) const;
  static void convert_member(const member& one, char* base, byte_reader& in);
  void convert_varying(object& body, byte_reader& in) const;

  std::shared_ptr<const class_layout> stored_;
  class_descriptor& cls_;
  bool is_same_;
  std::vector<member> members_;                       // of another layout: the fixed ones
  std::vector<dbs_field_descriptor> target_varying_;  // the class's own varying parts
};

}  // namespace goods
