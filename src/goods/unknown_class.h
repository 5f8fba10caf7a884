// Members that only a stored layout knows, kept behind the instance of a class of the process.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/class_descriptor.h>

#include "goods/class_layout.h"
#include "goods/pack_program.h"

namespace goods {

// Where each member of a layout lies in a body that is one of `base` and has more room behind it.
//
// A member that the base has too, with the same name and stored form, lies where the base has it.
// The varying parts of the base are left to the body's ..._varying() functions when the layout
// begins with the same ones; all others are kept as stored, in an unknown_part whose address is the
// last word of the room.
struct layout_placement {
  struct member {
    const dbs_field_descriptor* stored;
    const field_descriptor* declared;  // null: behind the instance
    std::uint32_t offset;
  };
  std::vector<member> members;                    // the fixed ones
  std::vector<const dbs_field_descriptor*> kept;  // varying parts for the unknown_part
  bool base_has_varying = false;
  std::uint32_t kept_offset = 0;
  std::uint32_t extra_room = 0;

  layout_placement(const class_layout& layout, const class_descriptor& base);
};

// The persistent members of a class and its bases in stored order: outermost base first, varying
// parts last.
std::vector<const field_descriptor*> all_fields(const class_descriptor& cls);

// Varying parts of an unknown class: their bytes without the references among them.
class unknown_part {
 public:
  unknown_part() = default;
  unknown_part(const unknown_part& other);
  unknown_part& operator=(const unknown_part&) = delete;
  ~unknown_part();

  void read(const std::vector<const dbs_field_descriptor*>& parts, byte_reader& in);
  void write(byte_writer& out, object_id self) const;
  void visit(ref_visitor& visitor);
  std::size_t heap_bytes() const;

 private:
  struct reference {
    ref_word word;
    std::size_t before;  // how many of bytes_ stand in front of it
    ref_kind kind;
  };
  std::vector<std::byte> bytes_;
  std::vector<reference> references_;
};

}  // namespace goods
