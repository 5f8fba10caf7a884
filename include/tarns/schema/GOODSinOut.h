#pragma once

#include <goods/B_tree.h>
#include <goods/String.h>
#include <goods/field_descriptor.h>
#include <goods/object.h>
#include <goods/ref.h>
#include <goods/set_member.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/xcptref.h>
#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/schema/TarnString.h>
#include <tarns/schema/TarnStringList.h>
#include <tarns/tarns_api.h>
#include <tarns/util/PInOut.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace tarns {

// A member type for writeEnum().
template <class T>
concept TarnEnumeration = sizeof(T) <= 4 && (std::unsigned_integral<T> || std::is_enum_v<T>);

// Takes down the persistent members of a class: the class's write(name, out) hands each one over,
// and each becomes a field descriptor of that name, type, size and place in the object.
//
// Arrays are given as pointer and number of items, or as they are. All functions return true, so
// that a class can return the last one's result. Ownership: the list is the caller's once taken.
// Threads: one.
class TARNS_API GOODSinOut : public PInOut {
 public:
  // `node` is the one whose members are handed over.
  explicit GOODSinOut(const goods::object& node) : node_(node) {}
  ~GOODSinOut() override;

  static const char* GetType() { return "GOODSinOut"; }
  const char* getType() const override { return GetType(); }
  bool isDerivedFrom(const char* typeName) const override;

  template <TarnScalar T>
  bool write(const char* name, T& member) {
    return write(name, &member, 1);
  }
  template <TarnScalar T>
  bool write(const char* name, T* members, unsigned long count) {
    constexpr Kind kKind = std::is_same_v<T, bool> ? Kind::kBoolean : Kind::kNumber;
    return addMember(name, goods::field_type_of<T>(), members, sizeof(T), count, kKind);
  }
  template <class T, std::size_t N>
  bool write(const char* name, T (&members)[N]) {
    return write(name, &members[0], N);
  }

  // References to nodes (and to other objects, which read as the empty value).
  template <class T>
  bool write(const char* name, goods::ref<T>& member) {
    return write(name, &member, 1);
  }
  template <class T>
  bool write(const char* name, goods::ref<T>* members, unsigned long count) {
    return addReference(name, members, count, [] { return ClassOf<T>(); });
  }
  template <class T>
  bool write(const char* name, xcptref<T>* members, unsigned long count) {
    return addReference(name, members, count, [] { return ClassOf<T>(); });
  }
  // A way back to what holds the node.
  template <class T>
  bool write(const char* name, goods::back_ref<T>& member) {
    return addReference(
        name, &member, 1, [] { return ClassOf<T>(); }, goods::ref_kind::back);
  }

  bool write(const char* name, TarnString& member) { return write(name, &member, 1); }
  bool write(const char* name, TarnString* members, unsigned long count);
  bool write(const char* name, TarnStringList& member);

  // A text of at most `count` - 1 bytes, ended by a NUL, within the object.
  bool writeText(const char* name, char* text, unsigned long count);
  template <std::size_t N>
  bool writeText(const char* name, char (&text)[N]) {
    return writeText(name, &text[0], N);
  }

  // An enumeration stored as an unsigned integer; name its values with addEnumValue().
  template <TarnEnumeration T>
  bool writeEnum(const char* name, T& member) {
    return addEnumeration(name, &member, sizeof(T));
  }
  // Names a value of the enumeration declared last, whose name must be `member`; false otherwise.
  bool addEnumValue(const char* member, unsigned long value, const char* valueName);

  // Says that the member declared last, whose name must be `member`, used to be stored under
  // another name; false otherwise.
  bool addFormerName(const char* member, const char* formerName);

  // --- Members as text, with any PInOut; see docs/text-format.md --------------------------------

  // Writes the lines of all reflected members of the node; false when writing fails. Throws for
  // members that cannot be written as text.
  static bool WriteMembers(const TarnObject& node, PInOut& out);
  // Those of one member; of one that is no array, or an element, under that name.
  static bool WriteMember(const TarnObject& node, const TarnFieldDescriptor& field, PInOut& out);
  static bool WriteMemberWithName(const TarnObject& node, const TarnFieldDescriptor& field,
                                  const char* name, PInOut& out);
  // Reads the member that the current line names; End when the class has none of that name. A value
  // that the member cannot have throws.
  static PInOut::Status ReadMember(TarnObject& node, PInOut& in);

  // The circular list of what was taken down, which is forgotten here. Null for none.
  goods::field_descriptor* takeFieldDescriptors();

 private:
  // Works before static initialisation has reached T.
  template <class T>
  static goods::class_descriptor* ClassOf() {
    if constexpr (requires { T::SelfClass(); }) {
      return &T::SelfClass();
    } else {
      return &T::self_class;
    }
  }
  enum class Kind { kNumber, kBoolean, kText };
  bool addMember(const char* name, goods::field_type type, const void* member, std::size_t size,
                 unsigned long count, Kind kind);
  bool addReference(const char* name, const void* member, unsigned long count,
                    TarnFieldDescriptor::ClassFunction referencedClass,
                    goods::ref_kind kind = goods::ref_kind::counted);
  bool addEnumeration(const char* name, const void* member, std::size_t size);
  bool add(TarnFieldDescriptor* field);
  unsigned offsetOf(const void* member) const;
  TarnFieldDescriptor* last(const char* name) const;

  const goods::object& node_;
  goods::field_descriptor* fields_ = nullptr;  // owned
};

}  // namespace tarns
