// The description of one persistent member of a class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include <goods/goods_api.h>
#include <goods/object_ref.h>

namespace goods {

// What a member holds. The numbers are stored in class layouts and appear in messages.
enum class field_type : std::uint8_t {
  structure = 0,         // components
  reference = 1,         // an object_ref or back_ref, see field_descriptor::kind()
  signed_integer = 2,    // 1, 2, 4 or 8 bytes
  unsigned_integer = 3,  // 1, 2, 4 or 8 bytes; bool is one of 1
  real = 4,              // 4 or 8 bytes
  text = 5,              // bytes: a fixed number of them, or varying when n_items is 0
};

// A member as a stored class layout describes it; see class_layout.h.
struct dbs_field_descriptor {
  std::string name;
  field_type type = field_type::structure;
  ref_kind kind = ref_kind::counted;             // of a reference
  std::uint32_t size = 0;                        // bytes of one item in memory when it was stored
  std::uint32_t n_items = 1;                     // 0: a varying part
  std::vector<dbs_field_descriptor> components;  // of a structure

  bool is_varying() const { return n_items == 0; }
  friend bool operator==(const dbs_field_descriptor&, const dbs_field_descriptor&) = default;
};

// One persistent member: its stored name, type, and place in the C++ object.
//
// Fields stand in circular lists: a list is known by its first field, the last one's next() is the
// first again; null is the empty list. A class descriptor owns its list, a structure's field that
// of its components (whose offsets count from the structure's begin). A field with n_items() == 0
// is a varying part: its bytes come from the ..._varying() functions of object.h, its description
// only says how others can read them. Varying parts follow all others in the stored form, in the
// order of declaration. Stored form of a varying part: of a text, length and bytes; of anything
// else the number of items and then each item, a structure as its components one after the other.
// Threads: made and linked by one thread, then only read.
class GOODS_API field_descriptor {
 public:
  // A structure until set_type() says otherwise. `size`: bytes of one item. Takes over
  // `components`.
  field_descriptor(const char* name, unsigned size, unsigned n_items, unsigned offset,
                   field_descriptor* components = nullptr);
  // A member known from a stored layout only. `declared`, when not null, is a member in whose place
  // it lies (gives the offset); otherwise set_offset() places it.
  field_descriptor(const field_descriptor* declared, const dbs_field_descriptor* stored);
  // A copy stands in no list; components are copied too.
  field_descriptor(const field_descriptor& other);
  field_descriptor& operator=(const field_descriptor& other);  // keeps this one's place in its list
  virtual ~field_descriptor();

  const char* name() const { return name_.c_str(); }
  field_type type() const { return type_; }
  ref_kind kind() const { return kind_; }
  unsigned size() const { return size_; }        // bytes of one item
  unsigned n_items() const { return n_items_; }  // 0: varying part
  unsigned offset() const { return offset_; }    // bytes from the begin of object or structure
  bool is_varying() const { return n_items_ == 0; }
  // An unsigned integer of one byte in which nothing but 0 and 1 may ever stand: a C++ bool. Not
  // part of the stored layout; whatever else was stored is loaded as 1.
  bool is_boolean() const { return is_boolean_; }
  field_descriptor* components() const { return components_; }
  field_descriptor* next() const { return next_; }  // itself when it is the only one

  field_descriptor& set_type(field_type type) {
    type_ = type;
    return *this;
  }
  field_descriptor& set_kind(ref_kind kind) {
    kind_ = kind;
    return *this;
  }
  field_descriptor& set_offset(unsigned offset) {
    offset_ = offset;
    return *this;
  }
  field_descriptor& set_boolean(bool is_boolean = true) {
    is_boolean_ = is_boolean;
    return *this;
  }

  // Puts this field, which stands in no list, at the end of `list` (whose owner now owns it).
  void append_to(field_descriptor*& list);

  // Takes `field` out of `list`; the caller owns it again.
  static void remove_from(field_descriptor*& list, field_descriptor& field);
  static void destroy_list(field_descriptor* list) noexcept;

  dbs_field_descriptor to_stored() const;

 private:
  std::string name_;
  unsigned size_, n_items_, offset_;
  field_type type_ = field_type::structure;
  ref_kind kind_ = ref_kind::counted;
  bool is_boolean_ = false;
  field_descriptor* components_;  // owned
  field_descriptor* next_;
};

// Calls `visit(field)` for each field of a list, which must not change meanwhile.
template <class Visit>
void for_each_field(field_descriptor* list, Visit&& visit) {
  if (list == nullptr) return;
  field_descriptor* field = list;
  do {
    visit(*field);
    field = field->next();
  } while (field != list);
}

// The field type of a scalar member.
template <class T>
constexpr field_type field_type_of() {
  if constexpr (std::is_floating_point_v<T>) {
    return field_type::real;
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    return std::is_signed_v<T> ? field_type::signed_integer : field_type::unsigned_integer;
  } else {
    static_assert(sizeof(T) == sizeof(ref_word), "neither a scalar nor a reference");
    return field_type::reference;
  }
}

// Describes the member `member` of `owner` and puts the description at the end of `list`. Scalars,
// enumerations, object_ref, ref<T>; give `kind` for a back_ref<T>.
template <class Owner, class T>
field_descriptor& describe_member(field_descriptor*& list, const char* name, const Owner& owner,
                                  const T& member, ref_kind kind = ref_kind::counted) {
  const auto offset =
      reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&owner);
  auto* field = new field_descriptor(name, sizeof(T), 1, static_cast<unsigned>(offset));
  field->set_type(field_type_of<T>()).set_kind(kind).set_boolean(std::is_same_v<T, bool>);
  field->append_to(list);
  return *field;
}

}  // namespace goods
