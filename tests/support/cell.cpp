#include "support/cell.h"

#include <goods/field_descriptor.h>

namespace {

goods::class_descriptor& prototype_class() {
  static goods::class_descriptor helper("cell_t", sizeof(cell), &goods::pessimistic_scheme,
                                        goods::construct_object<cell>, nullptr, nullptr,
                                        goods::class_descriptor::helper_class);
  return helper;
}

goods::field_descriptor* cell_fields() {
  const cell prototype(nullptr, prototype_class());
  goods::field_descriptor* fields = nullptr;
  describe_member(fields, "value", prototype, prototype.value);
  describe_member(fields, "next", prototype, prototype.next);
  describe_member(fields, "owner", prototype, prototype.owner, goods::ref_kind::back);
  return fields;
}

}  // namespace

goods::class_descriptor cell::self_class("cell", sizeof(cell), &goods::pessimistic_scheme,
                                         goods::construct_object<cell>, cell_fields());
