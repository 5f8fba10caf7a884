// The members of a class as one of its own objects describes them.
#pragma once

#include <goods/class_descriptor.h>
#include <goods/object.h>

#include "goods/pack_program.h"

namespace goods {

// The class of objects that are only made to describe their members: those of the initialiser of
// T::self_class, for example, which is no object yet.
inline class_descriptor& prototype_class() {
  static auto* const cls = new class_descriptor("prototype_t", 0, nullptr, nullptr, nullptr,
                                                nullptr, class_descriptor::helper_class);
  return *cls;
}

// For the initialiser of T::self_class.
template <class T>
field_descriptor* prototype_fields() {
  T prototype(nullptr, prototype_class());
  return prototype.describe_components();
}

// A reference that holds `word` as it is: no handle is made for an identifier.
inline object_ref keep_word(ref_word word) {
  if (word.is_handle()) return object_ref(word.handle());
  object_ref reference;
  word_at(&reference) = word;
  return reference;
}

}  // namespace goods
