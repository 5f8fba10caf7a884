// What a class's fixed members are packed, unpacked, copied and searched for references by.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/field_descriptor.h>
#include <goods/object.h>

namespace goods {

// The fixed members of a class as a flat list of steps, made once; varying parts are not in it.
//
// Stored form: the members one after the other, each item by its type: integers of one byte as they
// are, longer ones and reals as byte_writer puts them, a reference relative to its object. A text
// and an array of one-byte integers is stored as its length without zeros at the end, and these
// bytes. Threads: any.
class pack_program {
 public:
  // Adds a member that lies `base` bytes from its descriptor's offset 0.
  void add(const field_descriptor& field, std::uint32_t base = 0);

  void pack(const object& body, byte_writer& out, object_id self) const;
  void unpack(object& body, byte_reader& in) const;
  void copy(const object& from, object& to) const;
  void visit(object& body, ref_visitor& visitor) const;
  // Lets go of the handles that references hold, and clears them.
  void release(object& body) const noexcept;

 private:
  enum class action : std::uint8_t {
    byte,
    bytes,
    boolean,  // as byte, bytes, but loaded as 0 or 1
    booleans,
    signed2,
    signed4,
    signed8,
    unsigned2,
    unsigned4,
    unsigned8,
    float4,
    float8,
    counted,
    back,
    loop
  };
  // For `loop`: the next `steps` steps apply `count` times, `stride` bytes apart.
  struct step {
    action what;
    std::uint32_t offset;
    std::uint32_t count;
    std::uint32_t stride = 0;
    std::uint32_t steps = 0;
  };
  using steps = std::span<const step>;

  static action action_for(const field_descriptor& field);
  static bool is_byte_array(action what) {
    return what == action::bytes || what == action::booleans;
  }
  template <class Visit>
  static void for_each_step(steps program, std::uintptr_t base, const Visit& visit);
  static void pack_step(const step& one, const char* at, byte_writer& out, object_id self);
  static void unpack_step(const step& one, char* at, byte_reader& in);

  struct reference {
    std::uint32_t offset;
    ref_kind kind;
  };

  std::vector<step> steps_;
  std::vector<reference> references_;  // of all steps; complete without loops only
  bool has_loops_ = false;
};

// The reference at an address in a body. Letting a word go is for the caller.
inline ref_word& word_at(void* address) { return *static_cast<ref_word*>(address); }
inline const ref_word& word_at(const void* address) {
  return *static_cast<const ref_word*>(address);
}
// Counts what a word holds (an identifier counts nothing), and lets it go again.
void count_word(ref_word word);
void release_word(ref_word word) noexcept;

}  // namespace goods
