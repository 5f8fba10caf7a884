// The references that members of nodes hold.
#pragma once

#include <goods/object_ref.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <cstddef>

namespace tarns {

inline bool IsCountedReference(const goods::field_descriptor& field) {
  return field.type() == goods::field_type::reference && field.kind() == goods::ref_kind::counted;
}

inline goods::object_ref* ReferenceAt(TarnObject& node, const goods::field_descriptor& field,
                                      unsigned item) {
  return reinterpret_cast<goods::object_ref*>(reinterpret_cast<char*>(&node) + field.offset() +
                                              std::size_t{item} * field.size());
}
inline const goods::object_ref& ReferenceAt(const TarnObject& node,
                                            const goods::field_descriptor& field, unsigned item) {
  return *ReferenceAt(const_cast<TarnObject&>(node), field, item);
}

// Calls `visit(field, item, reference)` for every counted reference member of the node's class,
// items of arrays one by one; those of TarnObject itself are left out.
template <class Visit>
void ForEachReference(TarnObject& node, Visit&& visit) {
  for (const goods::class_descriptor* cls = &node.cls();
       cls != nullptr && cls != &TarnObject::self_class; cls = cls->base()) {
    goods::for_each_field(cls->fields(), [&](const goods::field_descriptor& field) {
      if (!IsCountedReference(field)) return;
      for (unsigned item = 0; item < field.n_items(); ++item) {
        visit(field, item, *ReferenceAt(node, field, item));
      }
    });
  }
}

template <class Visit>
void ForEachReference(const TarnObject& node, Visit&& visit) {
  ForEachReference(const_cast<TarnObject&>(node),
                   [&](const goods::field_descriptor& field, unsigned item,
                       const goods::object_ref& reference) { visit(field, item, reference); });
}

// The reference that a node's class keeps under the name of another class's member; null for none.
inline const goods::object_ref* SameReferenceIn(const TarnObject& node,
                                                const goods::field_descriptor& field,
                                                unsigned item) {
  const TarnFieldDescriptor* const own = node.getClass().findField(field.name());
  if (own == nullptr || !IsCountedReference(*own) || item >= own->n_items()) return nullptr;
  return &ReferenceAt(node, *own, item);
}

}  // namespace tarns
